#pragma once

#include <string>

#include "platform/Expected.h"
#include "task/EncounteredFile.h"
#include "task/ScanPlan.h"

namespace agent {

/// Fails with the reason when the plan leaves a file out by its size or kind. May read the first bytes of the
/// file; does not move the descriptor's position.
platform::Expected<void> checkIncluded(const ScanPlan& plan, const EncounteredFile& file);

/// The lower-case ending of a file's name, after the last dot; empty for a name without a dot.
std::string endingOf(const std::string& path);

}  // namespace agent
