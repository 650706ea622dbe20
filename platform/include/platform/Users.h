#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

/// The user database. Any thread.
namespace platform {

/// Nothing for an unknown group.
std::optional<gid_t> groupId(const std::string& name);

/// The login name; for an unknown user, the number as text.
std::string userName(uid_t uid);

/// The home folder in the database, never $HOME. Empty for an unknown user and for a relative path.
std::string homeFolder(uid_t uid);

}  // namespace platform
