#include "task/TaskManager.h"

#include <algorithm>
#include <exception>

#include "platform/Text.h"
#include "task/AgentLog.h"
#include "task/BusTaskEvents.h"

namespace agent {

namespace {

constexpr std::chrono::seconds kPrepareLimit{5};  // a path on a dead network mount must not block the bus
constexpr std::size_t kMostOfUsers = 32;          // scans at a time, of all who are not administrators
constexpr const char* kModeNames[] = {"fast", "full", "custom"};

TaskRecord recordOf(const std::string& token, const TaskManager::StartRequest& request,
                    const ScanPlan& plan) {
  TaskRecord record;
  record.token = token;
  record.scanType = plan.scanType;
  record.ownerGuid = lunet::formatGuid(request.owner.guid);
  record.ownerPid = request.owner.process.pid;
  record.ownerUid = request.owner.process.uid;
  record.ownerStartTicks = request.owner.process.startTicks;
  return record;
}

}  // namespace

TaskManager::~TaskManager() {
  stopAll("the agent is ending", std::chrono::hours(1));
}

std::shared_ptr<BusTaskEvents> TaskManager::eventsFor(const StartRequest& request, const std::string& token) {
  return std::make_shared<BusTaskEvents>(parts_.queue, parts_.endpoint, request.owner,
                                         BusTaskEvents::Envelope{token, request.ctx, request.source});
}

TaskManager::Started TaskManager::refuse(const StartRequest& request, const std::string& token,
                                         json::TaskState state, const std::string& reason) {
  AGENT_LOG_OF(request.caller.uid, LogLevel::kWarning, "scan refused to process %d: %s", request.caller.pid,
               reason.c_str());
  parts_.store.auditRefusal(request.caller, "start scan", "", "refused: " + reason);
  // The answer has the reason too. Notices to consoles that do not read would fill the memory.
  if (const std::shared_ptr<BusTaskEvents> events = eventsFor(request, token); events->hasRoom()) {
    events->state(state, reason);
  }
  return {token, platform::failure(reason)};
}

TaskManager::Started TaskManager::start(const StartRequest& request) {
  reap();
  const std::string token = CUuid::generate();
  platform::Expected<ScanPlan> plan = makePlan(request.params, parts_.store.settings());
  if (!plan) {
    return refuse(request, token, json::TaskState::kNotCreated, plan.error());
  }
  return launch(request, token, std::move(*plan));
}

TaskManager::Started TaskManager::launch(const StartRequest& request, const std::string& token,
                                         ScanPlan plan) {
  const std::shared_ptr<BusTaskEvents> events = eventsFor(request, token);
  const TaskRecord record = recordOf(token, request, plan);
  std::shared_ptr<ScanTask> task;
  {
    std::unique_lock lock(mutex_);
    if (const auto refusal = refusalOf(plan.mode, request.caller)) {
      lock.unlock();
      return refuse(request, token, refusal->state, refusal->reason);
    }
    ScanTask::Parts parts{parts_.store, parts_.spawner, parts_.ownFolders};
    parts.forgottenPause = parts_.forgottenPause;
    task = std::make_shared<ScanTask>(std::move(parts), token, std::move(plan), request.caller, events);
    running_.emplace(token, task);
  }
  try {
    parts_.store.tasks().put(record);
  } catch (const std::exception& error) {  // a full disk must not end the scans of the machine
    AGENT_LOG(LogLevel::kError,
              "scan %s is not recorded, its owner is not told if the agent ends during the scan: %s",
              token.c_str(), error.what());
  }
  try {
    task->start({[this, token] { release(token); }, [this, token] { forget(token); }});
  } catch (const std::exception& error) {
    release(token);
    forget(token);
    return refuse(request, token, json::TaskState::kNotCreated,
                  std::string("no thread for the scan: ") + error.what());
  }
  return {token, task->waitPrepared(kPrepareLimit)};
}

// With the mutex held.
std::optional<TaskManager::Refusal> TaskManager::refusalOf(json::ScanMode mode,
                                                           const CallerId& caller) const {
  if (ending_) {
    return Refusal{json::TaskState::kNotCreated, "the agent is ending"};
  }
  std::size_t ofUsers = 0;
  for (const auto& [token, task] : running_) {
    if (task->plan().mode == mode && task->caller().uid == caller.uid) {
      return Refusal{json::TaskState::kSameModeExists,
                     std::string("a ") + kModeNames[json::toNumber(mode)] + " scan is running already"};
    }
    ofUsers += isAdministrator(task->caller()) ? 0 : 1;
  }
  if (!isAdministrator(caller) && ofUsers >= kMostOfUsers) {
    return Refusal{json::TaskState::kNotCreated,
                   std::to_string(kMostOfUsers) + " scans of users are running already"};
  }
  return std::nullopt;
}

void TaskManager::release(const std::string& token) {
  const std::lock_guard guard(mutex_);
  const auto found = running_.find(token);
  if (found != running_.end()) {
    ended_.push_back(std::move(found->second));
    running_.erase(found);
  }
}

void TaskManager::forget(const std::string& token) {
  try {
    parts_.store.tasks().remove(token);
  } catch (const std::exception& error) {
    AGENT_LOG(LogLevel::kError, "scan %s stays recorded: %s", token.c_str(), error.what());
  }
}

/// Joins the threads of ended tasks.
void TaskManager::reap() {
  std::vector<std::shared_ptr<ScanTask>> ended;
  {
    const std::lock_guard guard(mutex_);
    ended.swap(ended_);
  }
}

bool TaskManager::maySee(const CallerId& caller, const ScanTask& task) {
  return isAdministrator(caller) || caller.uid == task.caller().uid;
}

platform::Expected<void> TaskManager::control(std::int32_t action, const std::string& token,
                                              const std::string& detail, const CallerId& caller) {
  std::shared_ptr<ScanTask> task;
  {
    const std::lock_guard guard(mutex_);
    const auto found = running_.find(token);
    if (found == running_.end() || !maySee(caller, *found->second)) {
      return platform::failure("no such task");
    }
    task = found->second;
  }
  const auto known = json::fromNumber<json::ControlAction>(action);
  if (!known) {
    return platform::failure("unknown action " + std::to_string(action));
  }
  bool done = false;
  switch (*known) {
    case json::ControlAction::kStop:
      done = task->stop(detail.empty() ? "stopped" : detail);
      break;
    case json::ControlAction::kPause:
      done = task->pause();
      break;
    case json::ControlAction::kResume:
      done = task->resume();
      break;
  }
  if (!done) {
    return platform::failure("the task is not in a state for that");
  }
  return {};
}

Json::Value TaskManager::list(const CallerId& caller) const {
  Json::Value tasks(Json::arrayValue);
  const std::lock_guard guard(mutex_);
  for (const auto& [token, task] : running_) {
    if (!maySee(caller, *task)) {
      continue;
    }
    Json::Value entry(Json::objectValue);
    entry["token_id"] = token;
    entry["type"] = json::toNumber(json::BusinessType::kScan);
    entry["scan_type"] = task->plan().scanType;
    entry["state"] = json::toNumber(task->paused() ? json::TaskState::kPaused : json::TaskState::kStarted);
    entry["progress"] = task->percent();
    entry["uid"] = task->caller().uid;
    tasks.append(entry);
  }
  return tasks;
}

std::size_t TaskManager::count() const {
  const std::lock_guard guard(mutex_);
  return running_.size();
}

void TaskManager::notifyInterruptedTasks() {
  for (const TaskRecord& record : parts_.store.tasks().all()) {
    AGENT_LOG(LogLevel::kWarning, "scan %s of process %d was lost with an earlier run of the agent",
              record.token.c_str(), record.ownerPid);
    StartRequest request;
    request.owner.guid = lunet::parseGuid(record.ownerGuid.c_str());
    request.owner.process.pid = record.ownerPid;
    request.owner.process.uid = record.ownerUid;
    request.owner.process.startTicks = record.ownerStartTicks;
    const std::shared_ptr<BusTaskEvents> events = eventsFor(request, record.token);
    events->state(json::TaskState::kAborted,
                  "the agent was ended while the scan ran and has been started again");
    events->onDelivered([this, token = record.token] { forget(token); });
  }
}

bool TaskManager::stopAll(const std::string& reason, std::chrono::milliseconds limit) {
  std::vector<std::shared_ptr<ScanTask>> tasks;
  {
    const std::lock_guard guard(mutex_);
    ending_ = true;
    for (const auto& [token, task] : running_) {
      tasks.push_back(task);
    }
  }
  for (const std::shared_ptr<ScanTask>& task : tasks) {
    task->stop(reason);
  }
  const auto end = std::chrono::steady_clock::now() + limit;
  bool all = true;
  for (const std::shared_ptr<ScanTask>& task : tasks) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (!task->waitOver(std::max(left, std::chrono::milliseconds(0)))) {
      AGENT_LOG(LogLevel::kError, "scan %s does not end", task->token().c_str());
      all = false;
    }
  }
  return all;
}

}  // namespace agent
