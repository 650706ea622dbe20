#pragma once

#include "platform/InstallTree.h"

namespace agent {

/// Asks the agent of a tree over the bus, and prints one key=value a line: pid, program, build (same as this
/// program, or other), tasks. Returns an ExitCode.
int printStatus(const platform::InstallTree& tree);

}  // namespace agent
