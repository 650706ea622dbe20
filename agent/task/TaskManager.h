#pragma once

#include <json/value.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store/Store.h"
#include "task/Outbox.h"
#include "task/ScanTask.h"
#include "task/TaskOwner.h"
#include "worker/WorkerPool.h"

namespace agent {

class BusTaskEvents;

/// The scans under way: at most one of each mode. Any thread.
class TaskManager {
 public:
  struct Parts {
    Store& store;
    Spawner& spawner;
    Outbox& outbox;
    lunet::IEndpoint& endpoint;
    std::vector<std::string> ownFolders;  ///< resolved paths that no scan enters
  };
  explicit TaskManager(Parts parts) : parts_(std::move(parts)) {}
  ~TaskManager();  ///< stopAll; the outbox must have ended or be drained: what it tells last is forgotten
                   ///< here
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
    bool ok = false;
    std::string token;   ///< fresh, also of a task that could not be made
    std::string detail;  ///< why not
  };
  /// Answers once the task is known to be startable (or when that takes long, before it is). A task that is
  /// not made is told to its owner with state -1 or 6.
  Started start(const StartRequest& request);

  /// action: the number of a json::ControlAction. False, with one line in *why, for a token that is unknown
  /// to that caller, for another number, and for what cannot be done now.
  bool control(std::int32_t action, const std::string& token, const std::string& detail,
               const CallerId& caller, std::string* why);
  /// An array of the tasks under way that the caller may see.
  Json::Value list(const CallerId& caller) const;
  std::size_t count() const;

  /// Tells the owners of the tasks that an earlier run of the agent left behind, and forgets them.
  void tellOfLostTasks();
  /// Ends all tasks with state 5 and waits for that. None may be starting meanwhile. False at the limit: the
  /// process can then only be left, not this object.
  bool stopAll(const std::string& reason, std::chrono::milliseconds limit);

 private:
  std::shared_ptr<BusTaskEvents> eventsFor(const StartRequest& request, const std::string& token);
  Started refuse(const StartRequest& request, const std::string& token, json::TaskState state,
                 const std::string& why);
  Started launch(const StartRequest& request, const std::string& token, ScanPlan plan);
  void release(const std::string& token);
  void forget(const std::string& token);
  void reap();
  static bool maySee(const CallerId& caller, const ScanTask& task);

  const Parts parts_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ScanTask>> running_;  // by token
  std::vector<std::shared_ptr<ScanTask>> ended_;              // their threads have little left to do
  bool ending_ = false;
};

/// Root and the agent's own user.
bool isAdministrator(const CallerId& caller);

}  // namespace agent
