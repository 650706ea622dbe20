#include "task/DetectionHandler.h"

#include <ctime>
#include <exception>
#include <functional>

#include "platform/Text.h"
#include "task/AgentLog.h"
#include "task/CallerRights.h"

namespace agent {

namespace {

/// An exception of the store becomes a failure: the detection is reported all the same.
platform::Expected<Remark> guarded(const std::function<platform::Expected<Remark>()>& action) {
  try {
    return action();
  } catch (const std::exception& error) {
    return platform::failure(error.what());
  }
}

}  // namespace

DetectionHandler::DetectionHandler(const ScanContext& context)
    : context_(context), thread_([this] { run(); }) {}

DetectionHandler::~DetectionHandler() {
  {
    const std::lock_guard guard(mutex_);
    ending_ = true;
    held_ = false;
  }
  changed_.notify_all();
  thread_.join();
}

void DetectionHandler::add(DetectedFile detected) {
  const std::lock_guard guard(mutex_);
  queue_.push_back(std::move(detected));
  changed_.notify_all();
}

bool DetectionHandler::waitBelow(std::size_t most) {
  std::unique_lock lock(mutex_);
  const auto below = [&] { return queue_.size() + (busy_ ? 1 : 0) < most; };
  changed_.wait(lock, [&] { return below() || held_; });
  return below();
}

void DetectionHandler::hold() {
  const std::lock_guard guard(mutex_);
  held_ = true;
  changed_.notify_all();
}

void DetectionHandler::release() {
  const std::lock_guard guard(mutex_);
  held_ = false;
  changed_.notify_all();
}

void DetectionHandler::waitHeld() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return !held_ || !busy_ || stands_; });
}

bool DetectionHandler::held() {
  const std::lock_guard guard(mutex_);
  return held_;
}

/// Stands while held. False after a stop of the task.
bool DetectionHandler::keepGoing() {
  {
    std::unique_lock lock(mutex_);
    if (held_) {
      stands_ = true;
      changed_.notify_all();
      changed_.wait(lock, [this] { return !held_; });
      stands_ = false;
    }
  }
  return !context_.control.stopping();
}

std::string DetectionHandler::stopText() const {
  return "the scan was stopped: " + context_.control.stopReason();
}

/// Waits while too many notifications wait for a slow owner.
void DetectionHandler::waitForOwner() {
  do {
    context_.events.waitForQuota([this] { return context_.control.stopping() || held(); });
  } while (held() && keepGoing());
}

void DetectionHandler::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return ending_ || (!held_ && !queue_.empty()); });
    if (queue_.empty()) {
      return;
    }
    DetectedFile next = std::move(queue_.front());
    queue_.pop_front();
    busy_ = true;
    lock.unlock();
    try {
      handle(next);
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "handling %s: %s", next.file->path.c_str(), error.what());
    }
    lock.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

void DetectionHandler::handle(DetectedFile& detected) {
  waitForOwner();
  detected.riskId = CUuid::generate();
  detected.createdSec = birthTime(detected.file->fd.get());
  detected.foundSec = std::time(nullptr);
  AGENT_LOG_OF(context_.caller.uid, LogLevel::kWarning, "%s: %s%s", detected.file->path.c_str(),
               detected.verdict.detections.at(0).name.c_str(), detected.trusted ? " (trusted)" : "");
  if (detected.trusted) {
    context_.counters.trusted();
    context_.events.repaired(json::RiskInfoType::kFile, context_.plan.handling, riskInfo(detected),
                             repairResult(json::HandleResult::kTrusted, {}, std::time(nullptr)));
    return;
  }
  context_.counters.infected();
  context_.events.risk(json::RiskInfoType::kFile, context_.plan.handling, riskInfo(detected));
  if (context_.plan.memoryCheck) {
    guarded([&] {
      handleProcesses(detected);
      return Remark();
    });
  }
  handleFile(detected);
}

