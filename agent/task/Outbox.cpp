#include "task/Outbox.h"

#include <algorithm>
#include <exception>

#include "lunet/Lunet.h"
#include "task/AgentLog.h"

namespace agent {

namespace {

/// Errors after which the same notice may still get through to the same process.
bool worthAnotherTry(std::uint32_t error) {
  return error == lunet::kErrQueueFull || error == lunet::kErrTimeout || error == lunet::kErrPeerLost ||
         error == lunet::kErrSystem;
}

/// A send that ran out of time kept all others waiting: how much longer the next one is put off.
constexpr int kTimeoutPause = 10;

/// Errors that say something about the notice and nothing about its receiver.
bool noticeItself(std::uint32_t error) {
  return error == lunet::kErrTooLarge || error == lunet::kErrArgument;
}

std::uint32_t guarded(const SendNotice& send) {
  try {
    return send();
  } catch (const std::exception& error) {
    AGENT_LOG(LogLevel::kError, "a notice could not be made: %s", error.what());
    return lunet::kErrArgument;
  }
}

}  // namespace

Outbox::Outbox(Limits limits) : limits_(limits), thread_([this] { run(); }) {}

Outbox::~Outbox() {
  {
    const std::lock_guard guard(mutex_);
    ending_ = true;
  }
  work_.notify_all();
  room_.notify_all();
  thread_.join();
  // A notice keeps its sender alive, and the sender keeps the mailbox: neither would ever be freed.
  for (const std::shared_ptr<Mailbox>& box : listed_) {
    box->waiting_.clear();
  }
}

void Outbox::list(const std::shared_ptr<Mailbox>& box) {
  if (!box->listed_) {
    box->listed_ = true;
    box->stalledSince_ = Clock::now();
    listed_.push_back(box);
  }
  work_.notify_all();
}

void Outbox::post(const std::shared_ptr<Mailbox>& box, NoticeKind kind, std::size_t bytes, SendNotice send) {
  const std::lock_guard guard(mutex_);
  if (box->gone_ || ending_) {
    return;
  }
  if (kind == NoticeKind::kKept) {
    box->bytes_ += bytes;
  } else {
    std::erase_if(box->waiting_, [kind](const Mailbox::Notice& old) { return old.kind == kind; });
  }
  box->waiting_.push_back({kind, bytes, std::move(send)});
  list(box);
}

void Outbox::waitForRoom(const std::shared_ptr<Mailbox>& box, const std::function<bool()>& cancelled) {
  std::unique_lock lock(mutex_);
  while (!ending_ && !box->gone_ && box->bytes_ > limits_.keptBytes && !cancelled()) {
    room_.wait_for(lock, std::chrono::milliseconds(100));
  }
}

void Outbox::whenEmpty(const std::shared_ptr<Mailbox>& box, std::function<void()> action) {
  const std::lock_guard guard(mutex_);
  box->closed_ = std::move(action);
  list(box);
}

bool Outbox::gone(const std::shared_ptr<Mailbox>& box) const {
  const std::lock_guard guard(mutex_);
  return box->gone_;
}

bool Outbox::drain(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return room_.wait_for(lock, limit, [this] { return listed_.empty(); });
}

void Outbox::run() {
  std::unique_lock lock(mutex_);
  while (!ending_) {
    try {
      const bool sent = sendRound(lock);
      room_.notify_all();
      if (sent || ending_) {
        continue;
      }
    } catch (const std::exception& error) {
      AGENT_LOG(LogLevel::kError, "sending notices: %s", error.what());
    }
    if (listed_.empty()) {
      work_.wait(lock, [this] { return ending_ || !listed_.empty(); });
    } else {
      work_.wait_for(lock, limits_.retry);
    }
  }
}

/// One notice of each mailbox that has any and may be tried. True when one was taken.
bool Outbox::sendRound(std::unique_lock<std::mutex>& lock) {
  const std::vector<std::shared_ptr<Mailbox>> boxes = listed_;
  bool sent = false;
  for (const std::shared_ptr<Mailbox>& box : boxes) {
    if (mayTry(*box)) {
      sent = sendOne(lock, box) || sent;
    }
  }
  return sent;
}

bool Outbox::mayTry(const Mailbox& box) const {
  const Clock::time_point now = Clock::now();
  const auto member = box.member_ ? membersNotBefore_.find(*box.member_) : membersNotBefore_.end();
  return box.notBefore_ <= now && (member == membersNotBefore_.end() || member->second <= now);
}

/// True when something was taken. Called with the lock held, given up while sending.
bool Outbox::sendOne(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Mailbox>& box) {
  bool taken = false;
  if (!box->waiting_.empty()) {
    Mailbox::Notice notice = std::move(box->waiting_.front());
    box->waiting_.pop_front();
    lock.unlock();
    const Clock::time_point begun = Clock::now();
    const std::uint32_t error = guarded(notice.send);
    const Clock::duration took = Clock::now() - begun;
    lock.lock();
    taken = error == lunet::kOk;
    settle(*box, std::move(notice), error, took);
  }
  if (box->waiting_.empty()) {
    const std::function<void()> closed = std::move(box->closed_);
    box->closed_ = nullptr;
    if (closed) {
      lock.unlock();
      guarded([&closed]() -> std::uint32_t {
        closed();
        return lunet::kOk;
      });
      lock.lock();
    }
    if (box->waiting_.empty() && !box->closed_) {
      box->listed_ = false;
      std::erase(listed_, box);
    }
  }
  return taken;
}

/// What the sending of a notice means for its mailbox.
void Outbox::settle(Mailbox& box, Mailbox::Notice notice, std::uint32_t error, Clock::duration took) {
  const Clock::time_point now = Clock::now();
  if (worthAnotherTry(error)) {
    if (now - box.stalledSince_ >= limits_.stall) {
      giveUp(box, "takes no notices");
      return;
    }
    const bool newer = notice.kind != NoticeKind::kKept &&
                       std::any_of(box.waiting_.begin(), box.waiting_.end(),
                                   [&](const Mailbox::Notice& other) { return other.kind == notice.kind; });
    if (!newer) {
      box.waiting_.push_front(std::move(notice));
    }
    postpone(box, error, took);
    return;
  }
  if (error != lunet::kOk && !noticeItself(error)) {
    giveUp(box, "is gone");
    return;
  }
  if (error != lunet::kOk) {
    AGENT_LOG(LogLevel::kError, "a notice to %s was dropped: bus error 0x%08x", box.name_.c_str(), error);
  }
  box.stalledSince_ = now;
  if (notice.kind == NoticeKind::kKept) {
    box.bytes_ -= std::min(box.bytes_, notice.bytes);
  }
}

/// When that mailbox may be tried again.
void Outbox::postpone(Mailbox& box, std::uint32_t error, Clock::duration took) {
  const Clock::time_point now = Clock::now();
  box.notBefore_ = now + limits_.retry;
  if (error == lunet::kErrTimeout) {
    box.notBefore_ += kTimeoutPause * took;
    if (box.member_) {
      membersNotBefore_[*box.member_] = box.notBefore_;
    }
  }
}

void Outbox::giveUp(Mailbox& box, const char* why) {
  AGENT_LOG(LogLevel::kWarning, "%s %s; %zu notices and what follows are dropped", box.name_.c_str(), why,
            box.waiting_.size() + 1);
  box.gone_ = true;
  box.waiting_.clear();
  box.bytes_ = 0;
}

}  // namespace agent
