#include "Reception.h"

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

/// How long a caller may take for his first frame.
constexpr std::chrono::seconds kHelloTime{5};
/// After the system has refused a connection (no descriptors left).
constexpr std::chrono::milliseconds kPause{100};

void sendWelcome(int fd, const Guid& self, Error verdict) {
  struct {
    FrameHeader header;
    Guid listener;
  } welcome{};
  welcome.header.kind = FrameKind::kWelcome;
  welcome.header.channel = verdict;
  welcome.header.length = sizeof welcome.listener;
  welcome.listener = self;
  (void)send(fd, &welcome, sizeof welcome, MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

/// A caller from his connection to his welcome.
class Reception::Visitor : public std::enable_shared_from_this<Visitor> {
 public:
  Visitor(Reception& reception, platform::Descriptor fd, const PeerIdentity& identity,
          std::unique_ptr<MemberLinks::Place> place)
      : reception_(reception),
        identity_(identity),
        place_(std::move(place)),
        stream_(reception.io_),
        timer_(reception.io_, kHelloTime) {
    stream_.assign(fd.get());  // takes it only when it succeeds
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
    const char* why = whyBad(header);
    if (why == nullptr && (header.kind != FrameKind::kHello || header.length != sizeof body)) {
      why = "no greeting";
    }
    if (why != nullptr) {
      log(why);
      return;
    }
    if (body.target != reception_.self_) {
      refuse("it was meant for another address");
    } else if (header.channel == kProbe) {
      sendWelcome(stream_.native_handle(), reception_.self_, kOk);
    } else if (!reception_.holds(body.caller, identity_.uid)) {
      refuse("the address it claims is not its user's");
    } else if (place_ && !place_->takeAddress(body.caller)) {
      refuse("its address has as many connections as a member's may have", kErrQueueFull);
    } else {
      sendWelcome(stream_.native_handle(), reception_.self_, kOk);
      reception_.admit_({platform::Descriptor(stream_.release()), body.caller, identity_, std::move(place_)});
    }
  }

  void refuse(const char* why, Error verdict = kErrDenied) {
    log(why);
    sendWelcome(stream_.native_handle(), reception_.self_, verdict);
  }

  void log(const char* why) {
    reception_.log_.write(BusLogLevel::kError, "a connection from pid " + std::to_string(identity_.pid) +
                                                   ", user " + std::to_string(identity_.uid) +
                                                   " is closed: " + why);
  }

  Reception& reception_;
  const PeerIdentity identity_;
  std::unique_ptr<MemberLinks::Place> place_;
  asio::posix::stream_descriptor stream_;
  asio::steady_timer timer_;
  std::array<char, sizeof(FrameHeader) + sizeof(HelloBody)> hello_{};
};

Reception::Reception(asio::io_context& io, const SocketFolder& folder, AccessRule rule, Log& log,
                     std::function<void(Guest)> admit)
    : io_(io), folder_(folder), rule_(rule), log_(log), admit_(std::move(admit)), listener_(io), pause_(io) {}

void Reception::start(int listener, const Guid& self, uid_t folderOwner) {
  self_ = self;
  folderOwner_ = folderOwner;
  const int copy = fcntl(listener, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) {
    throw std::system_error(errno, std::generic_category(), "F_DUPFD_CLOEXEC");
  }
  listener_.assign(copy);
  wait();
}

void Reception::wait() {
  listener_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
    if (!error) {
      acceptAll();
    }
  });
}

/// What one caller needs and the system does not have (memory, a descriptor) costs him, and nobody who comes
/// later.
void Reception::acceptAll() {
  try {
    while (acceptOne()) {
    }
  } catch (const std::exception& error) {
    pause();
    log_.write(BusLogLevel::kError, std::string("a connection cannot be received: ") + error.what());
  }
}

/// False when there are no more for now; then what calls acceptAll again is under way.
bool Reception::acceptOne() {
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
  const int reason = errno;
  pause();
  log_.write(BusLogLevel::kError,
             std::string("a connection cannot be accepted: ") + platform::errnoText(reason));
  return false;
}

void Reception::pause() {
  pause_.expires_after(kPause);
  pause_.async_wait([this](const asio::error_code& error) {
    if (!error) {
      acceptAll();
    }
  });
}

void Reception::receive(platform::Descriptor fd) {
  const std::optional<Peer> peer = peerOf(fd.get());
  if (!peer) {
    log_.write(BusLogLevel::kError, "a connection is refused: the system does not say who it is from");
    sendWelcome(fd.get(), self_, kErrSystem);
    return;
  }
  const std::string who =
      "pid " + std::to_string(peer->identity.pid) + ", user " + std::to_string(peer->identity.uid);
  if (!rule_.admits(*peer)) {
    log_.write(BusLogLevel::kError,
               "a connection from " + who + " is refused: not root, nor this user, nor in the group");
    sendWelcome(fd.get(), self_, kErrDenied);
    return;
  }
  std::unique_ptr<MemberLinks::Place> place;
  if (!rule_.trusts(peer->identity.uid, folderOwner_)) {
    place = members_.enter(peer->identity.uid);
    if (!place) {
      log_.write(BusLogLevel::kError,
                 "a connection from " + who + " is refused: the user has as many as a member may have");
      sendWelcome(fd.get(), self_, kErrQueueFull);
      return;
    }
  }
  std::make_shared<Visitor>(*this, std::move(fd), peer->identity, std::move(place))->start();
}

/// Nobody but its user (and those above him) can have put a socket into the folder, so its owner says whose
/// the address is.
bool Reception::holds(const Guid& guid, uid_t uid) const {
  struct stat st {};
  return lstat(folder_.socketPath(guid).c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_uid == uid;
}

}  // namespace lunet
