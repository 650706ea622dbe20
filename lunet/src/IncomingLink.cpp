#include "IncomingLink.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

namespace lunet {

namespace {

constexpr std::uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP | EPOLLET;

}  // namespace

std::string describePeer(const Guid& guid, const PeerIdentity& identity) {
  return formatGuid(guid) + " (pid " + std::to_string(identity.pid) + ", user " +
         std::to_string(identity.uid) + ")";
}

IncomingLink::IncomingLink(Guest guest, DeliveryLoop& delivery, Watcher& watcher, Log& log,
                           Recipient& recipient)
    : guid_(guest.guid),
      identity_(guest.identity),
      fd_(std::move(guest.fd)),
      place_(std::move(guest.place)),
      delivery_(delivery),
      watcher_(watcher),
      log_(log),
      recipient_(recipient),
      reader_(place_ ? kMaxMemberMessageBytes : kMaxMessageBytes),
      writer_(fd_.get(), [this](bool want) { watchForRoom(want); }) {}

IncomingLink::~IncomingLink() {
  watchForRoom(false);
}

void IncomingLink::start() {
  delivery_.add(fd_.get(), kReadEvents, weak_from_this(), deliveryKey_);
}

void IncomingLink::close() {
  if (std::exchange(closed_, true)) {
    return;
  }
  writer_.close();  // behind this no other thread touches the descriptor
  watchForRoom(false);
  delivery_.remove(fd_.get(), deliveryKey_);
  fd_.reset();
  place_.reset();
  recipient_.ended(*this);
}

Error IncomingLink::answer(const FrameHeader& header, const void* data) {
  switch (writer_.write(header, data)) {
    case FrameWriter::Result::kTaken:
      return kOk;
    case FrameWriter::Result::kFull:
      return kErrQueueFull;
    case FrameWriter::Result::kBroken:
      return kErrSystem;
    case FrameWriter::Result::kGone:
      break;
  }
  return kErrPeerLost;
}

void IncomingLink::onRoom(std::uint32_t events) {
  const bool gone = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (gone || !writer_.flush()) {
    writer_.close();  // nobody reads the answers; the delivery thread sees the end when it reads
    watchForRoom(false);
  }
}

/// Reads until the socket is empty, but not for ever: other connections have their turn too. Edge-triggered,
/// which spares the system a look at a socket that is empty again. A read that fills less than it could has
/// emptied the socket; an end that was told together with data is behind them.
void IncomingLink::onReady(std::uint32_t events) {
  constexpr int kReadsAtOnce = 16;
  const bool ending = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  try {
    for (int i = 0; i < kReadsAtOnce && !closed_; ++i) {
      const std::span<char> space = reader_.space();
      const ssize_t count = recv(fd_.get(), space.data(), space.size(), MSG_DONTWAIT);
      if (count <= 0) {
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
          broken(reader_.inFrame() ? "it ended in the middle of a frame" : nullptr);
        }
        return;
      }
      reader_.filled(static_cast<std::size_t>(count));
      deliverFrames();
      if (static_cast<std::size_t>(count) < space.size() && !ending) {
        return;
      }
    }
    if (!closed_) {
      delivery_.change(fd_.get(), deliveryKey_, kReadEvents);  // told again at once if there is more
    }
  } catch (const std::bad_alloc&) {
    broken("no memory for a message");
  }
}

void IncomingLink::deliverFrames() {
  FrameReader::Next next = reader_.next();
  for (; next == FrameReader::Next::kFrame; next = reader_.next()) {
    const FrameKind kind = reader_.header().kind;
    if (kind != FrameKind::kRequest && kind != FrameKind::kOneway) {
      broken("a frame that a caller does not send");
      return;
    }
    recipient_.deliver(*this, reader_.header(), reader_.body());
  }
  if (next == FrameReader::Next::kBad) {
    broken(reader_.whyBadFrame());
  }
}

/// why: null for an orderly end.
void IncomingLink::broken(const char* why) {
  if (why != nullptr) {
    log_.write(BusLogLevel::kError,
               "the connection from " + describePeer(guid_, identity_) + " is closed: " + why);
  }
  close();
}

void IncomingLink::watchForRoom(bool want) {
  const std::lock_guard lock(watchMutex_);
  if (want && watchKey_ == 0) {
    watcher_.add(fd_.get(), EPOLLOUT, std::shared_ptr<Watched>(shared_from_this(), &room_), watchKey_);
  } else if (!want && watchKey_ != 0) {
    watcher_.remove(fd_.get(), std::exchange(watchKey_, 0));
  }
}

}  // namespace lunet
