#include "task/NotificationQueue.h"

#include <algorithm>
#include <exception>

#include "lunet/Lunet.h"
#include "task/AgentLog.h"

namespace agent {

namespace {

/// True when the same notification may still reach the same process.
bool isRetryable(std::uint32_t error) {
  return error == lunet::kErrQueueFull || error == lunet::kErrTimeout || error == lunet::kErrPeerLost ||
         error == lunet::kErrSystem;
}

/// The pause of a receiver after a send that ran out of time, in times of that send.
constexpr int kTimeoutPause = 10;

/// True when the error concerns the notification, not the receiver.
bool isUnsendable(std::uint32_t error) {
  return error == lunet::kErrTooLarge || error == lunet::kErrArgument;
}

std::uint32_t guarded(const SendNotification& send) {
  try {
    return send();
  } catch (const std::exception& error) {
    AGENT_LOG(LogLevel::kError, "a notice could not be made: %s", error.what());
    return lunet::kErrArgument;
  }
}

}  // namespace

NotificationQueue::NotificationQueue(Limits limits) : limits_(limits), thread_([this] { run(); }) {}

NotificationQueue::~NotificationQueue() {
  {
    const std::lock_guard guard(mutex_);
    ending_ = true;
  }
  posted_.notify_all();
  sent_.notify_all();
  thread_.join();
  // A cycle: a queued notification keeps its BusTaskEvents alive, and the BusTaskEvents its receiver.
  for (const std::shared_ptr<Receiver>& receiver : listed_) {
    receiver->waiting_.clear();
  }
}

void NotificationQueue::list(const std::shared_ptr<Receiver>& receiver) {
  if (!receiver->listed_) {
    receiver->listed_ = true;
    receiver->stalledSince_ = Clock::now();
    listed_.push_back(receiver);
  }
  posted_.notify_all();
}

void NotificationQueue::post(const std::shared_ptr<Receiver>& receiver, NotificationKind kind,
                             std::size_t bytes, SendNotification send) {
  const std::lock_guard guard(mutex_);
  if (receiver->gone_ || ending_) {
    return;
  }
  if (kind == NotificationKind::kKept) {
    receiver->bytes_ += bytes;
  } else {
    std::erase_if(receiver->waiting_, [kind](const Receiver::Notification& old) { return old.kind == kind; });
  }
  receiver->waiting_.push_back({kind, bytes, std::move(send)});
  list(receiver);
}

void NotificationQueue::waitForQuota(const std::shared_ptr<Receiver>& receiver,
                                     const std::function<bool()>& cancelled) {
  std::unique_lock lock(mutex_);
  while (!ending_ && !receiver->gone_ && receiver->bytes_ > limits_.keptBytes && !cancelled()) {
    sent_.wait_for(lock, std::chrono::milliseconds(100));
  }
}

void NotificationQueue::onDelivered(const std::shared_ptr<Receiver>& receiver, std::function<void()> action) {
  const std::lock_guard guard(mutex_);
  receiver->onDelivered_ = std::move(action);
  list(receiver);
}

bool NotificationQueue::gone(const std::shared_ptr<Receiver>& receiver) const {
  const std::lock_guard guard(mutex_);
  return receiver->gone_;
}

bool NotificationQueue::hasRoomFor(const std::shared_ptr<Receiver>& receiver) const {
  const std::lock_guard guard(mutex_);
  std::size_t ofUser = 0;
  std::size_t ofMembers = 0;
  for (const std::shared_ptr<Receiver>& other : listed_) {
    ofUser += other->groupMember_ == receiver->groupMember_ ? 1 : 0;
    ofMembers += other->groupMember_ ? 1 : 0;
  }
  return receiver->groupMember_ ? ofUser < limits_.ofMember && ofMembers < limits_.ofMembers
                                : ofUser < limits_.ofTrusted;
}

bool NotificationQueue::drain(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return sent_.wait_for(lock, limit, [this] { return listed_.empty(); });
}

void NotificationQueue::run() {
  std::unique_lock lock(mutex_);
  while (!ending_) {
    try {
      const bool sent = sendRound(lock);
      sent_.notify_all();
      if (sent || ending_) {
        continue;
      }
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "sending notices: %s", error.what());
    }
    if (listed_.empty()) {
      posted_.wait(lock, [this] { return ending_ || !listed_.empty(); });
    } else {
      posted_.wait_for(lock, limits_.retry);
    }
  }
}

