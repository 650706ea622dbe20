#include "Dial.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "Frame.h"

namespace lunet {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

bool over(const DialRequest& request) {
  return Clock::now() >= request.deadline || (request.cancelled != nullptr && request.cancelled->load());
}

Error afterWaiting(const DialRequest& request) {
  return request.cancelled != nullptr && request.cancelled->load() ? kErrNotOpen : kErrTimeout;
}

/// Tries a listener with a full queue of connections again until the deadline.
Error connectTo(int fd, const sockaddr_un& address, const DialRequest& request) {
  for (;;) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return kOk;
    }
    switch (errno) {
      case EAGAIN:
      case EINTR:
        if (over(request)) {
          return afterWaiting(request);
        }
        std::this_thread::sleep_for(milliseconds(1));
        break;
      case ENOENT:
      case ECONNREFUSED:
      case ENOTDIR:
        return kErrNoTarget;
      case EACCES:
      case EPERM:
        return kErrDenied;
      default:
        return kErrSystem;
    }
  }
}

/// A failure shows in readHelloReply: a listener that refuses this process replies before it hangs up.
void sendHello(int fd, const DialRequest& request) {
  struct {
    FrameHeader header;
    HelloBody body;
  } const hello{{.kind = FrameKind::kHello,
                 .channel = request.self == Guid{} ? kProbe : 0,
                 .length = sizeof hello.body},
                {request.self, request.target}};
  (void)send(fd, &hello, sizeof hello, MSG_NOSIGNAL | MSG_DONTWAIT);
}

Error readHelloReply(int fd, const DialRequest& request) {
  struct {
    FrameHeader header;
    Guid listener;
  } reply{};
  std::size_t have = 0;
  while (have < sizeof reply) {
    const ssize_t count = recv(fd, reinterpret_cast<char*>(&reply) + have, sizeof reply - have, MSG_DONTWAIT);
    if (count > 0) {
      have += static_cast<std::size_t>(count);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      return kErrNoTarget;  // it stopped listening
    } else if (over(request)) {
      return afterWaiting(request);
    } else {
      const auto left = std::chrono::duration_cast<milliseconds>(request.deadline - Clock::now()).count() + 1;
      pollfd waiting{fd, POLLIN, 0};
      poll(&waiting, 1, static_cast<int>(std::clamp<long long>(left, 1, 50)));  // then looks at `cancelled`
    }
  }
  if (defectOf(reply.header) != nullptr || reply.header.kind != FrameKind::kHelloReply ||
      reply.header.length != sizeof reply.listener) {
    return kErrDenied;
  }
  if (reply.header.channel != kOk) {
    return static_cast<Error>(reply.header.channel);
  }
  return reply.listener == request.target ? kOk : kErrDenied;
}

/// Fills result, and checks that this process may talk to the listener.
Error judge(const DialRequest& request, const Peer& peer, Dialled& result) {
  result.identity = peer.identity;
  result.trusted = request.rule.trusts(peer.identity.uid, request.folderOwner);
  result.admitted = request.rule.admits(peer);
  if (request.process == nullptr) {
    return result.trusted ? kOk : kErrDenied;
  }
  if (!(*request.process == peer.identity)) {
    return kErrNotSame;
  }
  return result.admitted ? kOk : kErrDenied;
}

}  // namespace

Result<Dialled> dial(const DialRequest& request) {
  const std::optional<sockaddr_un> address = socketAddress(request.folder->socketPath(request.target));
  if (!address) {
    return failed(kErrPath, "the socket's path is longer than the system allows");
  }
  Dialled result;
  result.fd = platform::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!result.fd) {
    return failed(kErrSystem, "no socket");
  }
  if (const Error error = connectTo(result.fd.get(), *address, request); error != kOk) {
    return failed(error, error == kErrDenied ? "the system denies the connection" : "cannot connect");
  }
  const std::optional<Peer> peer = peerOf(result.fd.get());
  if (!peer) {
    return failed(kErrSystem, "the system does not name the listener");
  }
  if (const Error error = judge(request, *peer, result); error != kOk) {
    return failed(error, "the process that listens there is not one that may be talked to");
  }
  if (!request.handshake) {
    return result;
  }
  sendHello(result.fd.get(), request);
  if (const Error error = readHelloReply(result.fd.get(), request); error != kOk) {
    return failed(error, error == kErrTimeout ? "it does not answer" : "it does not welcome us");
  }
  return result;
}

}  // namespace lunet
