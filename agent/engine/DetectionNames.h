#pragma once

#include <string>
#include <string_view>

#include "engine/ScanTypes.h"

namespace agent {

/// What libclamav's name for a find means here.
enum class FindKind {
  kDetection,   ///< a signature matched
  kHeuristic,   ///< suspicion or unwanted: a detection in a strong scan only
  kNotScanned,  ///< the file was not scanned whole: no detection, an error
};

struct Find {
  FindKind kind = FindKind::kDetection;
  Detection detection;  ///< for kDetection and kHeuristic
  std::string reason;   ///< for kNotScanned
};

/// Reads a find's name as libclamav gives it: what it means, whose engine it is, and what kind of risk.
Find readFind(std::string_view libraryName);

}  // namespace agent
