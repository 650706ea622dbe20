#include "task/ScanWalk.h"

#include "json/CppJson.h"
#include "task/Places.h"
#include "task/ProgramWalk.h"

namespace agent {

namespace {

constexpr double kWholeDiskShare = 0.9;  // of a full scan, for its last stage

}  // namespace

ScanWalk::ScanWalk(const ScanContext& context, Walker::Options options)
    : context_(context), options_(std::move(options)) {}

platform::Expected<void> ScanWalk::prepare() {
  walker_.emplace(std::move(options_), static_cast<WalkSink&>(*this));
  const auto rights = CallerRights::take(context_.caller);
  if (!rights) {
    return platform::failure(rights.error());
  }
  for (const std::string& item : context_.plan.items) {
    platform::Expected<EncounteredFile> path = Walker::open(item);
    const platform::Expected<void> walkable =
        path ? walker_->checkWalkable(*path, NamedBy::kCaller) : platform::failure(path.error());
    if (!walkable) {
      return platform::failure(json::visiblePath(json::encodePath(item)) + ": " + walkable.error());
    }
    paths_.push_back(std::move(*path));
  }
  return {};
}

void ScanWalk::run(FilePipeline& files) {
  files_ = &files;
  auto rights = CallerRights::take(context_.caller);
  if (!rights) {
    context_.control.stop(rights.error());
    return;
  }
  rights_ = std::move(*rights);
  try {
    context_.plan.mode == json::ScanMode::kCustom ? walkPaths() : walkStages();
  } catch (...) {
    rights_.reset();
    throw;
  }
  rights_.reset();
}

void ScanWalk::walkPaths() {
  const double share = 1.0 / static_cast<double>(paths_.size());
  for (EncounteredFile& path : paths_) {
    walker_->walk(std::move(path), share, NamedBy::kCaller);
  }
}

void ScanWalk::walkStages() {
  const std::vector<Stage> stages = stagesOf(context_.plan.mode, context_.plan.memoryCheck, homeFolders());
  double left = 1.0;
  for (std::size_t i = 0; i < stages.size() && keepGoing(); ++i) {
    const Stage& stage = stages[i];
    const bool last = i + 1 == stages.size();
    const double forOthers = context_.plan.mode == json::ScanMode::kFull ? 1 - kWholeDiskShare : 1.0;
    const double share = last ? left : forOthers / static_cast<double>(stages.size());
    left -= share;
    context_.events.stage(stage.begin, stage.what);
    if (stage.runningPrograms) {
      walkRunningPrograms(share);
    }
    for (const std::string& path : stage.paths) {
      walkPath(path, stage.runningPrograms ? 0 : share / static_cast<double>(stage.paths.size()));
    }
    if (stage.paths.empty() && !stage.runningPrograms) {
      advanced(share);
    }
    if (!context_.control.stopping()) {
      const CallerRights::Suspended own(rights());
      files_->waitUntilDone();
      context_.events.stage(stage.end, stage.what);
    }
  }
}

void ScanWalk::walkPath(const std::string& path, double share) {
  if (!keepGoing()) {
    return;
  }
  platform::Expected<EncounteredFile> opened = Walker::open(path);
  if (!opened) {
    failed(path, opened.error());
    advanced(share);
    return;
  }
  walker_->walk(std::move(*opened), share, NamedBy::kAgent);
}

void ScanWalk::walkRunningPrograms(double share) {
  const auto programs = RunningPrograms::all();
  if (!programs) {
    failed("/proc", programs.error());
    advanced(share);
    return;
  }
  walkPrograms(*programs, rights_->reduced() ? std::optional(context_.caller.uid) : std::nullopt, share,
               *this);
}

void ScanWalk::file(EncounteredFile file) {
  const CallerRights::Suspended own(rights());
  files_->file(std::move(file));
}

void ScanWalk::skipped(const std::string& path, const std::string& reason) {
  const CallerRights::Suspended own(rights());
  files_->skipped(path, reason);
}

void ScanWalk::failed(const std::string& path, const std::string& reason) {
  const CallerRights::Suspended own(rights());
  files_->failed(path, reason);
}

void ScanWalk::advanced(double share) {
  done_.store(done() + share, std::memory_order_relaxed);
}

}  // namespace agent
