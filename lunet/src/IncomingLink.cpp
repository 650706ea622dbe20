#include "IncomingLink.h"

#include <sys/epoll.h>

#include <asio/buffer.hpp>
#include <new>
#include <utility>

namespace lunet {

std::string describePeer(const Guid& guid, const PeerIdentity& identity) {
  return formatGuid(guid) + " (pid " + std::to_string(identity.pid) + ", user " +
         std::to_string(identity.uid) + ")";
}

IncomingLink::IncomingLink(asio::io_context& delivery, Guest guest, Watcher& watcher, Log& log,
                           Recipient& recipient)
    : guid_(guest.guid),
      identity_(guest.identity),
      socket_(delivery, asio::local::stream_protocol(), guest.fd.release()),
      fd_(socket_.native_handle()),
      watcher_(watcher),
      log_(log),
      recipient_(recipient),
      writer_(fd_, [this](bool want) { watchForRoom(want); }) {}

IncomingLink::~IncomingLink() {
  watchForRoom(false);
}

void IncomingLink::start() {
  read();
}

void IncomingLink::close() {
  if (std::exchange(closed_, true)) {
    return;
  }
  writer_.close();  // behind this no other thread touches the descriptor
  watchForRoom(false);
  asio::error_code ignored;
  socket_.close(ignored);
  recipient_.ended(*this);
}

Error IncomingLink::answer(const FrameHeader& header, const void* data) {
  switch (writer_.write(header, data)) {
    case FrameWriter::Result::kTaken:
      return kOk;
    case FrameWriter::Result::kFull:
      return kErrQueueFull;
    case FrameWriter::Result::kGone:
      break;
  }
  return kErrPeerLost;
}

void IncomingLink::onReady(std::uint32_t events) {
  const bool gone = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (gone || !writer_.flush()) {
    writer_.close();  // nobody reads the answers; the delivery thread sees the end when it reads
    watchForRoom(false);
  }
}

void IncomingLink::read() {
  const std::span<char> space = reader_.space();
  socket_.async_read_some(
      asio::buffer(space.data(), space.size()),
      [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
        if (self->closed_) {
          return;
        }
        if (error) {
          self->broken(self->reader_.inFrame() ? "it ended in the middle of a frame" : nullptr);
          return;
        }
        self->taken(count);
      });
}

void IncomingLink::taken(std::size_t count) {
  try {
    reader_.filled(count);
    FrameReader::Next next = reader_.next();
    for (; next == FrameReader::Next::kFrame && !closed_; next = reader_.next()) {
      const FrameKind kind = reader_.header().kind;
      if (kind != FrameKind::kRequest && kind != FrameKind::kOneway) {
        broken("a frame that a caller does not send");
        return;
      }
      recipient_.deliver(*this, reader_.header(), reader_.body());
    }
    if (next == FrameReader::Next::kBad) {
      broken(reader_.whyBadFrame());
    } else if (!closed_) {
      read();
    }
  } catch (const std::bad_alloc&) {
    broken("no memory for a message");
  }
}

/// why: null for an orderly end.
void IncomingLink::broken(const char* why) {
  if (why != nullptr) {
    log_.write(Log::kError, "the connection from " + describePeer(guid_, identity_) + " is closed: " + why);
  }
  close();
}

void IncomingLink::watchForRoom(bool want) {
  const std::lock_guard lock(watchMutex_);
  if (want && watchKey_ == 0) {
    watchKey_ = watcher_.add(fd_, EPOLLOUT, weak_from_this());
  } else if (!want && watchKey_ != 0) {
    watcher_.remove(fd_, std::exchange(watchKey_, 0));
  }
}

}  // namespace lunet
