#include "Log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <exception>
#include <utility>

#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace lunet {

namespace {

constexpr std::uint32_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

/// "2026-01-31 08:05:09.123" in local time.
std::string timeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 48> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text.data() + length, text.size() - length, ".%03ld", now.tv_nsec / 1000000);
  return text.data();
}

bool samePlace(int fd, const std::string& path) {
  struct stat open {};
  struct stat named {};
  return fstat(fd, &open) == 0 && stat(path.c_str(), &named) == 0 && open.st_ino == named.st_ino &&
         open.st_dev == named.st_dev;
}

}  // namespace

void Log::open(Settings settings) {
  const std::lock_guard lock(mutex_);
  settings_ = std::move(settings);
  settings_.path = settings_.path.empty() ? "" : utils::FormatFilePath(settings_.path);
  file_.reset();
  level_.store(settings_.level);
}

void Log::close() {
  const std::lock_guard lock(mutex_);
  level_.store(Level::kOff);
  file_.reset();
  settings_ = Settings();
}

void Log::write(Level level, std::string_view text) {
  if (!wants(level)) {
    return;
  }
  const std::string visible = platform::visibleText(text);
  if (const LogCallback callback = callback_.load(); callback != nullptr) {
    callback(static_cast<int>(level), visible.c_str());
  }
  const std::lock_guard lock(mutex_);
  if (!settings_.path.empty()) {
    append(timeStamp() + " [" + std::to_string(static_cast<int>(level)) + "] [" + std::to_string(getpid()) +
           " " + platform::visibleText(settings_.name) + "] " + visible + "\n");
  }
}

void Log::writeOf(uid_t user, Level level, const std::string& text) {
  if (!wants(level)) {
    return;
  }
  if (const auto remark = limit_.admit(user)) {
    write(level, text + *remark);
  }
}

void Log::append(const std::string& line) {
  if (!file_ && !openFile()) {
    return;
  }
  struct stat st {};
  if (fstat(file_.get(), &st) == 0 && st.st_size + static_cast<off_t>(line.size()) > kFileBytes) {
    rotate();
    if (!file_ && !openFile()) {
      return;
    }
  }
  // One write for each record: other processes may have the same file open.
  const ssize_t ignored = ::write(file_.get(), line.data(), line.size());
  (void)ignored;
}

bool Log::openFile() {
  // The path's links are resolved once, and other users cannot add a link afterwards.
  const platform::SplitPath path = platform::splitPath(settings_.path);
  const auto folder = CDir::makeForFiles(path.folder.empty() ? "." : path.folder, kFolderMode);
  if (!folder) {
    return false;
  }
  settings_.path = *folder + "/" + path.name;
  if (!settings_.backupPath.empty()) {
    // Empty when the folder is unsafe: a full file is then emptied.
    settings_.backupPath = CDir::makeForFiles(settings_.backupPath, kFolderMode).value_or("");
  }
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  platform::Descriptor file(::open(settings_.path.c_str(), flags, kFileMode));
  struct stat st {};
  if (!file || fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return false;
  }
  file_ = std::move(file);
  return true;
}

/// Removes the oldest backup, moves the others up by one, and makes the full file number 1. The lock on the
/// full file lets one of several processes do so.
void Log::rotate() {
  if (flock(file_.get(), LOCK_EX) == 0 && samePlace(file_.get(), settings_.path)) {
    if (settings_.backupPath.empty()) {
      (void)ftruncate(file_.get(), 0);
      flock(file_.get(), LOCK_UN);
      return;
    }
    const std::string stem =
        utils::FormatDir(settings_.backupPath, true) + platform::splitPath(settings_.path).name + ".";
    for (int number = kBackups; number > 1; --number) {
      (void)rename((stem + std::to_string(number - 1)).c_str(), (stem + std::to_string(number)).c_str());
    }
    if (rename(settings_.path.c_str(), (stem + "1").c_str()) != 0) {
      (void)ftruncate(file_.get(), 0);  // the folder of old files cannot be written: the log stays bounded
    }
  }
  file_.reset();
}

void logCurrentException(Log& log, const char* what) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& error) {
      log.write(BusLogLevel::kError, std::string(what) + ": " + error.what());
    } catch (...) {
      log.write(BusLogLevel::kError, what);
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for the line
  }
}

}  // namespace lunet
