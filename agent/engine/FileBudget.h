#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "engine/EngineLimits.h"

namespace agent {

/// What the scan of one file may use.
struct FileBudget {
  std::chrono::milliseconds processor{};  ///< processor time
  std::chrono::milliseconds clock{};
  std::uint64_t tempBytes = 0;      ///< of temporary files
  std::uint64_t unpackedBytes = 0;  ///< the file and everything unpacked from it
  std::uint32_t ratio = 0;          ///< that made the limit of unpackedBytes; 0: another limit did

  // A scan that does not end by itself is ended from outside. Its hashes may take longer than its budget.
  std::chrono::milliseconds processorEnd{};
  std::chrono::milliseconds clockEnd{};
};

/// Time is given for the blocks that the file occupies: the holes of a sparse file cost nothing.
FileBudget budgetOf(const EngineLimits& limits, const struct stat& file);

/// "15 s" or "300 ms".
std::string timeText(std::chrono::milliseconds time);
/// The reasons of an error.
std::string processorReason(const FileBudget& budget);
std::string clockReason(std::chrono::milliseconds limit);

}  // namespace agent
