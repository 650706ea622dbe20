#include "IncomingLink.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "Core.h"

namespace lunet {

namespace {

constexpr std::uint32_t kReadEvents = EPOLLIN | EPOLLRDHUP | EPOLLET;

}  // namespace

std::string describePeer(const Guid& guid, const PeerIdentity& identity) {
  return formatGuid(guid) + " (pid " + std::to_string(identity.pid) + ", user " +
         std::to_string(identity.uid) + ")";
}

IncomingLink::IncomingLink(AcceptedPeer peer, DeliveryLoop& delivery, Watcher& watcher, Log& log, Core& core)
    : guid_(peer.guid),
      identity_(peer.identity),
      fd_(std::move(peer.fd)),
      slot_(std::move(peer.slot)),
      delivery_(delivery),
      watcher_(watcher),
      log_(log),
      core_(core),
      reader_(slot_ ? kMaxMemberMessageBytes : kMaxMessageBytes),
      writer_(fd_.get(), [this](bool want) { watchWritable(want); }) {}

IncomingLink::~IncomingLink() {
  watchWritable(false);
}

void IncomingLink::start() {
  delivery_.add(fd_.get(), kReadEvents, weak_from_this(), deliveryKey_);
}

void IncomingLink::close() {
  if (std::exchange(closed_, true)) {
    return;
  }
  writer_.close();  // from here on no other thread uses the descriptor
  watchWritable(false);
  delivery_.remove(fd_.get(), deliveryKey_);
  fd_.reset();
  slot_.reset();
  core_.ended(*this);
}

void IncomingLink::onWritable(std::uint32_t events) {
  const bool gone = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (gone || !writer_.flush()) {
    writer_.close();  // the peer reads no answers; the delivery thread sees the end when it reads
    watchWritable(false);
  }
}

/// Reads until the socket is empty, with a limit, so that other connections get their turn. A read that
/// leaves space in the buffer has emptied the socket; an end that was announced with the data follows them.
void IncomingLink::onReady(std::uint32_t events) {
  constexpr int kReadsAtOnce = 16;
  const bool ending = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  try {
    for (int i = 0; i < kReadsAtOnce && !closed_; ++i) {
      const std::span<char> space = reader_.space();
      const ssize_t count = recv(fd_.get(), space.data(), space.size(), MSG_DONTWAIT);
      if (count <= 0) {
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
          endWith(reader_.inFrame() ? "it ended in the middle of a frame" : nullptr);
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
      delivery_.change(fd_.get(), deliveryKey_, kReadEvents);  // rearmed: more data give a new event at once
    }
  } catch (const std::bad_alloc&) {
    endWith("no memory for a message");
  }
}

void IncomingLink::deliverFrames() {
  FrameReader::Next next = reader_.next();
  for (; next == FrameReader::Next::kFrame; next = reader_.next()) {
    const FrameKind kind = reader_.header().kind;
    if (kind != FrameKind::kRequest && kind != FrameKind::kOneway) {
      endWith("a frame that a caller does not send");
      return;
    }
    try {
      core_.deliver(*this, reader_.header(), reader_.body());
    } catch (...) {  // this message is lost, the later ones are not
      logCurrentException(log_, "a message is lost");
    }
  }
  if (next == FrameReader::Next::kBad) {
    endWith(reader_.defect());
  }
}

/// reason: null for an orderly end.
void IncomingLink::endWith(const char* reason) {
  try {
    if (reason != nullptr) {
      log_.writeOf(identity_.uid, BusLogLevel::kError,
                   "the connection from " + describePeer(guid_, identity_) + " is closed: " + reason);
    }
  } catch (...) {
    logCurrentException(log_, "a connection is closed");
  }
  close();
}

/// The writer wants the watch once, until it has no use for the watch any more.
void IncomingLink::watchWritable(bool want) {
  const std::lock_guard lock(watchMutex_);
  if (want) {
    watcher_.add(fd_.get(), EPOLLOUT, std::shared_ptr<Watched>(shared_from_this(), &writableWatch_),
                 watchKey_);
  } else if (watchKey_ != 0) {
    watcher_.remove(fd_.get(), std::exchange(watchKey_, 0));
  }
}

}  // namespace lunet
