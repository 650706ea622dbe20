#include "task/ScanTask.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "json/CppJson.h"
#include "task/AgentLog.h"
#include "task/FileFilter.h"
#include "task/FileSystems.h"
#include "task/Places.h"
#include "task/ProgramWalk.h"

namespace agent {

namespace {

constexpr std::size_t kMostFound = 32;  // detections waiting to be handled, each with an open file
constexpr std::chrono::milliseconds kLoadLook{200};  // between two looks for a stop while signatures load
constexpr double kWholeDiskShare = 0.9;              // of a full scan, for its last stage

std::string internalError(const std::exception& error) {
  return std::string("internal error: ") + error.what();
}

}  // namespace

ScanTask::ScanTask(Parts parts, std::string token, ScanPlan plan, CallerId caller,
                   std::shared_ptr<TaskEvents> events)
    : parts_(std::move(parts)),
      token_(std::move(token)),
      plan_(std::move(plan)),
      caller_(std::move(caller)),
      events_(std::move(events)),
      preparedFuture_(preparedPromise_.get_future()),
      over_(overPromise_.get_future()) {
  control_.onStop([this] { cancelWork(); });
  quiet_ = [this] {
    const CallerRights::Suspended own(rights_);
    settle();
    tell();
    AGENT_LOG(LogLevel::kInfo, "scan %s paused", token_.c_str());
    events_->state(json::TaskState::kPaused, {});
  };
  again_ = [this] {
    const CallerRights::Suspended own(rights_);
    AGENT_LOG(LogLevel::kInfo, "scan %s resumed", token_.c_str());
    events_->state(json::TaskState::kResumed, {});
  };
}

ScanTask::~ScanTask() {
  join();
}

bool ScanTask::waitOver(std::chrono::milliseconds limit) const {
  return over_.wait_for(limit) == std::future_status::ready;
}

void ScanTask::join() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

void ScanTask::start(Hooks hooks) {
  hooks_ = std::move(hooks);
  thread_ = std::thread([this] {
    try {
      run();
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "scan %s: %s", token_.c_str(), error.what());
    }
    overPromise_.set_value();
  });
}

std::optional<std::string> ScanTask::prepared(std::chrono::milliseconds limit) {
  if (preparedFuture_.wait_for(limit) != std::future_status::ready) {
    return std::nullopt;
  }
  return preparedFuture_.get();
}

int ScanTask::percent() const {
  return std::clamp(static_cast<int>(done_.load(std::memory_order_relaxed) * 100), 0, 99);
}

void ScanTask::run() {
  std::string failure;
  try {
    failure = prepare();
  } catch (const std::exception& error) {
    failure = internalError(error);
  }
  if (!failure.empty()) {
    AGENT_LOG(LogLevel::kError, "scan %s not started: %s", token_.c_str(), failure.c_str());
    hooks_.released();
    events_->state(json::TaskState::kNotCreated, failure);
    events_->whenTold(hooks_.told);
    preparedPromise_.set_value(failure);
    return;
  }
  preparedPromise_.set_value({});
  try {
    scan();
  } catch (const std::exception& error) {
    control_.stop(internalError(error));
  }
  end();
}

/// What must stand before the task can be said to exist; else one line that says why not.
std::string ScanTask::prepare() {
  SignatureState signatures = parts_.spawner.signatureState();
  while (signatures.loading && !control_.stopping()) {
    signatures = parts_.spawner.waitLoaded(kLoadLook);
  }
  if (control_.stopping()) {
    return control_.stopReason();
  }
  if (!signatures.loaded) {
    return "no signatures are loaded: " + signatures.detail;
  }
  cacheKey_ = signatures.version + "/" + plan_.cacheKey;
  if (parts_.store.regions().hashesNeeded()) {
    cacheKey_ += "/" + std::to_string(parts_.store.regions().generation());
  }
  Walker::Options options;
  options.excludedFolders = parts_.ownFolders;
  options.networkFileSystems = plan_.networkFileSystems;
  options.fileSystem = parts_.fileSystem;
  walker_.emplace(std::move(options), static_cast<WalkSink&>(*this));
  const std::string failure = openItems();
  if (failure.empty()) {
    const std::lock_guard guard(poolMutex_);
    pool_ = std::make_unique<WorkerPool>(parts_.spawner, plan_.parallelism);
  }
  return failure;
}

