#include "task/DetectionHandler.h"

#include <ctime>
#include <exception>

#include "platform/Text.h"
#include "task/AgentLog.h"

namespace agent {

namespace {

std::string freshId() {
  std::string id;
  CUuid::generate(id);
  return id;
}

QuarantineRequest requestFor(const ScanJob& job) {
  QuarantineRequest request;
  request.fd = job.fd.get();
  request.path = job.path;
  request.identity = job.identity;
  return request;
}

}  // namespace

DetectionHandler::DetectionHandler(Context context) : context_(context), thread_([this] { run(); }) {}

DetectionHandler::~DetectionHandler() {
  {
    const std::lock_guard guard(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void DetectionHandler::found(std::shared_ptr<ScanJob> job, Verdict verdict) {
  const std::lock_guard guard(mutex_);
  queue_.push_back({std::move(job), std::move(verdict), false});
  changed_.notify_all();
}

void DetectionHandler::foundTrusted(std::shared_ptr<ScanJob> job, Verdict verdict) {
  const std::lock_guard guard(mutex_);
  queue_.push_back({std::move(job), std::move(verdict), true});
  changed_.notify_all();
}

void DetectionHandler::waitBelow(std::size_t most) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return queue_.size() + (busy_ ? 1 : 0) < most; });
}

void DetectionHandler::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return ending_ || !queue_.empty(); });
    if (queue_.empty()) {
      return;
    }
    const Found next = std::move(queue_.front());
    queue_.pop_front();
    busy_ = true;
    lock.unlock();
    try {
      handle(next);
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "handling %s: %s", next.job->path.c_str(), error.what());
    }
    lock.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

void DetectionHandler::handle(const Found& found) {
  context_.events.waitForRoom([this] { return context_.control.stopping(); });
  FileRisk risk;
  risk.path = found.job->path;
  risk.status = found.job->status;
  risk.createdSec = birthTime(found.job->fd.get());
  risk.verdict = found.verdict;
  risk.riskId = freshId();
  risk.foundSec = std::time(nullptr);
  const Detection& detection = found.verdict.detections.at(0);
  AGENT_LOG(LogLevel::kWarning, "%s: %s%s", risk.path.c_str(), detection.name.c_str(),
            found.trusted ? " (trusted)" : "");
  if (found.trusted) {
    context_.counters.trusted();
    context_.events.repaired(json::RiskInfoType::kFile, context_.plan.handling, riskInfo(risk),
                             repairResult(json::HandleResult::kTrusted, {}, std::time(nullptr)));
    return;
  }
  context_.counters.infected();
  context_.events.risk(json::RiskInfoType::kFile, context_.plan.handling, riskInfo(risk));
  if (context_.plan.memoryCheck) {
    guarded([&] {
      handleProcesses(found, risk);
      return platform::Expected<Remark>();
    });
  }
  handleFile(found, risk);
}

/// A store that fails must cost the handling only: the detection is told all the same.
platform::Expected<Remark> DetectionHandler::guarded(
    const std::function<platform::Expected<Remark>()>& action) {
  try {
    return action();
  } catch (const std::exception& error) {
    return platform::failure(error.what());
  }
}

/// The file leaves its place, or stays, as the plan says; either way its owner is told.
void DetectionHandler::handleFile(const Found& found, const FileRisk& risk) {
  json::HandleResult result = json::HandleResult::kReportedOnly;
  std::string reason;
  if (context_.plan.action == json::HandleAction::kNothing) {
    context_.counters.leftAlone();
  } else {
    const platform::Expected<Remark> outcome = guarded([&] { return takeAway(found); });
    result = outcome ? json::HandleResult::kQuarantined : json::HandleResult::kFailed;
    reason = outcome ? *outcome : outcome.error();
    outcome ? context_.counters.fixed() : context_.counters.fixFailed();
    AGENT_LOG(LogLevel::kWarning, "%s: %s %s", risk.path.c_str(),
              outcome ? "taken away" : "not handled:", reason.c_str());
    context_.store.audit(context_.caller, "handle detection", risk.path, outcome ? "taken away" : reason);
  }
  context_.events.repaired(json::RiskInfoType::kFile, context_.plan.handling, riskInfo(risk),
                           repairResult(result, reason, std::time(nullptr)));
}

platform::Expected<Remark> DetectionHandler::takeAway(const Found& found) {
  const std::string refusal = whyNotAllowed(*found.job);
  if (!refusal.empty()) {
    return platform::failure(refusal);
  }
  if (context_.plan.action == json::HandleAction::kDelete) {
    return context_.store.quarantine().remove(requestFor(*found.job));
  }
  QuarantineRequest request = requestFor(*found.job);
  request.detection = found.verdict.detections.at(0);
  request.md5 = found.verdict.md5;
  return context_.store.quarantine().add(request);
}

bool DetectionHandler::callerOwnsEverything() const {
  return context_.caller.uid == 0 || context_.caller.uid == geteuid();
}

/// A scan must not remove for its caller what he could not remove himself.
std::string DetectionHandler::whyNotAllowed(const ScanJob& job) const {
  if (callerOwnsEverything()) {
    return {};
  }
  if (job.status.st_uid != context_.caller.uid) {
    return "the file belongs to another user than the one who started the scan";
  }
  return job.folderWritable ? std::string() : "who started the scan cannot write in the file's folder";
}

void DetectionHandler::handleProcesses(const Found& found, const FileRisk& risk) {
  for (const RunningProgram& program : programs_.running(found.job->identity)) {
    if (!callerOwnsEverything() && program.uid != context_.caller.uid) {
      continue;
    }
    const Json::Value info = processRiskInfo(program, risk, freshId());
    context_.events.risk(json::RiskInfoType::kProcess, context_.plan.handling, info);
    json::HandleResult result = json::HandleResult::kReportedOnly;
    std::string reason;
    if (context_.plan.endProcesses) {
      const platform::Expected<Remark> outcome = guarded([&] { return endProcess(program); });
      result = outcome ? json::HandleResult::kProcessEnded : json::HandleResult::kFailed;
      reason = outcome ? *outcome : outcome.error();
      AGENT_LOG(LogLevel::kWarning, "process %d (%s): %s %s", program.pid, program.path.c_str(),
                outcome ? "ended" : "not ended:", reason.c_str());
      context_.store.audit(context_.caller, "end process", std::to_string(program.pid) + " " + program.path,
                           outcome ? "ended" : reason);
    }
    context_.events.repaired(json::RiskInfoType::kProcess, context_.plan.handling, info,
                             repairResult(result, reason, std::time(nullptr)));
  }
}

}  // namespace agent
