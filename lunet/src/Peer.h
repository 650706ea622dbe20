#pragma once

#include <optional>
#include <vector>

#include "lunet/Lunet.h"

namespace lunet {

/// The process at the other end of a connected socket, as the kernel reports the process. The supplementary
/// groups are those of the time when the process connected or began to listen.
struct Peer {
  PeerIdentity identity;
  std::vector<gid_t> groups;
};

/// Nothing when the socket is not connected, or without descriptors or memory for reading the start time.
std::optional<Peer> peerOf(int fd);

/// Field 22 of /proc/<pid>/stat; 0 when the process is gone or hidden, nothing without descriptors or memory.
std::optional<std::uint64_t> startTicksOf(pid_t pid);

/// The users that a process accepts on the bus. self: the process's own user.
struct AccessRule {
  uid_t self = 0;
  std::optional<gid_t> group;
  /// True for those who may join the bus: root, `self`, and the members of the group, if one is configured.
  bool admits(const Peer& peer) const;
  /// True for those whom plain sends may reach: root, `self`, and the owner of the socket folder.
  bool trusts(uid_t uid, uid_t folderOwner) const { return uid == 0 || uid == self || uid == folderOwner; }
};

}  // namespace lunet
