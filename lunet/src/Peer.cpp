#include "Peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "platform/ProcessStat.h"

namespace lunet {

namespace {

/// False when the kernel gives no groups.
bool readGroups(int fd, std::vector<gid_t>& groups) {
  groups.resize(64);
  for (;;) {
    socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
    if (result != 0 && errno == ERANGE && bytes / sizeof(gid_t) > groups.size()) {
      groups.resize(bytes / sizeof(gid_t));
      continue;
    }
    groups.resize(result == 0 ? bytes / sizeof(gid_t) : 0);
    return result == 0;
  }
}

}  // namespace

std::optional<Peer> peerOf(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  Peer peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || !readGroups(fd, peer.groups)) {
    return std::nullopt;
  }
  const std::optional<std::uint64_t> startTicks = startTicksOf(credentials.pid);
  if (!startTicks) {
    return std::nullopt;
  }
  peer.identity = {credentials.pid, credentials.uid, credentials.gid, *startTicks};
  return peer;
}

std::optional<std::uint64_t> startTicksOf(pid_t pid) {
  const auto stat = platform::processStat(pid);
  if (!stat && stat.error() == platform::NoProcessStat::kShortage) {
    return std::nullopt;
  }
  return stat ? stat->startTicks : 0;
}

bool AccessRule::admits(const Peer& peer) const {
  if (peer.identity.uid == 0 || peer.identity.uid == self) {
    return true;
  }
  return group && (peer.identity.gid == *group ||
                   std::find(peer.groups.begin(), peer.groups.end(), *group) != peer.groups.end());
}

}  // namespace lunet
