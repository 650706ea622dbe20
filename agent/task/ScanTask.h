#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "store/Store.h"
#include "task/CallerRights.h"
#include "task/Counters.h"
#include "task/DetectionHandler.h"
#include "task/ScanPlan.h"
#include "task/TaskControl.h"
#include "task/TaskEvents.h"
#include "task/Walker.h"
#include "worker/WorkerPool.h"

namespace agent {

/// One scan, from its first state to its last, on threads of its own: one walks and hands files to the
/// workers, one handles detections, one tells how far the work is.
class ScanTask final : private WalkSink {
 public:
  struct Parts {
    Store& store;
    Spawner& spawner;
    std::vector<std::string> ownFolders;                       ///< resolved paths that no scan enters
    std::chrono::milliseconds tick{500};                       ///< between two tellings of progress
    std::function<FileSystem(int)> fileSystem = fileSystemOf;  ///< of a descriptor, for the walk
  };
  ScanTask(Parts parts, std::string token, ScanPlan plan, CallerId caller,
           std::shared_ptr<TaskEvents> events);
  ~ScanTask();  ///< waits for the thread: stop it first
  ScanTask(const ScanTask&) = delete;
  ScanTask& operator=(const ScanTask&) = delete;

  struct Hooks {
    std::function<void()>
        released;                ///< on the task's thread: all is done but the last words, its mode is free
    std::function<void()> told;  ///< on another thread: its owner has heard the last words, or is gone
  };
  void start(Hooks hooks);
  /// Waits until the task is known to be startable: nothing when that takes longer, else the reason why it is
  /// not, empty when it is.
  std::optional<std::string> prepared(std::chrono::milliseconds limit);
  /// Waits until its thread is about to end. False at the limit: it hangs in a file system that does not
  /// answer.
  bool waitOver(std::chrono::milliseconds limit) const;
  bool pause() { return control_.pause(); }
  bool resume() { return control_.resume(); }
  bool stop(const std::string& reason) { return control_.stop(reason); }

  const std::string& token() const { return token_; }
  const ScanPlan& plan() const { return plan_; }
  const CallerId& caller() const { return caller_; }
  bool paused() const { return control_.paused(); }
  int percent() const;

 private:
  void join();
  void run();
  std::string prepare();
  std::string openItems();
  void scan();
  void walkItems();
  void walkStages();
  void walkPath(const std::string& path, double share);
  void walkRunningPrograms(double share);
  void settle();
  void end();
  void cancelWork();
  void tell();
  void tellUntil(const std::future<void>& over);
  bool applyRegions(const ScanJob& job, Verdict& verdict);

  RegionVerdict regionOf(const MetFile& met) const;

  void file(MetFile met) override;
  void skipped(const std::string& path, const std::string& reason) override;
  void failed(const std::string& path, const std::string& reason) override;
  bool keepGoing() override;
  void advanced(double share) override;
  void ended(const std::shared_ptr<ScanJob>& job, Verdict verdict);
  void endedClean(const ScanJob& job);
  void submit(MetFile met, bool rejected, bool cacheable);
  bool timesTell(const MetFile& met);

  const Parts parts_;
  const std::string token_;
  ScanPlan plan_;
  const CallerId caller_;
  const std::shared_ptr<TaskEvents> events_;
  TaskControl control_;
  Counters counters_;
  Hooks hooks_;
  std::promise<std::string> preparedPromise_;
  std::future<std::string> preparedFuture_;
  std::promise<void> overPromise_;
  const std::shared_future<void> over_;

  // Of the walking thread.
  std::optional<Walker> walker_;
  std::vector<Walker::Named> named_;
  const CallerRights* rights_ = nullptr;
  std::chrono::steady_clock::time_point deadline_{};
  std::function<void()> quiet_, again_;
  std::string cacheKey_;
  std::unordered_map<dev_t, bool> timesTell_;

  std::atomic<double> done_{0};  // part of the whole walk that is behind us, 0 to 1
  std::mutex poolMutex_;
  std::unique_ptr<WorkerPool> pool_;
  std::unique_ptr<DetectionHandler> handler_;
  std::thread thread_;
};

}  // namespace agent
