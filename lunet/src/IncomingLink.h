#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string_view>

#include "FrameReader.h"
#include "FrameWriter.h"
#include "Log.h"
#include "MemberLinks.h"
#include "Peer.h"
#include "SocketSet.h"
#include "platform/Descriptor.h"

namespace lunet {

class IncomingLink;

/// Takes what incoming connections bring; called on the delivery thread only.
class Recipient {
 public:
  virtual void deliver(IncomingLink& link, const FrameHeader& header, std::string_view body) = 0;
  /// The last word about that link.
  virtual void ended(IncomingLink& link) = 0;

 protected:
  ~Recipient() = default;
};

/// Who has been let in, as the listener knows him: the claimed address, checked, and the kernel's word.
struct Guest {
  platform::Descriptor fd;
  Guid guid{};
  PeerIdentity identity;
  std::unique_ptr<MemberLinks::Place> place;  ///< null when he is trusted
};

/// A connection from another endpoint to this one: messages and requests come in, answers go out. The
/// delivery thread reads it, and only when the receiver is done with what came before: what a receiver does
/// not take stays with its sender. Answers may be written on any thread.
class IncomingLink final : public Watched, public std::enable_shared_from_this<IncomingLink> {
 public:
  IncomingLink(Guest guest, DeliveryLoop& delivery, Watcher& watcher, Log& log, Recipient& recipient);
  ~IncomingLink();
  void start();  ///< any thread, once
  void close();  ///< on the delivery thread, or when it has ended

  const Guid& guid() const { return guid_; }
  const PeerIdentity& identity() const { return identity_; }

  /// Any thread. kErrPeerLost when the caller is gone.
  Error answer(const FrameHeader& header, const void* data);
  void waitUntilDrained(std::chrono::steady_clock::time_point deadline) {
    writer_.waitUntilDrained(deadline);
  }

  void onReady(std::uint32_t events) override;

 private:
  /// What the io thread calls when there is room for queued answers.
  class Room final : public Watched {
   public:
    explicit Room(IncomingLink& link) : link_(link) {}
    void onReady(std::uint32_t events) override { link_.onRoom(events); }

   private:
    IncomingLink& link_;
  };
  void onRoom(std::uint32_t events);
  void deliverFrames();
  void broken(const char* why);
  void watchForRoom(bool want);

  const Guid guid_;
  const PeerIdentity identity_;
  platform::Descriptor fd_;
  std::unique_ptr<MemberLinks::Place> place_;
  DeliveryLoop& delivery_;
  Watcher& watcher_;
  Log& log_;
  Recipient& recipient_;
  FrameReader reader_;
  std::uint64_t deliveryKey_ = 0;
  bool closed_ = false;
  Room room_{*this};
  std::mutex watchMutex_;  // taken last
  std::uint64_t watchKey_ = 0;
  FrameWriter writer_;
};

/// "<GUID> (pid 12, user 0)", for the log.
std::string describePeer(const Guid& guid, const PeerIdentity& identity);

}  // namespace lunet
