#include "task/CallerRights.h"

#include <grp.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/Posix.h"

namespace agent {

namespace {

/// Of this thread only: the library's function changes every thread of the process.
int setThreadGroups(const std::vector<gid_t>& groups) {
  return static_cast<int>(syscall(SYS_setgroups, groups.size(), groups.data()));
}

uid_t currentFsUid() {
  return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));
}

}  // namespace

bool isAdministrator(const CallerId& caller) {
  return caller.uid == 0 || caller.uid == geteuid();
}

platform::Expected<std::unique_ptr<CallerRights>> CallerRights::take(const CallerId& caller) {
  std::unique_ptr<CallerRights> rights(new CallerRights());
  if (!isAdministrator(caller)) {
    if (const auto taken = rights->takeAll(caller); !taken) {
      return platform::failure(taken.error());
    }
  }
  return rights;
}

platform::Expected<void> CallerRights::takeAll(const CallerId& caller) {
  const std::string user = "user " + std::to_string(caller.uid);
  if (geteuid() != 0) {
    return platform::failure("the agent does not run as root and cannot act with the rights of " + user);
  }
  ownGid_ = getegid();
  const int count = getgroups(0, nullptr);
  ownGroups_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  if (count < 0 || getgroups(count, ownGroups_.data()) != count || setThreadGroups(caller.groups) != 0) {
    return platform::failure("cannot take the groups of " + user + ": " + platform::errnoText(errno));
  }
  uid_ = caller.uid;
  gid_ = caller.gid;
  reduced_ = true;  // from here on the destructor restores
  if (!takeUser()) {
    return platform::failure("cannot take the rights of " + user);
  }
  return {};
}

/// All but the groups, which give nothing to a thread with the agent's user.
bool CallerRights::takeUser() const {
  setfsgid(gid_);
  setfsuid(uid_);  // also disables the capabilities that override file permissions
  return currentFsUid() == uid_ && static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == gid_;
}

CallerRights::~CallerRights() {
  if (!reduced_) {
    return;
  }
  setfsuid(geteuid());
  setfsgid(ownGid_);
  if (setThreadGroups(ownGroups_) != 0 || currentFsUid() != geteuid()) {
    std::abort();  // an agent's thread with other rights than the agent's must not go on
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
  if (rights_ != nullptr && !rights_->takeUser()) {
    std::abort();  // the thread would read files for the caller that the caller may not read
  }
}

}  // namespace agent
