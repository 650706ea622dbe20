#include "worker/Confinement.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "platform/Posix.h"
#include "worker/CallFilter.h"
#include "worker/LandlockRules.h"

namespace agent {
namespace {

constexpr const char* kTempFolder = "/unpacked";
constexpr int kNiceness = 5;
constexpr rlim_t kMostFiles = 256;
constexpr unsigned kMostEntries = 200000;  // of the root: members of archives are files there

const struct {
  int flag;
  const char* name;
} kNamespaces[] = {
    {CLONE_NEWNET, "network namespace"},
    {CLONE_NEWIPC, "IPC namespace"},
    {CLONE_NEWUTS, "UTS namespace"},
};

void setLimit(int resource, rlim_t soft, rlim_t hard) {
  rlimit now{};
  getrlimit(static_cast<__rlimit_resource>(resource), &now);
  now.rlim_max = std::min(now.rlim_max, hard);
  now.rlim_cur = std::min(now.rlim_max, soft);
  setrlimit(static_cast<__rlimit_resource>(resource), &now);
}

// When memory runs out, the kernel ends these processes before the agent.
void preferForMemoryKiller() {
  const platform::Descriptor file(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (file) {
    [[maybe_unused]] const ssize_t written = write(file.get(), "500", 3);
  }
}

// A copy of the folder's mount that nothing can be changed through. Empty with errno set.
platform::Descriptor readOnlyMountOf(const std::string& folder) {
  platform::Descriptor mount(
      open_tree(AT_FDCWD, folder.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
  mount_attr attributes{};
  attributes.attr_set = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;
  if (mount &&
      mount_setattr(mount.get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes) != 0) {
    mount.reset();
  }
  return mount;
}

// Makes the folders of an absolute path below the working folder. The path without its first separator.
std::string makeBelowHere(const std::string& path) {
  std::string relative = path.substr(path.find_first_not_of('/'));
  for (std::size_t end = relative.find('/'); end != std::string::npos; end = relative.find('/', end + 1)) {
    mkdir(relative.substr(0, end).c_str(), 0755);
  }
  mkdir(relative.c_str(), 0755);
  return relative;
}

void dropCapabilities() {
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
    prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
  }
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  prctl(PR_SET_SECUREBITS,
        SECBIT_NOROOT | SECBIT_NOROOT_LOCKED | SECBIT_NO_SETUID_FIXUP_LOCKED | SECBIT_KEEP_CAPS_LOCKED, 0, 0,
        0);
}

bool clearCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> none{};
  if (syscall(SYS_capset, &header, none.data()) != 0) {
    return false;
  }
  std::array<__user_cap_data_struct, 2> now{};
  return syscall(SYS_capget, &header, now.data()) == 0 &&
         std::all_of(now.begin(), now.end(), [](const auto& part) {
           return part.effective == 0 && part.permitted == 0 && part.inheritable == 0;
         });
}

}  // namespace

std::string describe(const ConfinementState& state) {
  if (!state.known) {
    return "not known yet";
  }
  std::string text;
  for (const std::string& part : state.missing) {
    text += (text.empty() ? "without " : "; ") + part;
  }
  return text.empty() ? "whole" : text;
}

bool mayScan(const ConfinementState& state, Unconfined setting) {
  switch (setting) {
    case Unconfined::kAlways:
      return true;
    case Unconfined::kWithoutNamespaces:
      return !state.essentialMissing;
    case Unconfined::kNever:
      break;
  }
  return state.missing.empty();
}

ConfinementState Confinement::confine() {
  state_ = ConfinementState{true, {}, false};
  umask(022);
  preferForMemoryKiller();
  memory_ = platform::Descriptor(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
  setpriority(PRIO_PROCESS, 0, kNiceness);
  enterNamespaces();
  if (ownMounts_) {
    enterEmptyRoot();
  }
  if (tempFolder_.empty()) {
    useFallbackFolder();
  }
  limitTemplate();
  becomeUser();
  prctl(PR_SET_DUMPABLE, 0);
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    missing("no_new_privs", errno, true);
  }
  umask(0077);
  landlock_ = landlockIsThere();
  if (!landlock_) {
    missing("Landlock", errno);
  }
  const int error = filterCalls(CallsOf::kTemplate);
  filter_ = error == 0;
  if (!filter_) {
    missing("system call filter", error, true);
  }
  return state_;
}

void Confinement::missing(const std::string& part, int error, bool essential) {
  state_.missing.push_back(part + " (" + platform::errnoText(error) + ")");
  state_.essentialMissing = state_.essentialMissing || essential;
}

void Confinement::enterNamespaces() {
  if (getpid() != 1) {
    missing("pid namespace", EPERM);  // the process that started this one was refused it
  }
  ownMounts_ = unshare(CLONE_NEWNS) == 0;
  if (!ownMounts_) {
    missing("mount namespace", errno);
  }
  for (const auto& space : kNamespaces) {
    if (unshare(space.flag) != 0) {
      missing(space.name, errno);
    }
  }
}

// The root becomes a file system in memory with the readable folders and the folder for temporary files.
void Confinement::enterEmptyRoot() {
  const auto failed = [this](const char* step) { missing(std::string("empty root: ") + step, errno); };
  if (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
    return failed("own mounts");
  }
  std::vector<std::pair<std::string, platform::Descriptor>> kept;
  for (const std::string& folder : plan_.readable) {
    platform::Descriptor copy = readOnlyMountOf(folder);
    if (!copy && errno != ENOENT && errno != ENOTDIR) {
      return failed("copy of a mount");
    }
    if (copy) {
      kept.emplace_back(folder, std::move(copy));
    }
  }
  const std::string options =
      "mode=0755,size=" + std::to_string(plan_.tempBytes) + ",nr_inodes=" + std::to_string(kMostEntries);
  const char* point = plan_.fallbackFolder.c_str();
  if (mount("tmpfs", point, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, options.c_str()) != 0 ||
      chdir(point) != 0) {
    return failed("tmpfs");
  }
  for (const auto& [folder, copy] : kept) {
    const std::string place = makeBelowHere(folder);
    if (move_mount(copy.get(), "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0) {
      return failed("signatures");
    }
  }
  if (!makeForUser(kTempFolder + 1)) {
    return failed("folder for temporary files");
  }
  if (syscall(SYS_pivot_root, ".", ".") != 0) {
    return failed("pivot_root");
  }
  if (umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) {
    return failed("old root");
  }
  tempFolder_ = kTempFolder;
}

bool Confinement::makeForUser(const char* folder) const {
  return mkdir(folder, 0700) == 0 &&
         (plan_.user.uid == 0 || chown(folder, plan_.user.uid, plan_.user.gid) == 0);
}

// The working folder, because other users cannot reach the folder by its path. Named by the process as the
// agent sees it, so that the spawner finds and removes the folder.
void Confinement::useFallbackFolder() {
  std::array<char, 32> process{};
  const ssize_t length = readlink("/proc/self", process.data(), process.size() - 1);
  const std::string folder =
      plan_.fallbackFolder + "/" + (length > 0 ? process.data() : std::to_string(getpid())) + "-template";
  if (!makeForUser(folder.c_str()) || chdir(folder.c_str()) != 0) {
    missing("folder for temporary files", errno, true);
    return;
  }
  tempFolder_ = ".";
}

void Confinement::becomeUser() {
  dropCapabilities();
  const auto [uid, gid] = plan_.user;
  if (uid == 0) {
    missing("own user: the agent is not root", EPERM);
  } else if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 || setresuid(uid, uid, uid) != 0 ||
             geteuid() != uid) {
    missing("own user", errno, true);
  }
  if (!clearCapabilities()) {
    missing("empty capability sets", errno, true);
  }
}

void Confinement::limitTemplate() const {
  setLimit(RLIMIT_CORE, 0, 0);  // a core dump would hold the content of files
  setLimit(RLIMIT_NOFILE, kMostFiles, kMostFiles);
  setLimit(RLIMIT_FSIZE, plan_.tempBytes, plan_.tempBytes);
  setLimit(RLIMIT_MEMLOCK, 0, 0);
  setLimit(RLIMIT_MSGQUEUE, 0, 0);
  setLimit(RLIMIT_SIGPENDING, 64, 64);
}

void Confinement::measureMemory() {
#ifndef TAV_SANITIZED  // the memory of the sanitizers has no sensible limit
  std::array<char, 256> text{};
  unsigned long data = 0;
  if (memory_ && read(memory_.get(), text.data(), text.size() - 1) > 0 &&
      std::sscanf(text.data(), "%*u %*u %*u %*u %*u %lu", &data) == 1) {
    templateBytes_ = std::uint64_t{data} * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  }
#endif
  memory_.reset();
}

bool Confinement::confineWorker() const {
  setLimit(RLIMIT_NPROC, 0, 0);
  if (templateBytes_ != 0) {
    const rlim_t most = templateBytes_ + plan_.memoryBytes + plan_.largestFileBytes;
    setLimit(RLIMIT_DATA, most, most);
  }
  return (!landlock_ || restrictToFolder(".") == 0) && (!filter_ || filterCalls(CallsOf::kWorker) == 0);
}

void Confinement::limitMemory(std::uint64_t fileBytes) const {
  if (templateBytes_ != 0) {
    setLimit(RLIMIT_DATA, templateBytes_ + plan_.memoryBytes + fileBytes, RLIM_INFINITY);
  }
}

}  // namespace agent
