#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace agent {

/// The queue keeps only the newest progress and the newest overview. The queue keeps all other notifications,
/// in order.
enum class NotificationKind { kProgress, kOverview, kKept };

/// Sends one notification. Returns 0, or an error number of the bus.
using SendNotification = std::function<std::uint32_t()>;

/// The queued notifications of one task, and the state of the process that receives them. Any thread.
class Receiver {
 public:
  /// groupMember: the receiver's user, when the receiver is only a member of the bus's group. The sending
  /// time of one endpoint counts against all endpoints of that user.
  explicit Receiver(std::string name, std::optional<uid_t> groupMember = std::nullopt)
      : name_(std::move(name)), groupMember_(groupMember) {}

 private:
  friend class NotificationQueue;
  struct Notification {
    NotificationKind kind = NotificationKind::kKept;
    std::size_t bytes = 0;
    SendNotification send;
  };
  const std::string name_;  // for the log
  const std::optional<uid_t> groupMember_;
  // The queue's mutex guards all below.
  std::deque<Notification> waiting_;
  std::size_t bytes_ = 0;                              // of the notifications of kind kKept
  bool gone_ = false;                                  // drops every notification
  bool listed_ = false;                                // in NotificationQueue::listed_
  std::chrono::steady_clock::time_point notBefore_{};  // the time of the next try
  std::chrono::steady_clock::time_point stalledSince_{};
  std::function<void()> onDelivered_;
};

/// Sends notifications on a thread of its own. A slow receiver delays no other receiver; its task waits in
/// waitForQuota only. A receiver that takes nothing for Limits::stall counts as gone. After a send that ran
/// out of time, the queue leaves the receiver alone for ten times as long. Any thread.
class NotificationQueue {
 public:
  struct Limits {
    std::size_t keptBytes = 32u << 20;         ///< of one receiver, before waitForQuota waits
    std::chrono::milliseconds retry{20};       ///< after the receiver's queue was full
    std::chrono::milliseconds stall{300'000};  ///< without a delivery
    /// Receivers that wait, for hasRoomFor: of one group member, of all members, of all other users.
    std::size_t ofMember = 64;
    std::size_t ofMembers = 512;
    std::size_t ofTrusted = 256;
  };
  explicit NotificationQueue(Limits limits);
  NotificationQueue() : NotificationQueue(Limits{}) {}
  ~NotificationQueue();  ///< drops the notifications that are not sent
  NotificationQueue(const NotificationQueue&) = delete;
  NotificationQueue& operator=(const NotificationQueue&) = delete;

  /// Never waits. bytes: the approximate size of the notification in memory.
  void post(const std::shared_ptr<Receiver>& receiver, NotificationKind kind, std::size_t bytes,
            SendNotification send);
  /// Waits while more than keptBytes are queued. Ends early when the receiver is gone or `cancelled` returns
  /// true; calls `cancelled` ten times a second.
  void waitForQuota(const std::shared_ptr<Receiver>& receiver, const std::function<bool()>& cancelled);
  /// `action` runs once, on the queue's thread, when all notifications so far are delivered or dropped. A
  /// queue that ends before that drops the action.
  void onDelivered(const std::shared_ptr<Receiver>& receiver, std::function<void()> action);
  bool gone(const std::shared_ptr<Receiver>& receiver) const;
  /// False while too many other receivers wait. Whoever may do without a notification posts none then.
  bool hasRoomFor(const std::shared_ptr<Receiver>& receiver) const;
  /// Waits until nothing is queued; false at the limit.
  bool drain(std::chrono::milliseconds limit);

 private:
  using Clock = std::chrono::steady_clock;
  void run();
  bool sendRound(std::unique_lock<std::mutex>& lock);
  bool sendOne(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Receiver>& receiver);
  bool mayTry(const Receiver& receiver) const;
  void handleResult(Receiver& receiver, Receiver::Notification notification, std::uint32_t error,
                    Clock::duration took);
  void postpone(Receiver& receiver, std::uint32_t error, Clock::duration took);
  void dropAll(Receiver& receiver, const char* why);
  void list(const std::shared_ptr<Receiver>& receiver);

  const Limits limits_;
  mutable std::mutex mutex_;
  std::condition_variable posted_;
  std::condition_variable sent_;
  std::vector<std::shared_ptr<Receiver>> listed_;        // with notifications or an action
  std::map<uid_t, Clock::time_point> membersNotBefore_;  // after a send that ran out of time
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace agent
