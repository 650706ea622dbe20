#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "json/ScanRecords.h"

namespace agent {

/// What a task counts. Each entry met is counted once in met() and ends once in one of clean, infected, error
/// or skipped; members of archives are no entries. Any thread.
class Counters {
 public:
  void met(const std::string& path);
  void clean();
  void infected();
  void failed();
  void skipped(const std::string& reason);
  void trusted();    ///< a trusted item, left alone: ends as skipped
  void fixed();      ///< a detection that was taken away
  void leftAlone();  ///< a detection that was only reported
  void fixFailed();
  /// Entries met that have not ended yet.
  std::int64_t underWay() const;
  std::int64_t infectedCount() const;

  /// The record on the wire: paths encoded, cost_time in whole seconds since the counters were made.
  JsonReflect::ScanBusOverView overview(const std::string& token) const;
  /// "… clean, … infected, …" for the log and the detail of the last state; the skipped ones by their
  /// reasons.
  std::string summary() const;

 private:
  struct Numbers {
    std::int64_t met = 0, clean = 0, infected = 0, failed = 0, skipped = 0;
    std::int64_t trusted = 0, fixed = 0, leftAlone = 0, fixFailed = 0;
  };
  void count(std::int64_t Numbers::*which);

  mutable std::mutex mutex_;
  Numbers numbers_;
  std::map<std::string, std::int64_t> skipReasons_;  // a few; what follows goes under "other reasons"
  std::string current_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace agent
