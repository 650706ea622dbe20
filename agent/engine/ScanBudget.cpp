#include "engine/ScanBudget.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>

namespace agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr suseconds_t kEveryMicroseconds = 20000;
constexpr milliseconds kLongestStep{1000};  // more between two looks: a pause had stopped the process
constexpr int kDeepestFolder = 32;          // below the folder of temporary files

std::atomic<ScanBudget*> watched{nullptr};

nanoseconds processorTime() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

// The functions below are called by the signal's handler: nothing in them allocates memory.

std::uint64_t bytesBelow(int folder, int deepest) {
  alignas(dirent64) char buffer[2048];
  std::uint64_t bytes = 0;
  for (ssize_t got = 0; (got = getdents64(folder, buffer, sizeof buffer)) > 0;) {
    for (ssize_t at = 0; at < got;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
      at += entry->d_reclen;
      struct stat status {};
      const char* name = entry->d_name;
      const bool here = name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
      if (here || fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      bytes += static_cast<std::uint64_t>(status.st_blocks) * 512;
      if (S_ISDIR(status.st_mode) && deepest > 0) {
        const int below = openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (below >= 0) {
          bytes += bytesBelow(below, deepest - 1);
          close(below);
        }
      }
    }
  }
  return bytes;
}

std::uint64_t bytesOfFileSystem(const char* folder) {
  struct statfs status {};
  return statfs(folder, &status) == 0
             ? (status.f_blocks - status.f_bfree) * static_cast<std::uint64_t>(status.f_bsize)
             : 0;
}

rlim_t fileSizeLimit() {
  rlimit now{};
  return getrlimit(RLIMIT_FSIZE, &now) == 0 ? now.rlim_cur : 0;
}

void limitFileSize(rlim_t bytes) {
  rlimit now{};
  getrlimit(RLIMIT_FSIZE, &now);
  now.rlim_cur = std::min(bytes, now.rlim_max);
  setrlimit(RLIMIT_FSIZE, &now);
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(signal, &action, nullptr);
}

void setTimer(suseconds_t microseconds) {
  const itimerval timer{{0, microseconds}, {0, microseconds}};
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

ScanBudget::ScanBudget(const FileBudget& budget, std::uint64_t maxLayers)
    : budget_(budget), maxLayers_(maxLayers), space_(budget.tempBytes), processorBefore_(processorTime()) {
  getrlimit(RLIMIT_FSIZE, &fileSizeBefore_);
  longestFile_ = std::min<rlim_t>(budget_.tempBytes, fileSizeBefore_.rlim_cur);
  limitFileSize(longestFile_);
  watched = this;
  handle(SIGALRM, onTimer);
  handle(SIGXFSZ, onLongFile);
  setTimer(kEveryMicroseconds);
}

ScanBudget::~ScanBudget() {
  setTimer(0);
  watched = nullptr;
  setrlimit(RLIMIT_FSIZE, &fileSizeBefore_);
}

void ScanBudget::watchFolder(const std::string& folder) {
  folder_ = folder.empty() ? nullptr : folder.c_str();
}

void ScanBudget::onTimer(int) {
  const int error = errno;
  if (ScanBudget* scan = watched) {
    scan->compare();
  }
  errno = error;
}

// The write fails as well. A lower limit is another one's.
void ScanBudget::onLongFile(int) {
  const int error = errno;
  ScanBudget* scan = watched;
  if (scan != nullptr && scan->shortage_ == Shortage::kNone && fileSizeLimit() == scan->longestFile_) {
    scan->endFor(Shortage::kTempSpace);
  }
  errno = error;
}

void ScanBudget::compare() {
  if (shortage_ != Shortage::kNone) {
    return;
  }
  const auto now = Clock::now();
  clock_ += std::min<Clock::duration>(now - lastLook_, kLongestStep);
  lastLook_ = now;
  if (processorTime() - processorBefore_ > budget_.processor) {
    endFor(Shortage::kProcessor);
  } else if (clock_ > budget_.clock) {
    endFor(Shortage::kClock);
  } else if (usesTooMuchSpace()) {
    endFor(Shortage::kTempSpace);
  }
}

void ScanBudget::endFor(Shortage shortage) {
  shortage_ = shortage;
  limitFileSize(0);
}

// A walk over many files takes at most a tenth of the time.
bool ScanBudget::usesTooMuchSpace() {
  const char* folder = folder_;
  const auto begun = Clock::now();
  if (folder == nullptr || begun < nextWalk_ || bytesOfFileSystem(folder) <= budget_.tempBytes) {
    return false;
  }
  const int opened = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) {
    return false;
  }
  const std::uint64_t bytes = bytesBelow(opened, kDeepestFolder) + space_.used();
  close(opened);
  const auto now = Clock::now();
  nextWalk_ = now + 10 * (now - begun);
  return bytes > budget_.tempBytes;
}

std::string ScanBudget::dataReason() const {
  return budget_.ratio == 0
             ? "more data in it than the engine's limit for one scan"
             : "more data in it than " + std::to_string(budget_.ratio) + " times the file's size";
}

std::string ScanBudget::reason() const {
  switch (shortage_) {
    case Shortage::kProcessor:
      return processorReason(budget_);
    case Shortage::kClock:
      return clockReason(budget_.clock);
    case Shortage::kTempSpace:
    case Shortage::kNone:
      break;
  }
  return "the scan used more temporary space than its budget of " + std::to_string(budget_.tempBytes) +
         " bytes";
}

}  // namespace agent
