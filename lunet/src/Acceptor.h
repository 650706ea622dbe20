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

/// Accepts connections and finishes or refuses their handshake: who the peer is, and whether the claimed
/// address is the peer's. Runs on the io thread, so that peers are accepted while a receiver is busy.
class Acceptor {
 public:
  /// admit: called for each peer behind a successful handshake.
  Acceptor(asio::io_context& io, const SocketFolder& folder, AccessRule rule, Log& log,
           std::function<void(AcceptedPeer)> admit);

  /// listener: stays the caller's.
  void start(int listener, const Guid& self, uid_t folderOwner);

 private:
  class PendingPeer;
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
  const std::function<void(AcceptedPeer)> admit_;
  Guid self_{};
  uid_t folderOwner_ = 0;
  MemberQuota members_;
  asio::posix::stream_descriptor listener_;
  asio::steady_timer pause_;
};

}  // namespace lunet
