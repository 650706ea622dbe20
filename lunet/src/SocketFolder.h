#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>

#include "Failure.h"

namespace lunet {

/// The folder of the sockets of one bus. Without a group 0700. With a group 3770: members add sockets of
/// their own, and nobody removes or replaces another user's.
struct SocketFolder {
  std::string path;            ///< absolute, no separator at its end
  std::optional<gid_t> group;  ///< whose members may join

  std::string socketPath(const Guid& guid) const { return named(guid, kSocketSuffix); }
  std::string lockPath(const Guid& guid) const { return named(guid, kLockSuffix); }
  /// The name of a socket until it is ready to be used.
  std::string newSocketPath(const Guid& guid) const { return named(guid, kNewSuffix); }
  /// A fresh name for a foreign file that stands at one of these three.
  std::string asidePath(const Guid& guid) const;

  static constexpr const char* kSocketSuffix = ".sock";
  static constexpr const char* kLockSuffix = ".lock";
  static constexpr const char* kNewSuffix = ".new";
  static constexpr const char* kAsideSuffix = ".bad";
  static constexpr const char* kMarkSuffix = ".mark";  ///< a console's single-instance mark

 private:
  std::string named(const Guid& guid, const char* suffix) const;
};

/// The folder's owner, without a change of the folder. kErrNoTarget: the folder is missing, so no endpoint
/// was opened yet. kErrPath: the folder is unsafe or wrong, or its sockets' paths would be too long.
Result<uid_t> checkFolder(const SocketFolder& folder);
/// Makes a missing folder, sets its group and mode, and then checks as checkFolder does. Group and mode are
/// set only in a folder of this user that holds only files of a bus. Another folder must have this group and
/// mode already (kErrPath).
Result<uid_t> prepareFolder(const SocketFolder& folder);

/// The socket's address; nothing when the path is longer than the system's limit of 107 bytes.
std::optional<sockaddr_un> socketAddress(const std::string& path);

}  // namespace lunet
