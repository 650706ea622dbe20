#include "engine/FileBudget.h"

#include <algorithm>

namespace agent {

using std::chrono::milliseconds;

FileBudget budgetOf(const EngineLimits& limits, const struct stat& file) {
  constexpr std::uint64_t kBlock = 512, kHundredMb = 100'000'000, kHashedInOneSecond = 256U << 20;
  constexpr milliseconds kMoreProcessor(2000), kMoreClock(3000);
  const auto size = static_cast<std::uint64_t>(std::max<off_t>(file.st_size, 0));
  const std::uint64_t occupied = static_cast<std::uint64_t>(std::max<blkcnt_t>(file.st_blocks, 0)) * kBlock;
  FileBudget budget;
  budget.processor =
      milliseconds(limits.processorMs + limits.processorMsPer100Mb * std::min(size, occupied) / kHundredMb);
  budget.clock = budget.processor * limits.clockFactor;
  budget.processorEnd = budget.processor + kMoreProcessor + std::chrono::seconds(size / kHashedInOneSecond);
  budget.clockEnd = std::max(budget.clock, budget.processorEnd) + kMoreClock;
  budget.tempBytes = std::max(limits.tempBytes, 2 * size);
  const std::uint64_t byRatio = size + std::max(limits.freeUnpackedBytes, limits.unpackedRatio * size);
  budget.unpackedBytes = std::min(limits.maxScanBytes, byRatio);
  budget.ratio = byRatio < limits.maxScanBytes ? limits.unpackedRatio : 0;
  return budget;
}

std::string timeText(milliseconds time) {
  return time.count() % 1000 == 0 ? std::to_string(time.count() / 1000) + " s"
                                  : std::to_string(time.count()) + " ms";
}

std::string processorReason(const FileBudget& budget) {
  return "the scan used more processor time than its budget of " + timeText(budget.processor);
}

std::string clockReason(milliseconds limit) {
  return "the scan took longer than its budget of " + timeText(limit) + " by the clock";
}

}  // namespace agent
