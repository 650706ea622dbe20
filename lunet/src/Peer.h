#pragma once

#include <optional>
#include <vector>

#include "lunet/Lunet.h"

namespace lunet {

/// Who is at the other end of a connected socket, on the kernel's word: the process that connected, or that
/// listens, with the supplementary groups it had then.
struct Peer {
  PeerIdentity identity;
  std::vector<gid_t> groups;
};

/// Nothing when the kernel does not say (the socket is not connected), or when it cannot be found out now (no
/// descriptors, no memory): without the start time the process would not be known again.
std::optional<Peer> peerOf(int fd);

/// Field 22 of /proc/<pid>/stat; 0 when the process is gone or hidden, nothing when the system is short of
/// what it takes to read it.
std::optional<std::uint64_t> startTicksOf(pid_t pid);

struct AccessRule {
  uid_t self = 0;
  std::optional<gid_t> group;
  /// Who may join the bus: root, this process's own user, and the members of one group, if one is configured.
  bool admits(const Peer& peer) const;
  /// Whom plain sends may reach: of those, root, this process's own user, and the owner of the socket folder.
  bool trusts(uid_t uid, uid_t folderOwner) const { return uid == 0 || uid == self || uid == folderOwner; }
};

}  // namespace lunet
