#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>

#include "lunet/Lunet.h"

namespace lunet {

/// The folder where the sockets of one bus lie. Private (0700) to its owner without a group; with one,
/// 3770: members may add their own sockets, and none may remove or replace another's.
struct SocketFolder {
  std::string path;            ///< absolute, no separator at its end
  std::optional<gid_t> group;  ///< whose members may join

  std::string socketPath(const Guid& guid) const;
  std::string lockPath(const Guid& guid) const;
  /// Where a socket is made, before it is moved to its name ready to be used.
  std::string newSocketPath(const Guid& guid) const;
  /// Where something goes that stands in the way of one of these three; another name each time.
  std::string asidePath(const Guid& guid) const;
};

inline constexpr const char* kSocketSuffix = ".sock";
inline constexpr const char* kLockSuffix = ".lock";
inline constexpr const char* kNewSuffix = ".new";
inline constexpr const char* kAsideSuffix = ".bad";
inline constexpr const char* kMarkSuffix = ".mark";  ///< not the bus's: a console's single-instance mark

/// What was found out about a folder.
struct FolderCheck {
  Error error = kOk;
  std::string why;  ///< one line; empty without an error
  uid_t owner = 0;
};

/// Looks only: kErrNoTarget when the folder is not there (nobody has opened an endpoint yet), kErrPath when
/// it is unsafe, wrong, or its sockets' paths would be too long.
FolderCheck checkFolder(const SocketFolder& folder);
/// Makes the folder when it is missing, and sets its group and mode when it is this process's to set: it
/// belongs to its user and holds nothing but files of a bus. Any other must have them already (kErrPath).
FolderCheck prepareFolder(const SocketFolder& folder);

/// The socket's address; nothing when the path is longer than the system's limit of 107 bytes.
std::optional<sockaddr_un> socketAddress(const std::string& path);

}  // namespace lunet
