#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
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
  explicit Mailbox(std::string name) : name_(std::move(name)) {}

 private:
  friend class Outbox;
  struct Notice {
    NoticeKind kind = NoticeKind::kKept;
    std::size_t bytes = 0;
    SendNotice send;
  };
  const std::string name_;  // for the log
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
/// waiting. A receiver that takes nothing for `stallLimit` counts as gone. Any thread.
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
  void settle(Mailbox& box, Mailbox::Notice notice, std::uint32_t error);
  void giveUp(Mailbox& box, const char* why);
  void list(const std::shared_ptr<Mailbox>& box);

  const Limits limits_;
  mutable std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable room_;
  std::vector<std::shared_ptr<Mailbox>> listed_;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace agent
