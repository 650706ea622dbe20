#include "store/RestoreSteps.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string_view>

#include "platform/Inheritance.h"
#include "store/FolderWalk.h"
#include "store/OriginalFile.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

constexpr const char* kAcl = "system.posix_acl_access";
constexpr mode_t kSetid = S_ISUID | S_ISGID;

/// The state that the steps share.
struct Work {
  const RestoreJob& job;
  int channel;
  RestoreReport report;
  int folder = -1, file = -1;
  bool named = false;  ///< the file has its temporary name

  bool fail(RestoreStage stage, int error) {
    report.stage = stage;
    report.error = error;
    return false;
  }
};

bool dropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const std::array<__user_cap_data_struct, 2> none{};
  return ::syscall(SYS_capset, &header, none.data()) == 0;
}

/// A child that hangs must hold no descriptor that another process waits for: locks, sockets, the standard
/// streams. The child's copy of the busy lock shows the next agent that the child is at work.
void closeAgentDescriptors(int channel, int busyLock) {
  platform::leaveStandardStreams({channel, busyLock});
  platform::closeAllBut({channel, busyLock});
}

/// Behind becomeCaller: a change of the user clears the signal.
bool dieWithParent(Work& work, pid_t parent) {
  return (::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == parent) ||
         work.fail(RestoreStage::kAborted, 0);
}

/// Drops the agent's rights for good.
bool becomeCaller(Work& work) {
  if (!work.job.switchUser) {
    return true;
  }
  const RestoreJob& job = work.job;
  const bool switched = ::setgroups(job.groups.size(), job.groups.data()) == 0 &&
                        ::setresgid(job.gid, job.gid, job.gid) == 0 &&
                        ::setresuid(job.uid, job.uid, job.uid) == 0 && dropCapabilities();
  if (!switched) {
    return work.fail(RestoreStage::kUser, errno);
  }
  uid_t real = 0, effective = 0, saved = 0;
  ::getresuid(&real, &effective, &saved);
  const bool sure = real == job.uid && effective == job.uid && saved == job.uid && ::setuid(0) != 0;
  return sure || work.fail(RestoreStage::kUser, EPERM);
}

