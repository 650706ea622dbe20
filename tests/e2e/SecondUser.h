#pragma once

#include <grp.h>
#include <sys/types.h>

#include <string>

#include "support/Process.h"

namespace testsupport {

/// A user who is neither root nor the agent's user. The bus admits the user as a member of the group "games".
inline constexpr uid_t kSecondUser = 60321;
inline constexpr gid_t kSecondUsersOwnGroup = 60322;
inline constexpr gid_t kSecondUsersGroup = 60;

inline std::string secondUsersGroup() {
  const group* entry = getgrgid(kSecondUsersGroup);
  return entry == nullptr ? "" : entry->gr_name;
}

inline Process::Options secondUser() {
  Process::Options options;
  options.uid = kSecondUser;
  options.gid = kSecondUsersOwnGroup;
  options.groups = {kSecondUsersGroup};
  return options;
}

}  // namespace testsupport
