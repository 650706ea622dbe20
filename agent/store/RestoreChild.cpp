#include "store/RestoreChild.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>
#include <utility>

#include "store/FolderWalk.h"
#include "store/RestoreSteps.h"
#include "store/Sqlite.h"

namespace agent::store {
namespace {

constexpr std::uint64_t kBytesPerPatience = 64 << 20;  // a slow disk is faster
constexpr std::chrono::seconds kKillLimit{2};

/// Killed children that a file system still holds. Unguarded: there is one restore at a time.
std::vector<pid_t> uncollected;

bool collect(pid_t pid) {
  return ::waitpid(pid, nullptr, WNOHANG) != 0;
}

std::chrono::milliseconds limitFor(const RestoreJob& job, std::chrono::milliseconds patience) {
  return patience * (1 + job.meta->size / kBytesPerPatience);
}

}  // namespace

RestoreChild::RestoreChild(const RestoreJob& job, std::chrono::milliseconds patience)
    : patience_(patience), deadline_(Clock::now() + limitFor(job, patience)) {
  std::erase_if(uncollected, collect);
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw StoreError("no channel for the restore: " + platform::errnoText(errno));
  }
  channel_.reset(ends[0]);
  platform::Descriptor childEnd(ends[1]);
  waitAtMost(SO_SNDTIMEO, patience_);
  const pid_t self = ::getpid();
  // The child must not run handlers that were written for the agent.
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  pid_ = ::fork();
  if (pid_ == 0) {
    runRestore(job, ends[1], self);
    ::_exit(0);
  }
  const int error = errno;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (pid_ < 0) {
    throw StoreError("no process for the restore: " + platform::errnoText(error));
  }
}

RestoreChild::~RestoreChild() {
  if (pid_ > 0) {
    report();
  }
}

bool RestoreChild::send(std::string_view bytes) {
  while (!bytes.empty() && !stalled_) {
    const ssize_t n = ::send(channel_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno != EINTR) {
      stalled_ = errno == EAGAIN;
      return false;
    }
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    stalled_ = Clock::now() >= deadline_;
  }
  return !stalled_;
}

void RestoreChild::waitAtMost(int option, std::chrono::milliseconds limit) {
  const auto ms = std::max<std::int64_t>(limit.count(), 1);  // 0 would be no limit
  const timeval value{ms / 1000, ms % 1000 * 1000};
  stalled_ = stalled_ || ::setsockopt(channel_.get(), SOL_SOCKET, option, &value, sizeof value) != 0;
}

RestoreReport RestoreChild::report() {
  ::shutdown(channel_.get(), SHUT_WR);
  RestoreReport report;
  if (!stalled_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
    waitAtMost(SO_RCVTIMEO, std::max(patience_, left));
    const std::int64_t n = platform::readFully(channel_.get(), &report, sizeof report);
    stalled_ = n < 0 && errno == EAGAIN;
    if (n != static_cast<std::int64_t>(sizeof report)) {
      report = {};
    }
  }
  if (stalled_) {
    report.stage = RestoreStage::kStalled;
  }
  end();
  return report;
}

/// Collects the child, which has sent its report or never will. A child that a file system holds even after
/// SIGKILL is collected later.
void RestoreChild::end() {
  const pid_t pid = std::exchange(pid_, -1);
  if (collect(pid)) {
    return;
  }
  ::kill(pid, SIGKILL);
  const auto limit = Clock::now() + kKillLimit;
  while (!collect(pid)) {
    if (Clock::now() >= limit) {
      uncollected.push_back(pid);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string restoreFailure(const RestoreJob& job, const RestoreReport& report) {
  const std::string path = platform::quoted(platform::joinPath(job.folder, job.name));
  const std::string why = platform::errnoText(report.error);
  switch (report.stage) {
    case RestoreStage::kUser:
      return "cannot act for user " + std::to_string(job.uid) + ": " + why;
    case RestoreStage::kFolder:
      return walkFailure(job.folder, report.error, report.failedEnd);
    case RestoreStage::kExists:
      return path + " exists already: it is not overwritten";
    case RestoreStage::kCreate:
      return "cannot write in " + platform::quoted(job.folder) + ": " + why;
    case RestoreStage::kWrite:
      return "cannot write " + path + ": " + why;
    case RestoreStage::kOwner:
      return job.privileged
                 ? "owner and group cannot be given back: " + why
                 : "its group " + std::to_string(job.meta->gid) + " is none of the caller's: " + why;
    case RestoreStage::kMode:
      return "mode cannot be given back: " + why;
    case RestoreStage::kTimes:
      return "times cannot be given back: " + why;
    case RestoreStage::kSync:
      return path + " cannot be synced to disk: " + why;
    case RestoreStage::kPlace:
      return "cannot give " + path + " its name: " + why;
    case RestoreStage::kStalled:
      return "the restoring process was ended: it had been stopped, or " + platform::quoted(job.folder) +
             " is on a file system that does not answer";
    case RestoreStage::kAborted:
    case RestoreStage::kDone:
      break;
  }
  return "the restoring process died";
}

}  // namespace agent::store