bool findFolder(Work& work) {
  std::size_t failedEnd = 0;
  work.folder = walkToFolder(work.job.folder.c_str(), &failedEnd);
  if (work.folder < 0) {
    work.report.failedEnd = failedEnd;
    return work.fail(RestoreStage::kFolder, -work.folder);
  }
  struct stat st {};
  if (::fstatat(work.folder, work.job.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    return work.fail(RestoreStage::kExists, EEXIST);
  }
  return true;
}

bool createFile(Work& work) {
  work.file = ::openat(work.folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  const bool unknown = errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL || errno == ENOENT;
  if (work.file < 0 && unknown) {
    work.file = ::openat(work.folder, work.job.temporaryName.c_str(),
                         O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    work.named = work.file >= 0;
  }
  if (work.file < 0) {
    return work.fail(RestoreStage::kCreate, errno);
  }
  reached("file made");
  return true;
}

/// 0 at the end of the stream and on an error.
std::size_t receive(const Work& work, void* buffer, std::size_t size) {
  for (;;) {
    const ssize_t n = ::recv(work.channel, buffer, size, 0);
    if (n >= 0 || errno != EINTR) {
      return n > 0 ? static_cast<std::size_t>(n) : 0;
    }
  }
}

bool takeContent(Work& work) {
  std::array<char, 1 << 15> buffer;
  for (std::uint64_t left = work.job.meta->size; left > 0;) {
    const std::size_t n =
        receive(work, buffer.data(), static_cast<std::size_t>(std::min<std::uint64_t>(left, buffer.size())));
    if (n == 0) {
      return work.fail(RestoreStage::kAborted, 0);
    }
    const int error = platform::writeAll(work.file, {buffer.data(), n});
    if (error != 0) {
      return work.fail(RestoreStage::kWrite, error);
    }
    left -= n;
  }
  // The agent confirms that the content is whole.
  char word = 0;
  return (receive(work, &word, 1) == 1 && word == 'C') || work.fail(RestoreStage::kAborted, 0);
}

bool setOwner(Work& work) {
  struct stat st {};
  if (::fstat(work.file, &st) != 0) {
    return work.fail(RestoreStage::kOwner, errno);
  }
  const ItemMeta& meta = *work.job.meta;
  const uid_t uid = st.st_uid == meta.uid ? static_cast<uid_t>(-1) : meta.uid;
  const gid_t gid = st.st_gid == meta.gid ? static_cast<gid_t>(-1) : meta.gid;
  const bool same = uid == static_cast<uid_t>(-1) && gid == static_cast<gid_t>(-1);
  return same || ::fchown(work.file, uid, gid) == 0 || work.fail(RestoreStage::kOwner, errno);
}

bool needsPrivilege(std::string_view attribute) {
  return attribute.starts_with("security.") || attribute.starts_with("trusted.");
}

/// Behind setOwner: a change of the owner clears setuid and capabilities.
bool setModeAndAttributes(Work& work) {
  ::fremovexattr(work.file, kAcl);  // inherited from the folder
  mode_t mode = work.job.meta->mode;
  if (!work.job.privileged && (mode & kSetid) != 0) {
    mode &= ~kSetid;
    work.report.setidLeft = 1;
  }
  if (::fchmod(work.file, mode) != 0) {
    return work.fail(RestoreStage::kMode, errno);
  }
  for (const auto& [name, value] : work.job.meta->xattrs) {
    const bool allowed = work.job.privileged || !needsPrivilege(name);
    if (!allowed || ::fsetxattr(work.file, name.c_str(), value.data(), value.size(), 0) != 0) {
      ++work.report.attributesLeft;
    }
  }
  return true;
}

bool setTimes(Work& work) {
  constexpr std::int64_t kNs = 1'000'000'000;
  const auto toSpec = [](std::int64_t ns) {
    const std::int64_t part = (ns % kNs + kNs) % kNs;
    return timespec{(ns - part) / kNs, part};
  };
  const std::array times = {toSpec(work.job.meta->accessTimeNs), toSpec(work.job.meta->modifyTimeNs)};
  return ::futimens(work.file, times.data()) == 0 || work.fail(RestoreStage::kTimes, errno);
}

bool place(Work& work) {
  if (::fsync(work.file) != 0) {
    return work.fail(RestoreStage::kSync, errno);
  }
  int error = 0;
  if (work.named) {
    error = renameWithin(work.folder, work.job.temporaryName, work.job.name);
  } else {
    std::array<char, 32> self{};
    std::snprintf(self.data(), self.size(), "/proc/self/fd/%d", work.file);
    const int code = ::linkat(AT_FDCWD, self.data(), work.folder, work.job.name.c_str(), AT_SYMLINK_FOLLOW);
    error = code == 0 ? 0 : errno;
  }
  if (error != 0) {
    return work.fail(error == EEXIST ? RestoreStage::kExists : RestoreStage::kPlace, error);
  }
  work.named = false;
  reached("file placed");
  error = platform::syncFolder(work.folder, work.file);
  return error == 0 || work.fail(RestoreStage::kSync, error);
}

}  // namespace

void runRestore(const RestoreJob& job, int channel, pid_t parent) {
  closeAgentDescriptors(channel, job.busyLock);
  Work work{.job = job, .channel = channel, .report = {}};
  const bool done = becomeCaller(work) && dieWithParent(work, parent) && findFolder(work) &&
                    createFile(work) && takeContent(work) && setOwner(work) && setModeAndAttributes(work) &&
                    setTimes(work) && place(work);
  if (done) {
    work.report.stage = RestoreStage::kDone;
  } else if (work.named) {
    ::unlinkat(work.folder, job.temporaryName.c_str(), 0);
  }
  ::send(channel, &work.report, sizeof work.report, MSG_NOSIGNAL);
}

}  // namespace agent::store
