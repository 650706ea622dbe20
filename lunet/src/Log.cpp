#include "Log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "platform/Files.h"
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

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

std::string nameOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
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
  // One write a record: other processes may have the same file open.
  const ssize_t ignored = ::write(file_.get(), line.data(), line.size());
  (void)ignored;
}

bool Log::openFile() {
  // The links on the way are resolved once, and nobody else can plant one afterwards.
  const auto folder = CDir::makeForFiles(folderOf(settings_.path), kFolderMode);
  if (!folder) {
    return false;
  }
  settings_.path = *folder + "/" + nameOf(settings_.path);
  if (!settings_.backupPath.empty()) {
    // None: a full file is emptied instead.
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

/// The oldest backup goes, the others move up by one, the full file becomes number 1. Another process may
/// be at the same: the lock on the full file lets one of them do it.
void Log::rotate() {
  if (flock(file_.get(), LOCK_EX) == 0 && samePlace(file_.get(), settings_.path)) {
    if (settings_.backupPath.empty()) {
      (void)ftruncate(file_.get(), 0);
      flock(file_.get(), LOCK_UN);
      return;
    }
    const std::string stem = utils::FormatDir(settings_.backupPath, true) + nameOf(settings_.path) + ".";
    for (int number = kBackups; number > 1; --number) {
      (void)rename((stem + std::to_string(number - 1)).c_str(), (stem + std::to_string(number)).c_str());
    }
    if (rename(settings_.path.c_str(), (stem + "1").c_str()) != 0) {
      (void)ftruncate(file_.get(), 0);  // the folder of old logs cannot be written: the log stays bounded
    }
  }
  file_.reset();
}

}  // namespace lunet