std::string ScanTask::openItems() {
  const CallerRights rights(caller_);
  if (!rights.error().empty()) {
    return rights.error();
  }
  for (const std::string& item : plan_.items) {
    std::string error;
    Walker::Named named = Walker::open(item, &error);
    named.asked = true;
    if (error.empty()) {
      error = walker_->whyNotWalked(named);
    }
    if (!error.empty()) {
      return json::visiblePath(json::encodePath(item)) + ": " + error;
    }
    named_.push_back(std::move(named));
  }
  return {};
}

void ScanTask::scan() {
  AGENT_LOG(LogLevel::kInfo, "scan %s started: type %d, user %u, pid %d, %s", token_.c_str(), plan_.scanType,
            caller_.uid, caller_.pid,
            plan_.handling == json::Handling::kAutomatic ? "automatic handling" : "report only");
  events_->state(json::TaskState::kCreated, {});
  events_->state(json::TaskState::kStarted, {});
  Json::Value attributes(Json::objectValue);
  attributes["scan_type"] = plan_.scanType;
  attributes["parallelism"] = pool_->size();
  attributes["signature_version"] = parts_.spawner.signatureState().version;
  events_->attributes(attributes);
  if (plan_.limit.count() > 0) {
    deadline_ = std::chrono::steady_clock::now() + plan_.limit;
  }
  handler_ = std::make_unique<DetectionHandler>(
      DetectionHandler::Context{plan_, caller_, parts_.store, counters_, *events_, control_});
  std::promise<void> walked;
  std::thread teller([this, over = walked.get_future()] { tellUntil(over); });
  try {
    const CallerRights rights(caller_);
    rights_ = &rights;
    plan_.mode == json::ScanMode::kCustom ? walkItems() : walkStages();
  } catch (const std::exception& error) {
    control_.stop(internalError(error));
  }
  rights_ = nullptr;
  settle();
  control_.finish(quiet_, again_);  // a pause that came while the last files were scanned
  walked.set_value();
  teller.join();
}

void ScanTask::walkItems() {
  const double share = 1.0 / static_cast<double>(named_.size());
  for (Walker::Named& named : named_) {
    walker_->walk(std::move(named), share);
  }
}

void ScanTask::walkStages() {
  const std::vector<Stage> stages = stagesOf(plan_.mode, plan_.memoryCheck, homeFolders());
  double left = 1.0;
  for (std::size_t i = 0; i < stages.size() && keepGoing(); ++i) {
    const Stage& stage = stages[i];
    const bool last = i + 1 == stages.size();
    const double forOthers = plan_.mode == json::ScanMode::kFull ? 1 - kWholeDiskShare : 1.0;
    const double share = last ? left : forOthers / static_cast<double>(stages.size());
    left -= share;
    events_->stage(stage.begin, stage.what);
    if (stage.runningPrograms) {
      walkRunningPrograms(share);
    }
    for (const std::string& path : stage.paths) {
      walkPath(path, stage.runningPrograms ? 0 : share / static_cast<double>(stage.paths.size()));
    }
    if (stage.paths.empty() && !stage.runningPrograms) {
      advanced(share);
    }
    if (!control_.stopping()) {
      const CallerRights::Suspended own(rights_);
      settle();
      events_->stage(stage.end, stage.what);
    }
  }
}

void ScanTask::walkPath(const std::string& path, double share) {
  if (!keepGoing()) {
    return;
  }
  std::string error;
  Walker::Named named = Walker::open(path, &error);
  if (!error.empty()) {
    failed(path, error);
    advanced(share);
    return;
  }
  walker_->walk(std::move(named), share);
}

void ScanTask::walkRunningPrograms(double share) {
  std::string error;
  const std::vector<RunningProgram> programs = RunningPrograms::all(&error);
  if (!error.empty()) {
    failed("/proc", error);
    advanced(share);
    return;
  }
  const bool ownOnly = rights_ != nullptr && rights_->reduced();
  walkPrograms(programs, ownOnly ? std::optional(caller_.uid) : std::nullopt, share, *this);
}

