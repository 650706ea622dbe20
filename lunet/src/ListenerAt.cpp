#include <sys/socket.h>

#include "SocketFolder.h"
#include "lunet/ClientLibrary.h"
#include "platform/Descriptor.h"

namespace lunet {

std::optional<Listener> listenerAt(const std::string& socketDirectory, const Guid& address) {
  const std::optional<sockaddr_un> path =
      socketAddress(SocketFolder{socketDirectory, std::nullopt}.socketPath(address));
  const platform::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ucred listener{};
  socklen_t length = sizeof listener;
  if (!path || !fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&*path), sizeof *path) != 0 ||
      getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &listener, &length) != 0 || listener.pid <= 0) {
    return std::nullopt;  // a pid of 0: a process of another pid namespace
  }
  return Listener{listener.pid, listener.uid};
}

}  // namespace lunet
