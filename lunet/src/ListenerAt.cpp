#include "lunet/ListenerAt.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Peer.h"
#include "SocketFolder.h"
#include "platform/Descriptor.h"

namespace lunet {

std::optional<Listener> listenerAt(const std::string& socketDirectory, const Guid& address) {
  const SocketFolder folder{socketDirectory, std::nullopt};
  const std::optional<sockaddr_un> path = socketAddress(folder.socketPath(address));
  struct stat st {};
  const platform::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ucred listener{};
  socklen_t length = sizeof listener;
  if (!path || !fd || stat(folder.path.c_str(), &st) != 0 ||
      connect(fd.get(), reinterpret_cast<const sockaddr*>(&*path), sizeof *path) != 0 ||
      getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &listener, &length) != 0 || listener.pid <= 0) {
    return std::nullopt;  // pid 0: the process is of another pid namespace
  }
  const AccessRule rule{geteuid(), std::nullopt};
  return Listener{listener.pid, listener.uid, rule.trusts(listener.uid, st.st_uid)};
}

}  // namespace lunet
