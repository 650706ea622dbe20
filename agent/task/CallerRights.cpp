#include "task/CallerRights.h"

#include <grp.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace agent {

namespace {

/// Of this thread only; the library's own function would change every thread of the process.
int setThreadGroups(const std::vector<gid_t>& groups) {
  return static_cast<int>(syscall(SYS_setgroups, groups.size(), groups.data()));
}

uid_t currentFsUid() {
  return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));
}

}  // namespace

CallerRights::CallerRights(const CallerId& caller) {
  if (caller.uid == geteuid() || caller.uid == 0) {
    return;
  }
  if (geteuid() != 0) {
    error_ =
        "the agent does not run as root and cannot act with the rights of user " + std::to_string(caller.uid);
    return;
  }
  ownGid_ = getegid();
  const int count = getgroups(0, nullptr);
  ownGroups_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  if (count < 0 || getgroups(count, ownGroups_.data()) != count || setThreadGroups(caller.groups) != 0) {
    error_ = "cannot take the groups of user " + std::to_string(caller.uid) + ": " +
             std::error_code(errno, std::generic_category()).message();
    return;
  }
  uid_ = caller.uid;
  gid_ = caller.gid;
  reduced_ = true;
  if (!take()) {
    error_ = "cannot take the rights of user " + std::to_string(caller.uid);
    restore();
  }
}

/// Groups apart, which change nothing for a thread that has the agent's user.
bool CallerRights::take() const {
  setfsgid(gid_);
  setfsuid(uid_);  // also takes the capabilities that reach past file permissions out of force
  return currentFsUid() == uid_ && static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == gid_;
}

CallerRights::~CallerRights() {
  if (reduced_) {
    restore();
  }
}

void CallerRights::restore() {
  reduced_ = false;
  setfsuid(geteuid());
  setfsgid(ownGid_);
  if (setThreadGroups(ownGroups_) != 0 || currentFsUid() != geteuid()) {
    std::abort();  // a thread of the agent with rights that are not its own must not go on
  }
}

CallerRights::Suspended::Suspended(const CallerRights* rights)
    : rights_(rights != nullptr && rights->reduced() ? rights : nullptr) {
  if (rights_ != nullptr) {
    setfsuid(geteuid());
    setfsgid(rights_->ownGid_);
  }
}

CallerRights::Suspended::~Suspended() {
  if (rights_ != nullptr && !rights_->take()) {
    std::abort();  // to go on would be to read for a caller what he may not read
  }
}

}  // namespace agent
