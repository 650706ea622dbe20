#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Descriptor.h"

namespace agent {

/// One end of a packet socket between two of our processes. Packets arrive whole, in order, each with at most
/// one descriptor.
class Channel {
 public:
  Channel() = default;
  explicit Channel(platform::Descriptor fd) : fd_(std::move(fd)) {}

  /// Both ends close-on-exec. Empty channels when the system refuses (errno tells).
  static std::pair<Channel, Channel> pair();

  struct Packet {
    std::string bytes;
    platform::Descriptor fd;
  };
  enum class Received { kPacket, kNothing, kEnded };

  /// fd: handed over as a copy; -1 for none. False when the other end is gone or the packet cannot be sent.
  bool send(std::string_view bytes, int fd = -1) const;
  /// wait: blocks until something is there. kEnded: the other end is gone, or broke the rules.
  Received receive(Packet& packet, bool wait) const;

  /// Nothing more passes either way; what has arrived can still be received.
  void shutDown() const;

  int fd() const { return fd_.get(); }
  platform::Descriptor takeFd() { return std::move(fd_); }
  explicit operator bool() const { return static_cast<bool>(fd_); }
  void close() { fd_.reset(); }

 private:
  platform::Descriptor fd_;
};

}  // namespace agent
