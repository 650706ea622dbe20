#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <utility>

#include "platform/Descriptor.h"
#include "platform/Expected.h"

namespace agent {

/// Why a packet was not sent.
struct NotSent {
  bool peerGone = false;  ///< the other end is closed; packets from it may still be there to receive
  std::string reason;
};

/// One end of a packet socket between two processes of the agent. A packet arrives whole, in order, with at
/// most one descriptor.
class Channel {
 public:
  Channel() = default;
  explicit Channel(platform::Descriptor fd) : fd_(std::move(fd)) {}

  /// Two connected ends, both close-on-exec.
  static platform::Expected<std::pair<Channel, Channel>> pair();

  struct Packet {
    std::string bytes;
    platform::Descriptor fd;
  };
  enum class Received { kPacket, kNothing, kEnded };

  /// fd: the receiver gets a copy; -1 sends no descriptor.
  tl::expected<void, NotSent> send(std::string_view bytes, int fd = -1) const;
  /// wait: blocks until a packet or the end arrives. kEnded: the other end is gone, or sent a packet that is
  /// too long or has several descriptors.
  Received receive(Packet& packet, bool wait) const;

  /// Stops both directions; packets that have arrived can still be received.
  void shutDown() const;

  int fd() const { return fd_.get(); }
  platform::Descriptor takeFd() { return std::move(fd_); }
  explicit operator bool() const { return static_cast<bool>(fd_); }
  void close() { fd_.reset(); }

 private:
  platform::Descriptor fd_;
};

}  // namespace agent
