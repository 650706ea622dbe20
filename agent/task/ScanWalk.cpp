#include "task/ScanWalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "json/CppJson.h"
#include "platform/Posix.h"
#include "task/ProgramWalk.h"

namespace agent {

namespace {

constexpr double kWholeDiskShare = 0.9;  // of a full scan, for its last stage
constexpr int kSettingDepth = 3;         // of folders of settings
constexpr std::size_t kSettingBytes = 1 << 20;

/// The first part of a file of settings. Such files are small.
std::string beginOf(int fd) {
  std::string text(kSettingBytes, '\0');
  const std::int64_t size = platform::readFully(fd, text.data(), text.size());
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

std::vector<std::string> namesIn(int folder) {
  std::vector<std::string> names;
  platform::Descriptor copy(fcntl(folder, F_DUPFD_CLOEXEC, 0));
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(copy ? fdopendir(copy.get()) : nullptr, closedir);
  if (directory) {
    copy.release();
    while (const dirent* entry = readdir(directory.get())) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") {
        names.push_back(name);
      }
    }
  }
  return names;
}

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
  homes_ = homeFolders();
  const std::vector<Stage> stages = stagesOf(context_.plan.mode, context_.plan.memoryCheck, homes_);
  listPlaces(stages);
  double left = 1.0;
  for (std::size_t i = 0; i < stages.size() && keepGoing(); ++i) {
    const Stage& stage = stages[i];
    const bool last = i + 1 == stages.size();
    const double forOthers = context_.plan.mode == json::ScanMode::kFull ? 1 - kWholeDiskShare : 1.0;
    const double share = last ? left : forOthers / static_cast<double>(stages.size());
    left -= share;
    context_.events.stage(stage.begin, stage.what);
    walkStage(stage, share);
    if (!context_.control.stopping()) {
      files_->waitUntilDone();
      const CallerRights::Suspended own(rights());
      context_.events.stage(stage.end, stage.what);
    }
  }
}

void ScanWalk::walkStage(const Stage& stage, double share) {
  const double searchShare = stage.setuidFiles ? share / 2 : 0;
  const double placesShare = share - searchShare;
  if (stage.runningPrograms) {
    walkRunningPrograms(share);
  } else if (stage.places.empty()) {
    advanced(placesShare);
  }
  for (const Place& place : stage.places) {
    walkPlace(place, placesShare / static_cast<double>(stage.places.size()));
  }
  for (const Place& place : stage.places) {
    if (place.setting != SettingKind::kNone && context_.plan.mode == json::ScanMode::kFast) {
      walkNamedPrograms(place, place.path, 0);
    }
  }
  if (stage.setuidFiles) {
    walkSetuidFiles(searchShare);
  }
}

/// Nothing: no such entry. A path below a home folder is opened as its user could open it.
platform::Expected<std::optional<EncounteredFile>> ScanWalk::openPlace(const std::string& path,
                                                                       const HomeFolder* home) const {
  if (home != nullptr) {
    return HomeAccess(rights_->reduced()).open(*home, belowHome(*home, path));
  }
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
    return std::nullopt;
  }
  platform::Expected<EncounteredFile> opened = Walker::open(path);
  if (!opened) {
    return platform::failure(opened.error());
  }
  return std::optional(std::move(*opened));
}

void ScanWalk::walkPlace(const Place& place, double share) {
  if (!keepGoing()) {
    return;
  }
  platform::Expected<std::optional<EncounteredFile>> opened =
      openPlace(place.path, place.home ? &*place.home : nullptr);
  if (opened && *opened) {
    walker_->walk(std::move(**opened), share, NamedBy::kAgent);
    return;
  }
  if (!opened) {
    failed(place.path, opened.error());
  }
  advanced(share);
}

void ScanWalk::listPlaces(const std::vector<Stage>& stages) {
  for (const Stage& stage : stages) {
    for (const Place& place : stage.places) {
      placePaths_.push_back(place.path);
      const std::unique_ptr<char, void (*)(void*)> resolved(
          place.home ? nullptr : realpath(place.path.c_str(), nullptr), std::free);
      if (resolved) {
        placePaths_.emplace_back(resolved.get());
      }
    }
  }
}

/// True when the walk of a place looks at the path.
bool ScanWalk::isInPlaces(const std::string& path) const {
  return std::any_of(placePaths_.begin(), placePaths_.end(),
                     [&](const std::string& place) { return place == "/" || isWithin(path, place); });
}

/// Reads settings, and walks the programs that they name. What cannot be read was reported by the walk of
/// the place.
void ScanWalk::walkNamedPrograms(const Place& place, const std::string& path, int depth) {
  if (!keepGoing()) {
    return;
  }
  const HomeFolder* const home = place.home ? &*place.home : nullptr;
  const platform::Expected<std::optional<EncounteredFile>> opened = openPlace(path, home);
  if (!opened || !*opened || !walker_->checkWalkable(**opened, NamedBy::kAgent)) {
    return;
  }
  if (S_ISREG((*opened)->status.st_mode)) {
    const std::optional<HomeFolder> by =
        place.setting == SettingKind::kUserTables ? homeFolderOf(platform::splitPath(path).name) : place.home;
    if (place.setting == SettingKind::kUserTables && !by) {
      return;  // of no user: nobody runs it
    }
    const std::string text = beginOf((*opened)->fd.get());
    const NamedPaths named = programsNamedIn(place.setting, text, by ? by->path : "");
    for (const std::string& program : named.paths) {
      walkNamedProgram(program, by ? &*by : nullptr);
    }
    if (named.more || text.size() == kSettingBytes) {
      failed(path, "names more programs than are looked at");
    }
  } else if (depth < kSettingDepth) {
    for (const std::string& name : namesIn((*opened)->fd.get())) {
      walkNamedPrograms(place, platform::joinPath(path, name), depth + 1);
    }
  }
}

/// by: the user whose settings name the program; null: the system.
void ScanWalk::walkNamedProgram(const std::string& path, const HomeFolder* by) {
  if (!named_.emplace(path, by != nullptr ? by->uid : 0).second || !keepGoing()) {
    return;
  }
  const HomeFolder* const home = homeOf(path, homes_);
  platform::Expected<std::optional<EncounteredFile>> opened =
      home == nullptr && by != nullptr ? HomeAccess(rights_->reduced()).openAny(*by, path)
                                       : openPlace(path, home);
  if (!opened) {
    if (!isInPlaces(path)) {  // else its own walk reports it
      failed(path, opened.error());
    }
  } else if (*opened && S_ISREG((*opened)->status.st_mode) && !isInPlaces((*opened)->resolved) &&
             namedFiles_.emplace((*opened)->status.st_dev, (*opened)->status.st_ino).second) {
    walker_->walk(std::move(**opened), 0, NamedBy::kAgent);
  }
}

void ScanWalk::walkSetuidFiles(double share) {
  platform::Expected<EncounteredFile> root = Walker::open("/");
  if (!root) {
    failed("/", root.error());
    advanced(share);
    return;
  }
  searching_ = true;
  walker_->walk(std::move(*root), share, NamedBy::kAgent, Wanted::kSetuidFiles);
  searching_ = false;
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
  if (searching_ && rights_->reduced()) {
    files_->skipped(path, "not searched for setuid files: " + reason);
  } else {
    files_->failed(path, reason);
  }
}

void ScanWalk::advanced(double share) {
  done_.store(done() + share, std::memory_order_relaxed);
}

}  // namespace agent
