#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Address.h"
#include "OutgoingLink.h"
#include "Receivers.h"
#include "Reception.h"

namespace lunet {

/// What all endpoints of a client share; lives longer than they.
struct Bus {
  SocketFolder folder;
  AccessRule rule;
  Log log;
};

/// An endpoint while it is open. Two threads: the io thread accepts, flushes and notices hang-ups; the
/// delivery thread reads incoming connections and runs the receivers, so that a message costs no change of
/// threads and a slow receiver holds up nothing but its senders.
class Core final : private Recipient {
 public:
  Core(Bus& bus, Receivers& receivers);
  ~Core();

  Error open(const Guid& self);
  /// Ends sends and calls with kErrNotOpen; callbacks under way may still reply. Returns when the threads
  /// have ended.
  void close();

  Error send(const Guid& target, const PeerIdentity* process, std::uint32_t channel, const void* data,
             std::uint32_t length);
  OutgoingLink::Answer call(const Guid& target, std::uint32_t channel, const void* data, std::uint32_t length,
                            std::uint32_t timeoutMs);
  Error reply(std::uint64_t messageId, const void* data, std::uint32_t length, void* replyContext);
  /// The sender of the message that the calling thread is delivering; null outside a callback.
  const IncomingLink* currentPeer() const;
  bool trusts(uid_t uid) const { return bus_.rule.trusts(uid, folderOwner_); }
  bool onDeliveryThread() const { return std::this_thread::get_id() == deliveryId_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Target {
    std::mutex mutex;
    std::condition_variable dialled;
    bool dialling = false;
    std::shared_ptr<OutgoingLink> link;
  };
  struct PendingReply {
    std::weak_ptr<IncomingLink> link;
    std::uint64_t callId = 0;
  };

  void deliver(IncomingLink& link, const FrameHeader& header, std::string_view body) override;
  void ended(IncomingLink& link) override;
  void welcome(Guest guest);
  void* expectReply(IncomingLink& link, std::uint64_t messageId, std::uint64_t callId);
  std::optional<PendingReply> takePending(void* replyContext);

  std::shared_ptr<Target> targetAt(const Guid& guid);
  template <class Dial>
  static Error dialAlone(Target& target, std::unique_lock<std::mutex>& lock, Dial dial);
  Error linkTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline,
               std::shared_ptr<OutgoingLink>& link);
  Error dialTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline,
               std::shared_ptr<OutgoingLink>& link);
  void forgetDeadLinks();
  template <class Loop>
  void runLoop(Loop& loop, const char* name);
  std::vector<std::shared_ptr<OutgoingLink>> links();
  std::set<std::shared_ptr<IncomingLink>> guests();

  Bus& bus_;
  Receivers& receivers_;
  Guid self_{};
  uid_t folderOwner_ = 0;
  Address address_;
  asio::io_context io_{1};
  DeliveryLoop delivery_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> ioWork_;
  Watcher watcher_{io_};
  Reception reception_;
  std::thread ioThread_;
  std::thread deliveryThread_;
  std::atomic<std::thread::id> deliveryId_{};
  std::atomic<bool> closing_{false};

  std::mutex targetsMutex_;
  std::map<Guid, std::shared_ptr<Target>> targets_;

  std::mutex guestsMutex_;
  std::set<std::shared_ptr<IncomingLink>> guests_;

  std::mutex repliesMutex_;
  std::unordered_map<std::uint64_t, PendingReply> replies_;
  std::uint64_t nextMessageId_ = 1;           // delivery thread only
  const IncomingLink* delivering_ = nullptr;  // delivery thread only
};

}  // namespace lunet