/// Removes the file, or leaves the file alone, as the plan says. Reports the result in both cases.
void DetectionHandler::handleFile(const DetectedFile& detected) {
  const std::string& path = detected.file->path;
  json::HandleResult result = json::HandleResult::kReportedOnly;
  std::string reason;
  bool deleted = false;
  if (context_.plan.action == json::HandleAction::kNothing) {
    context_.counters.leftAlone();
  } else {
    const platform::Expected<Remark> removed = guarded([&] { return remove(detected); });
    result = removed ? json::HandleResult::kQuarantined : json::HandleResult::kFailed;
    reason = removed ? *removed : removed.error();
    removed ? context_.counters.fixed() : context_.counters.fixFailed();
    deleted = removed && context_.plan.action == json::HandleAction::kDelete;
    const char* done = deleted ? "deleted" : "taken away";
    AGENT_LOG_OF(context_.caller.uid, LogLevel::kWarning, "%s: %s %s", path.c_str(),
                 removed ? done : "not handled:", reason.c_str());
    recordDeed("handle detection", path, removed ? done : "", reason);
  }
  const std::int64_t now = std::time(nullptr);
  context_.events.repaired(json::RiskInfoType::kFile, context_.plan.handling, riskInfo(detected),
                           deleted ? deletedResult(now) : repairResult(result, reason, now));
}

/// done: empty for what did not succeed.
void DetectionHandler::recordDeed(const char* action, const std::string& object, const std::string& done,
                                  const std::string& reason) const {
  if (done.empty()) {
    context_.store.auditRefusal(context_.caller, action, object, reason);
  } else {
    context_.store.audit(context_.caller, action, object, done);
  }
}

platform::Expected<Remark> DetectionHandler::remove(const DetectedFile& detected) {
  const EncounteredFile& file = *detected.file;
  if (const auto allowed = checkAllowed(file); !allowed) {
    return platform::failure(allowed.error());
  }
  if (!keepGoing()) {
    return platform::failure(stopText());
  }
  QuarantineRequest request;
  request.fd = file.fd.get();
  request.path = file.path;
  request.identity = FileIdentity::of(file.status);
  if (context_.plan.action == json::HandleAction::kDelete) {
    return context_.store.quarantine().remove(request);
  }
  request.detection = detected.verdict.detections.at(0);
  request.md5 = detected.verdict.md5;
  bool stopped = false;
  request.keepGoing = [&] {
    stopped = !keepGoing();
    return !stopped;
  };
  const platform::Expected<Remark> added = context_.store.quarantine().add(request);
  return stopped ? platform::failure(stopText()) : added;
}

/// A scan removes only files that the caller could remove without the agent.
platform::Expected<void> DetectionHandler::checkAllowed(const EncounteredFile& file) const {
  if (isAdministrator(context_.caller)) {
    return {};
  }
  if (file.status.st_uid != context_.caller.uid) {
    return platform::failure("the file belongs to another user than the one who started the scan");
  }
  if (!file.folderWritable) {
    return platform::failure("who started the scan cannot write in the file's folder");
  }
  return {};
}

void DetectionHandler::handleProcesses(const DetectedFile& detected) {
  for (const RunningProgram& program : programs_.running(FileIdentity::of(detected.file->status))) {
    if (!isAdministrator(context_.caller) && program.uid != context_.caller.uid) {
      continue;
    }
    const bool stopped = !keepGoing();
    const Json::Value info = processRiskInfo(program, detected, CUuid::generate());
    context_.events.risk(json::RiskInfoType::kProcess, context_.plan.handling, info);
    json::HandleResult result = json::HandleResult::kReportedOnly;
    std::string reason;
    if (context_.plan.endProcesses) {
      const platform::Expected<Remark> ended =
          stopped ? platform::failure(stopText()) : guarded([&] { return endProcess(program); });
      result = ended ? json::HandleResult::kProcessEnded : json::HandleResult::kFailed;
      reason = ended ? *ended : ended.error();
      AGENT_LOG_OF(context_.caller.uid, LogLevel::kWarning, "process %d (%s): %s %s", program.pid,
                   program.path.c_str(), ended ? "ended" : "not ended:", reason.c_str());
      recordDeed("end process", std::to_string(program.pid) + " " + program.path, ended ? "ended" : "",
                 reason);
    }
    context_.events.repaired(json::RiskInfoType::kProcess, context_.plan.handling, info,
                             repairResult(result, reason, std::time(nullptr)));
  }
}

}  // namespace agent
