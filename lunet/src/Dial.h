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
  Guid self{};  ///< sixteen zero bytes: a probe, which only learns whether the endpoint accepts
  Guid target{};
  const PeerIdentity* process = nullptr;  ///< only this one will do, whoever it is; null: the plain rule
  std::chrono::steady_clock::time_point deadline;
  /// False: only a look whether one that may be talked to listens there.
  bool greet = true;
  const std::atomic<bool>* cancelled = nullptr;  ///< may be null
};

/// How it went. Only with kOk is there a connection, welcomed by the listener if it was greeted.
struct Dialled {
  Error error = kOk;
  const char* why = "";
  platform::Descriptor fd;
  PeerIdentity identity;
  bool trusted = false;   ///< whom plain sends may reach (AccessRule)
  bool admitted = false;  ///< may join the bus: whom SendToProcess may reach
};

/// Any thread. Fails at once when nobody listens; waits for the welcome of one who does until the deadline.
Dialled dial(const DialRequest& request);

}  // namespace lunet
