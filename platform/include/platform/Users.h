#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

/// What the user database says. Any thread.
namespace platform {

/// Nothing for a group that the database does not know.
std::optional<gid_t> groupId(const std::string& name);

/// The login name; the number as text for a user that the database does not know.
std::string userName(uid_t uid);

/// The home folder of the database, never $HOME; empty for a user that the database does not know, and where
/// the home is no absolute path.
std::string homeFolder(uid_t uid);

}  // namespace platform
