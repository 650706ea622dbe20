#pragma once

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "engine/FileBudget.h"

namespace agent {

/// The bytes in the temporary files without a name of one scan.
class TempSpace {
 public:
  explicit TempSpace(std::uint64_t limit) : limit_(limit) {}
  /// False above the limit.
  bool take(std::uint64_t bytes) {
    used_ += bytes;
    full_ = full_ || used_ > limit_;
    return !full_;
  }
  void giveBack(std::uint64_t bytes) { used_ -= bytes; }
  std::uint64_t used() const { return used_; }
  std::uint64_t limit() const { return limit_; }
  bool wasFull() const { return full_; }

 private:
  const std::uint64_t limit_;
  std::atomic<std::uint64_t> used_{0};
  std::atomic<bool> full_{false};
};

/// The use of one scan, beside what the scan may use. While the object lives, a timer's signal compares
/// processor time, clock and temporary files with the budget. After a shortage the process can write no more
/// files: the libraries then end what they unpack. One object at a time in a process.
class ScanBudget {
 public:
  explicit ScanBudget(const FileBudget& budget, std::uint64_t maxLayers);
  ~ScanBudget();
  ScanBudget(const ScanBudget&) = delete;
  ScanBudget& operator=(const ScanBudget&) = delete;

  const FileBudget& budget() const { return budget_; }
  /// The folder of this process's temporary files; must live as long as this object.
  void watchFolder(const std::string& folder);
  TempSpace& tempSpace() { return space_; }

  /// libclamav begins to scan a layer. False for one layer too many.
  bool addLayer(std::uint64_t bytes) {
    layerBytes_ += bytes;
    return ++layers_ <= maxLayers_;
  }
  std::uint64_t layersLeft() const { return layers_ < maxLayers_ ? maxLayers_ - layers_ : 0; }
  std::uint64_t bytesLeft() const {
    return layerBytes_ < budget_.unpackedBytes ? budget_.unpackedBytes - layerBytes_ : 0;
  }
  /// "more data in it than ...".
  std::string dataReason() const;

  /// A shortage of time or of temporary space.
  bool ranOut() const { return shortage_ != Shortage::kNone || space_.wasFull(); }
  std::string reason() const;

 private:
  using Clock = std::chrono::steady_clock;
  enum class Shortage : std::uint8_t { kNone, kProcessor, kClock, kTempSpace };

  static void onTimer(int);
  static void onLongFile(int);
  void compare();
  void endFor(Shortage shortage);
  bool usesTooMuchSpace();

  const FileBudget budget_;
  const std::uint64_t maxLayers_;
  TempSpace space_;
  const std::chrono::nanoseconds processorBefore_;
  rlimit fileSizeBefore_{};
  rlim_t longestFile_ = 0;
  std::atomic<const char*> folder_{nullptr};
  Clock::time_point lastLook_ = Clock::now(), nextWalk_ = lastLook_;
  Clock::duration clock_{};  // without pauses
  std::atomic<Shortage> shortage_{Shortage::kNone};
  std::uint64_t layers_ = 0, layerBytes_ = 0;
};

}  // namespace agent
