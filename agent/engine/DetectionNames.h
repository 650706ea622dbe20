#pragma once

#include <string>
#include <string_view>

#include "engine/ScanTypes.h"

namespace agent {

/// The meaning of a name that libclamav reports.
enum class FindKind {
  kDetection,   ///< a signature matched
  kHeuristic,   ///< suspicious or unwanted: a detection in a strong scan only
  kNotScanned,  ///< the file was not scanned whole: an error
};

struct Find {
  FindKind kind = FindKind::kDetection;
  Detection detection;  ///< for kDetection and kHeuristic
  std::string reason;   ///< for kNotScanned
};

/// Reads a name that libclamav reports: its meaning, the engine it belongs to, and the kind of risk.
Find readFind(std::string_view libraryName);

}  // namespace agent
