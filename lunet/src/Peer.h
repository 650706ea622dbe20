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

/// Nothing when the kernel does not say (the socket is not connected).
std::optional<Peer> peerOf(int fd);

/// Field 22 of /proc/<pid>/stat, 0 when it cannot be read.
std::uint64_t startTicksOf(pid_t pid);

/// Who may join the bus: root, this process's own user, and the members of one group, if one is configured.
struct AccessRule {
  uid_t self = 0;
  std::optional<gid_t> group;
  bool admits(const Peer& peer) const;
};

}  // namespace lunet
