#include "Acceptor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <asio/read.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/Posix.h"

namespace lunet {

namespace {

/// The limit for a pending peer's hello.
constexpr std::chrono::seconds kHelloTime{5};
/// The wait after an accept that failed, say for want of descriptors.
constexpr std::chrono::milliseconds kPause{100};

void sendHelloReply(int fd, const Guid& self, Error verdict) {
  struct {
    FrameHeader header;
    Guid listener;
  } const reply{{.kind = FrameKind::kHelloReply, .channel = verdict, .length = sizeof self}, self};
  (void)send(fd, &reply, sizeof reply, MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

/// A connected peer whose handshake is not finished.
class Acceptor::PendingPeer : public std::enable_shared_from_this<PendingPeer> {
 public:
  PendingPeer(Acceptor& acceptor, platform::Descriptor fd, const PeerIdentity& identity,
              std::unique_ptr<MemberQuota::Slot> slot)
      : acceptor_(acceptor),
        identity_(identity),
        slot_(std::move(slot)),
        stream_(acceptor.io_),
        timer_(acceptor.io_, kHelloTime) {
    stream_.assign(fd.get());  // may throw; then the descriptor stays with fd
    (void)fd.release();
  }

  void start() {
    timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
      if (!error) {
        asio::error_code ignored;
        self->stream_.close(ignored);
      }
    });
    asio::async_read(stream_, asio::buffer(hello_),
                     [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                       self->timer_.cancel();
                       if (!error) {
                         self->judge();
                       }
                     });
  }

 private:
  void judge() {
    FrameHeader header;
    HelloBody body;
    std::memcpy(&header, hello_.data(), sizeof header);
    std::memcpy(&body, hello_.data() + sizeof header, sizeof body);
    if (const char* defect = defectOf(header); defect != nullptr) {
      log(defect);
    } else if (header.kind != FrameKind::kHello || header.length != sizeof body) {
      log("no greeting");
    } else if (body.target != acceptor_.self_) {
      refuse("it was meant for another address");
    } else if (header.channel == kProbe) {
      sendHelloReply(stream_.native_handle(), acceptor_.self_, kOk);
    } else if (!acceptor_.holds(body.caller, identity_.uid)) {
      refuse("the address it claims is not its user's");
    } else if (slot_ && !slot_->takeAddress(body.caller)) {
      refuse("its address has as many connections as a member's may have", kErrQueueFull);
    } else {
      sendHelloReply(stream_.native_handle(), acceptor_.self_, kOk);
      acceptor_.admit_({platform::Descriptor(stream_.release()), body.caller, identity_, std::move(slot_)});
    }
  }

  void refuse(const char* reason, Error verdict = kErrDenied) {
    log(reason);
    sendHelloReply(stream_.native_handle(), acceptor_.self_, verdict);
  }

  void log(const char* reason) {
    acceptor_.log_.writeOf(identity_.uid, BusLogLevel::kError,
                           "a connection from pid " + std::to_string(identity_.pid) + ", user " +
                               std::to_string(identity_.uid) + " is closed: " + reason);
  }

  Acceptor& acceptor_;
  const PeerIdentity identity_;
  std::unique_ptr<MemberQuota::Slot> slot_;
  asio::posix::stream_descriptor stream_;
  asio::steady_timer timer_;
  std::array<char, sizeof(FrameHeader) + sizeof(HelloBody)> hello_{};
};

Acceptor::Acceptor(asio::io_context& io, const SocketFolder& folder, AccessRule rule, Log& log,
                   std::function<void(AcceptedPeer)> admit)
    : io_(io), folder_(folder), rule_(rule), log_(log), admit_(std::move(admit)), listener_(io), pause_(io) {}

void Acceptor::start(int listener, const Guid& self, uid_t folderOwner) {
  self_ = self;
  folderOwner_ = folderOwner;
  const int copy = fcntl(listener, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) {
    throw std::system_error(errno, std::generic_category(), "F_DUPFD_CLOEXEC");
  }
  listener_.assign(copy);
  wait();
}

void Acceptor::wait() {
  listener_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
    if (!error) {
      acceptAll();
    }
  });
}

/// A peer for which the system lacks memory or descriptors is lost; later peers are accepted.
void Acceptor::acceptAll() {
  try {
    while (acceptOne()) {
    }
  } catch (const std::exception& error) {
    pause();
    log_.write(BusLogLevel::kError, std::string("a connection cannot be received: ") + error.what());
  }
}

/// False when no peer waits, or after a failure; acceptAll is called again later.
bool Acceptor::acceptOne() {
  platform::Descriptor fd(accept4(listener_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (fd) {
    receive(std::move(fd));
    return true;
  }
  if (errno == EINTR || errno == ECONNABORTED) {
    return true;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK) {
    wait();
    return false;
  }
  const int error = errno;
  pause();
  log_.write(BusLogLevel::kError,
             std::string("a connection cannot be accepted: ") + platform::errnoText(error));
  return false;
}

void Acceptor::pause() {
  pause_.expires_after(kPause);
  pause_.async_wait([this](const asio::error_code& error) {
    if (!error) {
      acceptAll();
    }
  });
}

void Acceptor::receive(platform::Descriptor fd) {
  const std::optional<Peer> peer = peerOf(fd.get());
  if (!peer) {
    log_.write(BusLogLevel::kError, "a connection is refused: the system does not say who it is from");
    sendHelloReply(fd.get(), self_, kErrSystem);
    return;
  }
  const std::string who =
      "pid " + std::to_string(peer->identity.pid) + ", user " + std::to_string(peer->identity.uid);
  if (!rule_.admits(*peer)) {
    log_.writeOf(peer->identity.uid, BusLogLevel::kError,
                 "a connection from " + who + " is refused: not root, nor this user, nor in the group");
    sendHelloReply(fd.get(), self_, kErrDenied);
    return;
  }
  std::unique_ptr<MemberQuota::Slot> slot;
  if (!rule_.trusts(peer->identity.uid, folderOwner_)) {
    slot = members_.take(peer->identity.uid);
    if (!slot) {
      log_.writeOf(peer->identity.uid, BusLogLevel::kError,
                   "a connection from " + who + " is refused: the user has as many as a member may have");
      sendHelloReply(fd.get(), self_, kErrQueueFull);
      return;
    }
  }
  std::make_shared<PendingPeer>(*this, std::move(fd), peer->identity, std::move(slot))->start();
}

/// True when the address belongs to that user. Only the socket's owner, root or the folder's owner can have
/// put the socket there.
bool Acceptor::holds(const Guid& guid, uid_t uid) const {
  struct stat st {};
  return lstat(folder_.socketPath(guid).c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_uid == uid;
}

}  // namespace lunet
