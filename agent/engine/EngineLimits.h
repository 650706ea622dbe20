#pragma once

#include <cstdint>
#include <string>

namespace agent {

/// The limits for the scan of one file. Content left out because of a limit makes the file's outcome an
/// error, never clean. Generous by default; tests lower them.
struct EngineLimits {
  std::uint64_t maxFileBytes = 1ULL << 30;   ///< of the file and of each member; rounded down to 64 KiB
  std::uint64_t maxScanBytes = 4ULL << 30;   ///< of the file and everything unpacked from it
  std::uint32_t maxFiles = 100000;           ///< members of one file
  std::uint32_t maxRecursion = 40;           ///< files in files of any kind, archives or not
  std::uint32_t maxScanMs = 300000;          ///< for one file, the engine's own clock
  std::uint32_t quickTempBytes = 16U << 20;  ///< of one temporary file in memory; larger files go to disk
};

/// One line, for the log, and for the version of results: another limit, another result.
inline std::string describe(const EngineLimits& limits) {
  return "file " + std::to_string(limits.maxFileBytes) + " bytes, unpacked " +
         std::to_string(limits.maxScanBytes) + " bytes, members " + std::to_string(limits.maxFiles) +
         ", depth " + std::to_string(limits.maxRecursion) + ", time " + std::to_string(limits.maxScanMs) +
         " ms";
}

}  // namespace agent
