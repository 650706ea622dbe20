#pragma once

#include <atomic>
#include <chrono>

#include "Peer.h"
#include "SocketFolder.h"
#include "platform/Descriptor.h"

namespace lunet {

/// One attempt to reach the endpoint at an address.
struct DialRequest {
  const SocketFolder* folder = nullptr;
  uid_t folderOwner = 0;
  AccessRule rule;
  Guid self{};  ///< sixteen zero bytes: a probe, which learns only whether the endpoint accepts
  Guid target{};
  const PeerIdentity* process = nullptr;  ///< the only process to accept, trusted or not; null: any trusted
  std::chrono::steady_clock::time_point deadline;
  bool handshake = true;                         ///< false: only check that a permitted process listens
  const std::atomic<bool>* cancelled = nullptr;  ///< may be null
};

/// A connection, behind its handshake if one was requested.
struct Dialled {
  platform::Descriptor fd;
  PeerIdentity identity;
  bool trusted = false;   ///< plain sends may reach the process (AccessRule)
  bool admitted = false;  ///< the process may join the bus, so SendToProcess may reach it
};

/// Any thread. Fails at once when no process listens; waits for the hello reply until the deadline.
Result<Dialled> dial(const DialRequest& request);

}  // namespace lunet
