#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>

#include "IncomingLink.h"
#include "Log.h"
#include "Peer.h"
#include "SocketFolder.h"

namespace lunet {

/// Accepts connections, checks who calls and whether the address he claims is his, and welcomes or refuses
/// him. On the io thread, so that callers are answered also while a receiver is busy.
class Reception {
 public:
  /// admit: called for each welcomed caller.
  Reception(asio::io_context& io, const SocketFolder& folder, AccessRule rule, Log& log,
            std::function<void(Guest)> admit);

  /// listener stays the caller's. folderOwner: of the socket folder, who is trusted.
  void start(int listener, const Guid& self, uid_t folderOwner);

 private:
  class Visitor;
  void wait();
  void acceptAll();
  bool acceptOne();
  void pause();
  void receive(platform::Descriptor fd);
  bool holds(const Guid& guid, uid_t uid) const;

  asio::io_context& io_;
  const SocketFolder& folder_;
  const AccessRule rule_;
  Log& log_;
  const std::function<void(Guest)> admit_;
  Guid self_{};
  uid_t folderOwner_ = 0;
  MemberLinks members_;
  asio::posix::stream_descriptor listener_;
  asio::steady_timer pause_;
};

}  // namespace lunet
