#pragma once

#include "engine/ScanTypes.h"

namespace agent {

/// Fills the three hashes of the whole file in one reading, and keeps the descriptor's position. False, with
/// empty hashes, when the file cannot be read to its end.
bool fillHashes(int fd, Verdict& verdict);

}  // namespace agent
