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

/// What may happen to a notice while its receiver does not take any: of progress and of overviews only the
/// newest of each is worth keeping; all others are kept, in order.
enum class NoticeKind { kProgress, kOverview, kKept };

/// Sends one notice: 0, or an error number of the bus.
using SendNotice = std::function<std::uint32_t()>;

/// The notices of one task on their way to the process that started it. Made by Outbox::mailbox; any thread.
class Mailbox {
 public:
  /// member: the receiver's user, when he is a mere member of the bus's group: the time that one of his
  /// endpoints takes from the sender counts against all of them.
  explicit Mailbox(std::string name, std::optional<uid_t> member = std::nullopt)
      : name_(std::move(name)), member_(member) {}

 private:
  friend class Outbox;
  struct Notice {
    NoticeKind kind = NoticeKind::kKept;
    std::size_t bytes = 0;
    SendNotice send;
  };
  const std::string name_;  // for the log
  const std::optional<uid_t> member_;
  // All guarded by the outbox's mutex.
  std::deque<Notice> waiting_;
  std::size_t bytes_ = 0;                              // of the kept ones
  bool gone_ = false;                                  // the receiver is no more: everything is dropped
  bool listed_ = false;                                // known to the sender thread
  std::chrono::steady_clock::time_point notBefore_{};  // after a failed try
  std::chrono::steady_clock::time_point stalledSince_{};
  std::function<void()> closed_;
};

/// Sends notices on a thread of its own, so that no receiver, however slow, keeps a task or another receiver
/// waiting. A receiver that takes nothing for `stallLimit` counts as gone. One that makes a send wait until
/// its time is up (it holds its address and welcomes nobody) is left alone for ten times as long: however
/// many do that, they have a small part of the thread's time. Any thread.
class Outbox {
 public:
  struct Limits {
    std::size_t keptBytes = 32u << 20;         ///< of one mailbox, before waitForRoom waits
    std::chrono::milliseconds retry{20};       ///< after a full queue
    std::chrono::milliseconds stall{300'000};  ///< without one notice taken
  };
  explicit Outbox(Limits limits);
  Outbox() : Outbox(Limits{}) {}
  ~Outbox();  ///< what is unsent is dropped
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  /// Never waits. bytes: about what the notice takes in memory.
  void post(const std::shared_ptr<Mailbox>& box, NoticeKind kind, std::size_t bytes, SendNotice send);
  /// Waits while more than keptBytes are on their way; ends early when `cancelled` says so (asked ten times a
  /// second) and when the receiver is gone.
  void waitForRoom(const std::shared_ptr<Mailbox>& box, const std::function<bool()>& cancelled);
  /// `action` runs once, on the sender's thread, when all that was posted before is sent or dropped. Not run
  /// when the outbox ends before that.
  void whenEmpty(const std::shared_ptr<Mailbox>& box, std::function<void()> action);
  bool gone(const std::shared_ptr<Mailbox>& box) const;
  /// Waits until nothing is on its way; false at the limit.
  bool drain(std::chrono::milliseconds limit);

 private:
  using Clock = std::chrono::steady_clock;
  void run();
  bool sendRound(std::unique_lock<std::mutex>& lock);
  bool sendOne(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Mailbox>& box);
  bool mayTry(const Mailbox& box) const;
  void settle(Mailbox& box, Mailbox::Notice notice, std::uint32_t error, Clock::duration took);
  void postpone(Mailbox& box, std::uint32_t error, Clock::duration took);
  void giveUp(Mailbox& box, const char* why);
  void list(const std::shared_ptr<Mailbox>& box);

  const Limits limits_;
  mutable std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable room_;
  std::vector<std::shared_ptr<Mailbox>> listed_;
  std::map<uid_t, Clock::time_point> membersNotBefore_;  // after a send that ran out of time
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace agent
