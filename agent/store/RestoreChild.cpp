#include "store/RestoreChild.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "store/FolderWalk.h"
#include "store/RestoreSteps.h"
#include "store/Sqlite.h"

namespace agent::store {

RestoreChild::RestoreChild(const RestoreJob& job) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw StoreError("no channel for the restore: " + errnoText(errno));
  }
  channel_.reset(ends[0]);
  UniqueFd childEnd(ends[1]);
  // The child must not run handlers that were written for the agent.
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::close(ends[0]);
    runRestore(job, ends[1]);
    ::_exit(0);
  }
  const int error = errno;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (pid_ < 0) {
    throw StoreError("no process for the restore: " + errnoText(error));
  }
}

RestoreChild::~RestoreChild() {
  if (pid_ > 0) {
    report();
  }
}

bool RestoreChild::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(channel_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0 && errno != EINTR) {
      return false;
    }
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  return true;
}

RestoreReport RestoreChild::report() {
  ::shutdown(channel_.get(), SHUT_WR);
  RestoreReport report;
  if (readFully(channel_.get(), &report, sizeof report) != static_cast<std::int64_t>(sizeof report)) {
    report = {};
  }
  // Somebody else in the process may have taken the status: what counts is the report.
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return report;
}

std::string whyNotRestored(const RestoreJob& job, const RestoreReport& report) {
  const std::string path = quoted(job.folder + (job.folder == "/" ? "" : "/") + job.name);
  const std::string why = errnoText(report.error);
  switch (report.stage) {
    case RestoreStage::kUser:
      return "cannot act for user " + std::to_string(job.uid) + ": " + why;
    case RestoreStage::kFolder:
      return whyNoFolder(job.folder, report.error, report.failedEnd);
    case RestoreStage::kExists:
      return path + " exists already: it is not overwritten";
    case RestoreStage::kCreate:
      return "cannot write in " + quoted(job.folder) + ": " + why;
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
    case RestoreStage::kAborted:
    case RestoreStage::kDone:
      break;
  }
  return "the restoring process died";
}

}  // namespace agent::store
