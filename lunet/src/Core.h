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

#include "Acceptor.h"
#include "Address.h"
#include "OutgoingLink.h"
#include "Receivers.h"

namespace lunet {

/// The parts that all endpoints of a client share. Outlives the endpoints.
struct Bus {
  SocketFolder folder;
  AccessRule rule;
  Log log;
};

/// An endpoint while it is open. The io thread accepts, flushes and notices hang-ups. The delivery thread
/// reads incoming connections and runs the receivers itself, so a slow receiver delays only its senders.
class Core {
 public:
  Core(Bus& bus, Receivers& receivers);
  ~Core();

  Error open(const Guid& self);
  /// Ends sends and calls with kErrNotOpen. Callbacks under way may still reply. Returns when both threads
  /// have ended.
  void close();

  Error send(const Guid& target, const PeerIdentity* process, std::uint32_t channel, const void* data,
             std::uint32_t length);
  OutgoingLink::Answer call(const Guid& target, std::uint32_t channel, const void* data, std::uint32_t length,
                            std::uint32_t timeoutMs);
  Error reply(std::uint64_t messageId, const void* data, std::uint32_t length, void* replyContext);
  /// Called by a link on the delivery thread; `ended` is the last call.
  void deliver(IncomingLink& link, const FrameHeader& header, std::string_view body);
  void ended(IncomingLink& link);
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
  using LinkOrError = tl::expected<std::shared_ptr<OutgoingLink>, Error>;
  struct PendingReply {
    std::shared_ptr<IncomingLink> link;  // until ended()
    std::uint64_t callId = 0;
  };

  void admit(AcceptedPeer peer);
  Error runReceiver(IncomingLink& link, const FrameHeader& header, std::string_view body);
  void* expectReply(IncomingLink& link, std::uint64_t messageId, std::uint64_t callId);
  std::optional<PendingReply> takePending(std::uint64_t messageId);

  std::shared_ptr<Target> targetAt(const Guid& guid);
  template <class Dial>
  static LinkOrError dialAlone(Target& target, std::unique_lock<std::mutex>& lock, Dial dial);
  LinkOrError linkTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline);
  LinkOrError dialTo(const Guid& guid, const PeerIdentity* process, Clock::time_point deadline);
  void forgetDeadLinks();
  template <class Loop>
  void runLoop(Loop& loop, const char* name);
  std::vector<std::shared_ptr<OutgoingLink>> outgoingLinks();
  std::set<std::shared_ptr<IncomingLink>> incomingLinks();

  Bus& bus_;
  Receivers& receivers_;
  Guid self_{};
  uid_t folderOwner_ = 0;
  Address address_;
  asio::io_context io_{1};
  DeliveryLoop delivery_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> ioWork_;
  Watcher watcher_{io_};
  Acceptor acceptor_;
  std::thread ioThread_;
  std::thread deliveryThread_;
  std::atomic<std::thread::id> deliveryId_{};
  std::atomic<bool> closing_{false};

  std::mutex targetsMutex_;
  std::map<Guid, std::shared_ptr<Target>> targets_;

  std::mutex incomingMutex_;
  std::set<std::shared_ptr<IncomingLink>> incoming_;

  std::mutex repliesMutex_;
  std::unordered_map<std::uint64_t, PendingReply> replies_;
  std::uint64_t nextMessageId_ = 1;           // delivery thread only
  const IncomingLink* delivering_ = nullptr;  // delivery thread only
};

}  // namespace lunet
