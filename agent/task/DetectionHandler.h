#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Descriptor.h"
#include "store/Store.h"
#include "task/Counters.h"
#include "task/RiskRecords.h"
#include "task/RunningPrograms.h"
#include "task/ScanPlan.h"
#include "task/TaskControl.h"
#include "task/TaskEvents.h"

namespace agent {

/// A file on its way through the scan; the descriptor stays open until its end is known.
struct ScanJob {
  std::string path;  ///< bytes
  platform::Descriptor fd;
  struct stat status {};
  std::int64_t statusNs = 0;  ///< when it was read, since 1970-01-01
  FileIdentity identity;
  bool cacheable = false;       ///< the cache may remember it as clean
  bool rejected = false;        ///< by path, folder, ending or name
  bool folderWritable = false;  ///< by the caller
};

/// Tells and handles what a scan finds: on a thread of its own, one detection after the other, so that
/// neither the walk nor the workers wait for a quarantine.
class DetectionHandler {
 public:
  struct Context {
    const ScanPlan& plan;
    const CallerId& caller;
    Store& store;
    Counters& counters;
    TaskEvents& events;
    TaskControl& control;
  };
  explicit DetectionHandler(Context context);
  ~DetectionHandler();  ///< what is queued is told and handled first
  DetectionHandler(const DetectionHandler&) = delete;
  DetectionHandler& operator=(const DetectionHandler&) = delete;

  /// verdict: infected, with at least one detection. Never waits.
  void found(std::shared_ptr<ScanJob> job, Verdict verdict);
  /// A detection whose hash is trusted: told as such, left alone.
  void foundTrusted(std::shared_ptr<ScanJob> job, Verdict verdict);
  /// Waits until fewer than `most` are queued (1: until all are done).
  void waitBelow(std::size_t most);

 private:
  struct Found {
    std::shared_ptr<ScanJob> job;
    Verdict verdict;
    bool trusted = false;
  };
  void run();
  void handle(const Found& found);
  void handleFile(const Found& found, const FileRisk& risk);
  void handleProcesses(const Found& found, const FileRisk& risk);
  static platform::Expected<Remark> guarded(const std::function<platform::Expected<Remark>()>& action);
  platform::Expected<Remark> takeAway(const Found& found);
  std::string whyNotAllowed(const ScanJob& job) const;
  bool callerOwnsEverything() const;

  const Context context_;
  RunningPrograms programs_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Found> queue_;
  bool busy_ = false;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace agent
