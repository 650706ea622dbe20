#include "task/ScanTask.h"

#include <algorithm>
#include <exception>

#include "task/AgentLog.h"

namespace agent {

namespace {

constexpr std::chrono::milliseconds kLoadLook{200};  // between two looks for a stop while signatures load

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
      prepared_(preparedPromise_.get_future()),
      over_(overPromise_.get_future()),
      walk_({plan_, caller_, parts_.store, counters_, *events_, control_},
            {.excludedFolders = parts_.ownFolders,
             .networkFileSystems = plan_.networkFileSystems,
             .fileSystem = parts_.fileSystem}) {
  control_.onStop([this] {
    const std::lock_guard guard(filesMutex_);
    if (files_) {
      files_->cancel();
    }
  });
  control_.onHold(
      [this] {
        const std::lock_guard guard(filesMutex_);
        if (files_) {
          files_->hold();
        }
      },
      [this] { files_->release(); });
  control_.onPause(
      [this] {
        const CallerRights::Suspended own(walk_.rights());
        files_->waitHeld();
        reportProgress();
        AGENT_LOG_OF(caller_.uid, LogLevel::kInfo, "scan %s paused", token_.c_str());
        events_->state(json::TaskState::kPaused, {});
      },
      [this] {
        const CallerRights::Suspended own(walk_.rights());
        AGENT_LOG_OF(caller_.uid, LogLevel::kInfo, "scan %s resumed", token_.c_str());
        events_->state(json::TaskState::kResumed, {});
      });
}

ScanTask::~ScanTask() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

bool ScanTask::waitOver(std::chrono::milliseconds limit) const {
  return over_.wait_for(limit) == std::future_status::ready;
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

platform::Expected<void> ScanTask::waitPrepared(std::chrono::milliseconds limit) {
  if (prepared_.wait_for(limit) != std::future_status::ready) {
    return {};
  }
  return prepared_.get();
}

int ScanTask::percent() const {
  return std::clamp(static_cast<int>(walk_.done() * 100), 0, 99);
}

void ScanTask::run() {
  platform::Expected<void> prepared;
  try {
    prepared = prepare();
  } catch (const std::exception& error) {
    prepared = platform::failure(internalError(error));
  }
  if (!prepared) {
    AGENT_LOG_OF(caller_.uid, LogLevel::kError, "scan %s not started: %s", token_.c_str(),
                 prepared.error().c_str());
    hooks_.released();
    events_->state(json::TaskState::kNotCreated, prepared.error());
    events_->onDelivered(hooks_.delivered);
    preparedPromise_.set_value(prepared);
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

/// Waits for the signatures, opens the paths, and starts the workers; the creation of the task is reported
/// afterwards.
platform::Expected<void> ScanTask::prepare() {
  SignatureState signatures = parts_.spawner.signatureState();
  while (signatures.loading && !control_.stopping()) {
    signatures = parts_.spawner.waitLoaded(kLoadLook);
  }
  if (control_.stopping()) {
    return platform::failure(control_.stopReason());
  }
  if (!signatures.loaded) {
    return platform::failure("no signatures are loaded: " + signatures.detail);
  }
  if (platform::Expected<void> prepared = walk_.prepare(); !prepared) {
    return prepared;
  }
  const std::lock_guard guard(filesMutex_);
  files_ =
      std::make_unique<FilePipeline>(ScanContext{plan_, caller_, parts_.store, counters_, *events_, control_},
                                     parts_.spawner, signatures.version);
  signatures_ = std::move(signatures);
  if (control_.paused()) {
    files_->hold();
  }
  return {};
}

void ScanTask::scan() {
  AGENT_LOG_OF(caller_.uid, LogLevel::kInfo, "scan %s started: type %d, user %u, pid %d, %s", token_.c_str(),
               plan_.scanType, caller_.uid, caller_.pid,
               plan_.handling == json::Handling::kAutomatic ? "automatic handling" : "report only");
  if (!signatures_.shortage.empty()) {
    AGENT_LOG_OF(caller_.uid, LogLevel::kWarning, "scan %s: %s", token_.c_str(),
                 signatures_.shortage.c_str());
  }
  events_->state(json::TaskState::kCreated, {});
  events_->state(json::TaskState::kStarted, signatures_.shortage);
  Json::Value attributes(Json::objectValue);
  attributes["scan_type"] = plan_.scanType;
  attributes["parallelism"] = files_->workerCount();
  attributes["signature_version"] = signatures_.version;
  attributes["signature_shortage"] = signatures_.shortage;
  events_->attributes(attributes);
  std::promise<void> walked;
  std::thread progress([this, over = walked.get_future()] { reportUntil(over); });
  try {
    walk_.run(*files_);
  } catch (const std::exception& error) {
    control_.stop(internalError(error));
  }
  files_->waitUntilDone();
  control_.finish();  // takes a pause that came while the last files were scanned
  walked.set_value();
  progress.join();
}

/// Ends the workers, then sends the last notifications.
void ScanTask::end() {
  {
    std::unique_ptr<FilePipeline> ending;
    const std::lock_guard guard(filesMutex_);
    ending.swap(files_);
  }
  try {
    parts_.store.cache().flush();
  } catch (const std::exception& error) {
    AGENT_LOG(LogLevel::kError, "the scan cache was not written: %s", error.what());
  }
  const bool aborted = control_.stopping();
  AGENT_LOG_OF(caller_.uid, LogLevel::kInfo, "scan %s %s: %s", token_.c_str(),
               aborted ? "aborted" : "finished", counters_.summary().c_str());
  hooks_.released();
  if (!aborted) {
    events_->progress(100);
  }
  events_->overview(overview());
  events_->state(aborted ? json::TaskState::kAborted : json::TaskState::kFinished,
                 aborted ? control_.stopReason() : counters_.summary());
  events_->onDelivered(hooks_.delivered);
}

Json::Value ScanTask::overview() const {
  Json::Value value;
  counters_.overview(token_).ToValue(value);
  return value;
}

void ScanTask::reportProgress() {
  events_->progress(percent());
  events_->overview(overview());
}

/// A scan that nobody can resume holds its files, its mode and its workers.
void ScanTask::endForgottenPause() {
  const auto now = std::chrono::steady_clock::now();
  if (!control_.paused()) {
    pausedSince_.reset();
  } else if (!pausedSince_) {
    pausedSince_ = now;
  } else if (now - *pausedSince_ >= parts_.forgottenPause && events_->ownerEnded()) {
    control_.stop("paused, and the program that started the scan has ended");
  }
}

/// On the progress thread: reports, and keeps the time limit of the scan even while one file takes long.
void ScanTask::reportUntil(const std::future<void>& walked) {
  const auto begin = std::chrono::steady_clock::now();
  while (walked.wait_for(parts_.tick) != std::future_status::ready) {
    if (plan_.limit.count() > 0 && std::chrono::steady_clock::now() - begin >= plan_.limit) {
      control_.stop("the time limit of " + std::to_string(plan_.limit.count()) + " seconds is over");
    }
    endForgottenPause();
    try {
      if (!control_.paused() && !control_.stopping()) {
        reportProgress();
      }
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "scan %s: %s", token_.c_str(), error.what());
    }
  }
}

}  // namespace agent
