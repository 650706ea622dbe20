#pragma once

#include <chrono>
#include <memory>
#include <mutex>

#include "FrameReader.h"
#include "FrameWriter.h"
#include "Log.h"
#include "MemberQuota.h"
#include "SocketSet.h"
#include "platform/Descriptor.h"

namespace lunet {

class Core;

/// A peer behind a successful handshake.
struct AcceptedPeer {
  platform::Descriptor fd;
  Guid guid{};  ///< claimed by the peer, checked
  PeerIdentity identity;
  std::unique_ptr<MemberQuota::Slot> slot;  ///< null for a trusted peer
};

/// A connection from another endpoint to this one: messages and requests come in, answers go out. The
/// delivery thread reads a message when the receiver is done with the one before, so unread messages stay
/// with their sender. Answers may be written on any thread.
class IncomingLink final : public Watched, public std::enable_shared_from_this<IncomingLink> {
 public:
  IncomingLink(AcceptedPeer peer, DeliveryLoop& delivery, Watcher& watcher, Log& log, Core& core);
  ~IncomingLink();
  void start();  ///< any thread, once
  void close();  ///< on the delivery thread, or after its end

  const Guid& guid() const { return guid_; }
  const PeerIdentity& identity() const { return identity_; }

  /// FrameWriter::write; any thread.
  Error answer(const FrameHeader& header, const void* data) { return writer_.write(header, data); }
  void waitUntilDrained(std::chrono::steady_clock::time_point deadline) {
    writer_.waitUntilDrained(deadline);
  }

  void onReady(std::uint32_t events) override;

 private:
  /// Runs on the io thread when the socket takes queued answers again.
  class WritableWatch final : public Watched {
   public:
    explicit WritableWatch(IncomingLink& link) : link_(link) {}
    void onReady(std::uint32_t events) override { link_.onWritable(events); }

   private:
    IncomingLink& link_;
  };
  void onWritable(std::uint32_t events);
  void deliverFrames();
  void endWith(const char* reason);
  void watchWritable(bool want);

  const Guid guid_;
  const PeerIdentity identity_;
  platform::Descriptor fd_;
  std::unique_ptr<MemberQuota::Slot> slot_;
  DeliveryLoop& delivery_;
  Watcher& watcher_;
  Log& log_;
  Core& core_;
  FrameReader reader_;
  std::uint64_t deliveryKey_ = 0;
  bool closed_ = false;
  WritableWatch writableWatch_{*this};
  std::mutex watchMutex_;  // taken last
  std::uint64_t watchKey_ = 0;
  FrameWriter writer_;
};

/// "<GUID> (pid 12, user 0)", for the log.
std::string describePeer(const Guid& guid, const PeerIdentity& identity);

}  // namespace lunet