/// Waits until all that was met has ended.
void ScanTask::settle() {
  pool_->drain();
  if (handler_) {
    handler_->waitBelow(1);
  }
}

/// The last words. The workers are let go before anybody hears that the task is over.
void ScanTask::end() {
  handler_.reset();
  {
    const std::lock_guard guard(poolMutex_);
    pool_.reset();
  }
  try {
    parts_.store.cache().flush();
  } catch (const std::exception& error) {
    AGENT_LOG(LogLevel::kError, "the scan cache was not written: %s", error.what());
  }
  const bool aborted = control_.stopping();
  AGENT_LOG(LogLevel::kInfo, "scan %s %s: %s", token_.c_str(), aborted ? "aborted" : "finished",
            counters_.summary().c_str());
  hooks_.released();
  Json::Value overview;
  counters_.overview(token_).ToValue(overview);
  if (!aborted) {
    events_->progress(100);
  }
  events_->overview(overview);
  events_->state(aborted ? json::TaskState::kAborted : json::TaskState::kFinished,
                 aborted ? control_.stopReason() : counters_.summary());
  events_->whenTold(hooks_.told);
}

void ScanTask::cancelWork() {
  const std::lock_guard guard(poolMutex_);
  if (pool_) {
    pool_->cancel(true);
  }
}

void ScanTask::tell() {
  Json::Value overview;
  counters_.overview(token_).ToValue(overview);
  events_->progress(percent());
  events_->overview(overview);
}

/// On a thread of its own: however long one file takes, the owner hears of it, and the time limit holds.
void ScanTask::tellUntil(const std::future<void>& over) {
  while (over.wait_for(parts_.tick) != std::future_status::ready) {
    if (deadline_ != std::chrono::steady_clock::time_point{} &&
        std::chrono::steady_clock::now() >= deadline_) {
      control_.stop("the time limit of " + std::to_string(plan_.limit.count()) + " seconds is over");
    }
    try {
      if (!control_.paused() && !control_.stopping()) {
        tell();
      }
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "scan %s: %s", token_.c_str(), error.what());
    }
  }
}

bool ScanTask::keepGoing() {
  return control_.goOn(quiet_, again_);
}

void ScanTask::advanced(double share) {
  done_.store(done_.load(std::memory_order_relaxed) + share, std::memory_order_relaxed);
}

void ScanTask::skipped(const std::string& path, const std::string& reason) {
  const CallerRights::Suspended own(rights_);
  counters_.met(path);
  counters_.skipped(reason);
  AGENT_LOG(LogLevel::kDebug, "%s: skipped: %s", path.c_str(), reason.c_str());
}

void ScanTask::failed(const std::string& path, const std::string& reason) {
  const CallerRights::Suspended own(rights_);
  counters_.met(path);
  counters_.failed();
  AGENT_LOG(LogLevel::kWarning, "%s: not scanned: %s", path.c_str(), reason.c_str());
}

/// An entry holds for the path that was named and for where its links lead. Rejected under one of them is
/// rejected.
RegionVerdict ScanTask::regionOf(const MetFile& met) const {
  const RegionVerdict asMet = parts_.store.regions().byPath(met.path);
  if (met.resolved.empty() || asMet == RegionVerdict::kRejected) {
    return asMet;
  }
  const RegionVerdict resolved = parts_.store.regions().byPath(met.resolved);
  return resolved == RegionVerdict::kNone ? asMet : resolved;
}

void ScanTask::file(MetFile met) {
  const CallerRights::Suspended own(rights_);
  counters_.met(met.path);
  const RegionVerdict region = regionOf(met);
  if (region == RegionVerdict::kTrusted) {
    counters_.trusted();
    AGENT_LOG(LogLevel::kDebug, "%s: skipped: trusted", met.path.c_str());
    return;
  }
  const bool rejected = region == RegionVerdict::kRejected;
  const std::string leftOut =
      rejected ? std::string() : whyLeftOut(plan_, met.path, met.fd.get(), met.status);
  if (!leftOut.empty()) {
    counters_.skipped(leftOut);
    AGENT_LOG(LogLevel::kDebug, "%s: skipped: %s", met.path.c_str(), leftOut.c_str());
    return;
  }
  const bool cacheable = plan_.useCache && timesTell(met);
  if (plan_.readCache && cacheable && !rejected &&
      parts_.store.cache().isClean(FileIdentity::of(met.status), cacheKey_)) {
    counters_.clean();
    return;
  }
  submit(std::move(met), rejected, cacheable);
}