/// Sends one notification of each receiver that may be tried. True when a receiver took its notification.
bool NotificationQueue::sendRound(std::unique_lock<std::mutex>& lock) {
  const std::vector<std::shared_ptr<Receiver>> receivers = listed_;
  bool sent = false;
  for (const std::shared_ptr<Receiver>& receiver : receivers) {
    if (mayTry(*receiver)) {
      sent = sendOne(lock, receiver) || sent;
    }
  }
  return sent;
}

bool NotificationQueue::mayTry(const Receiver& receiver) const {
  const Clock::time_point now = Clock::now();
  const auto member =
      receiver.groupMember_ ? membersNotBefore_.find(*receiver.groupMember_) : membersNotBefore_.end();
  return receiver.notBefore_ <= now && (member == membersNotBefore_.end() || member->second <= now);
}

/// True when the receiver took a notification. The lock is held, but not while sending.
bool NotificationQueue::sendOne(std::unique_lock<std::mutex>& lock,
                                const std::shared_ptr<Receiver>& receiver) {
  bool taken = false;
  if (!receiver->waiting_.empty()) {
    Receiver::Notification notification = std::move(receiver->waiting_.front());
    receiver->waiting_.pop_front();
    lock.unlock();
    const Clock::time_point begun = Clock::now();
    const std::uint32_t error = guarded(notification.send);
    const Clock::duration took = Clock::now() - begun;
    lock.lock();
    taken = error == lunet::kOk;
    handleResult(*receiver, std::move(notification), error, took);
  }
  if (receiver->waiting_.empty()) {
    const std::function<void()> action = std::move(receiver->onDelivered_);
    receiver->onDelivered_ = nullptr;
    if (action) {
      lock.unlock();
      guarded([&action]() -> std::uint32_t {
        action();
        return lunet::kOk;
      });
      lock.lock();
    }
    if (receiver->waiting_.empty() && !receiver->onDelivered_) {
      receiver->listed_ = false;
      std::erase(listed_, receiver);
    }
  }
  return taken;
}

/// Applies the result of a send to the receiver.
void NotificationQueue::handleResult(Receiver& receiver, Receiver::Notification notification,
                                     std::uint32_t error, Clock::duration took) {
  const Clock::time_point now = Clock::now();
  if (isRetryable(error)) {
    if (now - receiver.stalledSince_ >= limits_.stall) {
      dropAll(receiver, "takes no notices");
      return;
    }
    const bool newer =
        notification.kind != NotificationKind::kKept &&
        std::any_of(receiver.waiting_.begin(), receiver.waiting_.end(),
                    [&](const Receiver::Notification& other) { return other.kind == notification.kind; });
    if (!newer) {
      receiver.waiting_.push_front(std::move(notification));
    }
    postpone(receiver, error, took);
    return;
  }
  if (error != lunet::kOk && !isUnsendable(error)) {
    dropAll(receiver, "is gone");
    return;
  }
  if (error != lunet::kOk) {
    AGENT_LOG(LogLevel::kError, "a notice to %s was dropped: bus error 0x%08x", receiver.name_.c_str(),
              error);
  }
  receiver.stalledSince_ = now;
  if (notification.kind == NotificationKind::kKept) {
    receiver.bytes_ -= std::min(receiver.bytes_, notification.bytes);
  }
}

/// Sets the time of the next try.
void NotificationQueue::postpone(Receiver& receiver, std::uint32_t error, Clock::duration took) {
  const Clock::time_point now = Clock::now();
  receiver.notBefore_ = now + limits_.retry;
  if (error == lunet::kErrTimeout) {
    receiver.notBefore_ += kTimeoutPause * took;
    if (receiver.groupMember_) {
      membersNotBefore_[*receiver.groupMember_] = receiver.notBefore_;
    }
  }
}

void NotificationQueue::dropAll(Receiver& receiver, const char* why) {
  AGENT_LOG(LogLevel::kWarning, "%s %s; %zu notices and what follows are dropped", receiver.name_.c_str(),
            why, receiver.waiting_.size() + 1);
  receiver.gone_ = true;
  receiver.waiting_.clear();
}

}  // namespace agent
