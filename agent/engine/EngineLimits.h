#pragma once

#include <cstdint>
#include <string>

namespace agent {

/// The limits for the scan of one file. Content left out because of a limit makes the file's outcome an
/// error, never clean. Generous by default; tests lower them. The part of one file: FileBudget.h.
struct EngineLimits {
  std::uint64_t maxFileBytes = 1ULL << 30;   ///< of the file and of each member; rounded down to 64 KiB
  std::uint64_t maxScanBytes = 4ULL << 30;   ///< of the file and everything unpacked from it
  std::uint32_t maxFiles = 100000;           ///< the file and its members
  std::uint32_t maxRecursion = 40;           ///< files in files of any kind, archives or not
  std::uint32_t quickTempBytes = 16U << 20;  ///< of one temporary file in memory; larger files go to disk

  std::uint32_t processorMs = 15000;          ///< processor time
  std::uint32_t processorMsPer100Mb = 10000;  ///< more, for each 100 MB of the disk that the file occupies
  std::uint32_t clockFactor = 10;             ///< times the processor time: the limit by the clock
  std::uint64_t tempBytes = 512U << 20;  ///< of temporary files; or twice the file's size, if that is more
  std::uint32_t unpackedRatio = 250;     ///< times the file's size: of everything unpacked from it
  std::uint64_t freeUnpackedBytes = 256U << 20;  ///< unpacked whatever the ratio
};

/// One line, for the log, and for the version of results: another limit, another result.
inline std::string describe(const EngineLimits& limits) {
  const auto text = [](const char* name, std::uint64_t value) { return name + std::to_string(value); };
  return text("file ", limits.maxFileBytes) + text(" bytes, unpacked ", limits.maxScanBytes) +
         text(" bytes or ", limits.unpackedRatio) + text(" times the file above ", limits.freeUnpackedBytes) +
         text(" bytes, members ", limits.maxFiles) + text(", depth ", limits.maxRecursion) +
         text(", processor ", limits.processorMs) + text(" ms and ", limits.processorMsPer100Mb) +
         text(" ms for 100 MB, clock ", limits.clockFactor) + text(" times, temporary ", limits.tempBytes) +
         " bytes";
}

}  // namespace agent