/// Whether a change of the file's content would change its times: the cache knows files by these.
bool ScanTask::timesTell(const MetFile& met) {
  const auto [entry, fresh] = timesTell_.try_emplace(met.status.st_dev, true);
  if (fresh) {
    entry->second = !fileSystemOf(met.fd.get()).inMemory;
  }
  return entry->second;
}

void ScanTask::submit(MetFile met, bool rejected, bool cacheable) {
  auto job = std::make_shared<ScanJob>();
  job->path = met.path;
  job->status = met.status;
  job->statusNs = met.statusNs;
  job->identity = FileIdentity::of(met.status);
  job->cacheable = cacheable;
  job->rejected = rejected;
  job->folderWritable = met.folderWritable;
  job->fd = platform::Descriptor(fcntl(met.fd.get(), F_DUPFD_CLOEXEC, 0));
  if (!job->fd) {
    counters_.failed();
    AGENT_LOG(LogLevel::kError, "%s: not scanned: the agent has too many open files", met.path.c_str());
    return;
  }
  ScanOptions options = plan_.options;
  options.hashesWanted = rejected || parts_.store.regions().hashesNeeded();
  handler_->waitBelow(kMostFound);
  pool_->scan(std::move(met.fd), met.path, options, [this, job](Verdict verdict) {
    try {
      ended(job, std::move(verdict));
    } catch (const std::exception& error) {
      counters_.failed();
      AGENT_LOG(LogLevel::kError, "%s: %s", job->path.c_str(), error.what());
    }
  });
}

/// What the lists of hashes and the rejection of its path make of a file's verdict. True when it is trusted.
/// A file that the engine could not look into has its hashes all the same.
bool ScanTask::applyRegions(const ScanJob& job, Verdict& verdict) {
  const RegionVerdict byHash =
      parts_.store.regions().hashesNeeded() ? parts_.store.regions().byHash(verdict) : RegionVerdict::kNone;
  const bool cancelled = verdict.outcome == Outcome::kSkipped && control_.stopping();
  if (byHash == RegionVerdict::kRejected || (job.rejected && !cancelled)) {
    verdict.outcome = Outcome::kInfected;
    verdict.detections.insert(
        verdict.detections.begin(),
        Detection{"Rejected.ByAdministrator", json::kEngineRejectList, json::RiskType::kRejected, "否决项"});
    return false;
  }
  return byHash == RegionVerdict::kTrusted;
}

/// On the pool's thread: where each file's way ends.
void ScanTask::ended(const std::shared_ptr<ScanJob>& job, Verdict verdict) {
  const bool trusted = applyRegions(*job, verdict);
  switch (verdict.outcome) {
    case Outcome::kClean:
      endedClean(*job);
      break;
    case Outcome::kInfected:
      trusted ? handler_->foundTrusted(job, std::move(verdict)) : handler_->found(job, std::move(verdict));
      break;
    case Outcome::kError:
      counters_.failed();
      AGENT_LOG(LogLevel::kWarning, "%s: not scanned: %s", job->path.c_str(), verdict.reason.c_str());
      break;
    case Outcome::kSkipped:
      counters_.skipped(verdict.reason);
      AGENT_LOG(LogLevel::kDebug, "%s: skipped: %s", job->path.c_str(), verdict.reason.c_str());
      break;
  }
}

void ScanTask::endedClean(const ScanJob& job) {
  counters_.clean();
  struct stat now {};
  if (job.cacheable && fstat(job.fd.get(), &now) == 0 && FileIdentity::of(now) == job.identity) {
    parts_.store.cache().remember(job.identity, cacheKey_, job.statusNs);
  }
}

}  // namespace agent
