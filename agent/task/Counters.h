#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "json/ScanRecords.h"

namespace agent {

/// The reason, for the log, of a clean result without a scan.
inline constexpr const char* kKnownClean = "known from the scan cache";

/// The counters of a task. Each entry is counted once by encountered(), and once by one of clean, infected,
/// failed, skipped and trusted. Members of archives are no entries. Any thread.
class Counters {
 public:
  void encountered(const std::string& path);
  void clean() { count(&Numbers::clean); }
  void knownClean();  ///< counts as clean, too: a result of the scan cache
  void infected() { count(&Numbers::infected); }
  void failed() { count(&Numbers::failed); }
  void skipped(const std::string& reason);
  void trusted();                                   ///< counts as skipped, too
  void fixed() { count(&Numbers::fixed); }          ///< a detection whose file was removed
  void leftAlone() { count(&Numbers::leftAlone); }  ///< a detection that was only reported
  void fixFailed() { count(&Numbers::fixFailed); }

  /// The record on the wire: paths encoded, cost_time in whole seconds since the counters were made.
  JsonReflect::ScanBusOverView overview(const std::string& token) const;
  /// "… clean, … infected, …" for the log and the detail of the last state, with the reasons for skipping.
  std::string summary() const;

 private:
  struct Numbers {
    std::int64_t encountered = 0, clean = 0, known = 0, infected = 0, failed = 0, skipped = 0;
    std::int64_t trusted = 0, fixed = 0, leftAlone = 0, fixFailed = 0;
  };
  void count(std::int64_t Numbers::*which);

  mutable std::mutex mutex_;
  Numbers numbers_;
  std::map<std::string, std::int64_t> skipReasons_;  // the first few; later ones count as "other reasons"
  std::string current_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace agent
