#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/Expected.h"
#include "task/FilePipeline.h"
#include "task/ScanWalk.h"

namespace agent {

/// The life of one scan, from its first state to its last. A ScanWalk finds the files; a FilePipeline leads
/// each file to its end. Four threads: the task's thread walks, the pool's thread takes the verdicts, the
/// DetectionHandler's thread handles detections, and the progress thread reports.
class ScanTask {
 public:
  struct Parts {
    Store& store;
    Spawner& spawner;
    std::vector<std::string> ownFolders;                              ///< resolved paths that no scan enters
    std::chrono::milliseconds tick{500};                              ///< between two reports of progress
    std::function<FileSystem(int)> fileSystem = fileSystemOf;         ///< of a descriptor, for the walk
    std::chrono::milliseconds forgottenPause{std::chrono::hours(1)};  ///< of a scan whose console is gone
  };
  ScanTask(Parts parts, std::string token, ScanPlan plan, CallerId caller,
           std::shared_ptr<TaskEvents> events);
  ~ScanTask();  ///< waits for the thread: stop the task first
  ScanTask(const ScanTask&) = delete;
  ScanTask& operator=(const ScanTask&) = delete;

  struct Hooks {
    std::function<void()>
        released;  ///< on the task's thread, before its last notifications: the mode is free
    std::function<void()> delivered;  ///< on another thread: the last notification is delivered or dropped
  };
  void start(Hooks hooks);
  /// Waits for the end of the task's preparation. Fails with the reason when the task cannot start. A success
  /// at the limit means that the task still prepares.
  platform::Expected<void> waitPrepared(std::chrono::milliseconds limit);
  /// Waits until the task's thread is about to end. False at the limit: the thread hangs in a file system
  /// that does not answer.
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
  void run();
  platform::Expected<void> prepare();
  void scan();
  void end();
  void reportProgress();
  void reportUntil(const std::future<void>& walked);
  void endForgottenPause();
  Json::Value overview() const;

  const Parts parts_;
  const std::string token_;
  const ScanPlan plan_;
  const CallerId caller_;
  const std::shared_ptr<TaskEvents> events_;
  SignatureState signatures_;  // at the end of the preparation
  TaskControl control_;
  std::optional<std::chrono::steady_clock::time_point> pausedSince_;  // on the progress thread only
  Counters counters_;
  Hooks hooks_;
  std::promise<platform::Expected<void>> preparedPromise_;
  std::future<platform::Expected<void>> prepared_;
  std::promise<void> overPromise_;
  const std::shared_future<void> over_;
  ScanWalk walk_;
  std::mutex filesMutex_;  // guards the pointer against a stop that comes while the task begins or ends
  std::unique_ptr<FilePipeline> files_;
  std::thread thread_;
};

}  // namespace agent
