#pragma once

#include <json/value.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "store/Store.h"
#include "task/NotificationQueue.h"
#include "task/ScanTask.h"
#include "task/TaskOwner.h"
#include "worker/WorkerPool.h"

namespace agent {

class BusTaskEvents;

/// The running scans: at most one of each mode for a user, and 32 for all users who are not administrators.
/// Any thread.
class TaskManager {
 public:
  struct Parts {
    Store& store;
    Spawner& spawner;
    NotificationQueue& queue;
    lunet::IEndpoint& endpoint;
    std::vector<std::string> ownFolders;                              ///< resolved paths that no scan enters
    std::chrono::milliseconds forgottenPause{std::chrono::hours(1)};  ///< of a scan whose console has ended
  };
  explicit TaskManager(Parts parts) : parts_(std::move(parts)) {}
  /// Calls stopAll. The queue must have ended or be drained: its last actions use this object.
  ~TaskManager();
  TaskManager(const TaskManager&) = delete;
  TaskManager& operator=(const TaskManager&) = delete;

  struct StartRequest {
    Json::Value ctx;
    Json::Value params;  ///< JsonReflect::ScanParams
    int source = 0;
    TaskOwner owner;
    CallerId caller;
  };
  struct Started {
    std::string token;                 ///< fresh, also of a task that could not be made
    platform::Expected<void> outcome;  ///< or why there is no task
  };
  /// Returns when the preparation of the task has ended, or takes long. The owner of a task that is not made
  /// gets state -1 or 6, unless many notifications wait already (NotificationQueue::hasRoomFor).
  Started start(const StartRequest& request);

  /// action: the number of a json::ControlAction. Fails for a token that the caller may not know, for an
  /// unknown number, and for an action that the task's state does not allow.
  platform::Expected<void> control(std::int32_t action, const std::string& token, const std::string& detail,
                                   const CallerId& caller);
  /// An array of the running tasks that the caller may see.
  Json::Value list(const CallerId& caller) const;
  std::size_t count() const;

  /// Notifies the owners of the tasks that the end of an earlier agent interrupted, and forgets these tasks.
  void notifyInterruptedTasks();
  /// Ends all tasks with state 5 and waits for their ends. No task may be starting meanwhile. False at the
  /// limit: the destructor would hang, and the process can only exit.
  bool stopAll(const std::string& reason, std::chrono::milliseconds limit);

 private:
  std::shared_ptr<BusTaskEvents> eventsFor(const StartRequest& request, const std::string& token);
  Started refuse(const StartRequest& request, const std::string& token, json::TaskState state,
                 const std::string& reason);
  Started launch(const StartRequest& request, const std::string& token, ScanPlan plan);
  struct Refusal {
    json::TaskState state;
    std::string reason;
  };
  std::optional<Refusal> refusalOf(json::ScanMode mode, const CallerId& caller) const;
  void release(const std::string& token);
  void forget(const std::string& token);
  void reap();
  static bool maySee(const CallerId& caller, const ScanTask& task);

  const Parts parts_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ScanTask>> running_;  // by token
  std::vector<std::shared_ptr<ScanTask>> ended_;              // joined by reap()
  bool ending_ = false;
};

}  // namespace agent
