#include "OutgoingLink.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

namespace lunet {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr long long kLongestPollMs = 3600 * 1000;

}  // namespace

OutgoingLink::OutgoingLink(Dialled dialled, Watcher& watcher, Log& log, std::string name)
    : fd_(std::move(dialled.fd)),
      identity_(dialled.identity),
      trusted_(dialled.trusted),
      admitted_(dialled.admitted),
      watcher_(watcher),
      log_(log),
      name_(std::move(name)),
      writer_(fd_.get(), [this](bool want) {
        const std::lock_guard lock(watchMutex_);
        wantWrite_ = want;
        watch();
      }) {}

OutgoingLink::~OutgoingLink() {
  const std::lock_guard lock(watchMutex_);
  if (watchKey_ != 0) {
    watcher_.remove(fd_.get(), watchKey_);
  }
}

void OutgoingLink::start() {
  const std::lock_guard lock(watchMutex_);
  watcher_.add(fd_.get(), EPOLLRDHUP, weak_from_this(), watchKey_);
}

Error OutgoingLink::send(std::uint32_t channel, const void* data, std::uint32_t length) {
  return writeFrame({.kind = FrameKind::kOneway, .channel = channel, .length = length}, data);
}

OutgoingLink::Answer OutgoingLink::call(std::uint32_t channel, const void* data, std::uint32_t length,
                                        Clock::time_point deadline, bool* sent) {
  FrameHeader header{.kind = FrameKind::kRequest, .channel = channel, .length = length};
  Call call;
  {
    const Lock lock(mutex_);
    header.id = nextId_++;
    call.id = header.id;
    calls_.push_back(&call);
    watchForAnswers();
  }
  Error error = kErrSystem;
  try {
    error = writeFrame(header, data);
  } catch (const std::exception&) {  // no memory; `call` must leave calls_
    hungUp_ = true;
  }
  *sent = error == kOk;
  Lock lock(mutex_);
  if (error == kOk) {
    await(lock, call, deadline);
  }
  if (!call.done) {
    std::erase(calls_, &call);
    call.answer.error = error == kOk ? kErrTimeout : error;
    lateAnswers_ += error == kOk ? 1 : 0;
  }
  leave();
  return std::move(call.answer);
}

void OutgoingLink::shut(Error error) {
  const Lock lock(mutex_);
  fail(error, nullptr);
}

void OutgoingLink::onReady(std::uint32_t events) {
  const bool writable = (events & EPOLLOUT) == 0 || writer_.flush();
  if (!writable || (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
    hungUp_ = true;
    const std::lock_guard watchLock(watchMutex_);
    if (watchKey_ != 0) {  // level-triggered: the event would repeat
      watcher_.remove(fd_.get(), std::exchange(watchKey_, 0));
    }
  }
  const Lock lock(mutex_);
  drain();
}

Error OutgoingLink::writeFrame(const FrameHeader& header, const void* data) {
  const Error error = writer_.write(header, data);
  if (error == kErrSystem) {
    hungUp_ = true;  // the next send connects anew
    log_.writeOf(identity_.uid, BusLogLevel::kError,
                 "the connection to " + name_ + " is closed: no memory for a message");
  } else if (error == kErrPeerLost) {
    // Answers that arrived before the end can still be read by waiting callers.
    hungUp_ = true;
    const Lock lock(mutex_);
    drain();
  }
  return error;
}

/// Returns when the call is done or the deadline has passed. The caller reads when no other caller does, else
/// waits for the reader's wake-up.
void OutgoingLink::await(Lock& lock, Call& call, Clock::time_point deadline) {
  while (!call.done) {
    if (readerActive_) {
      if (call.wake.wait_until(lock, deadline) == std::cv_status::timeout) {
        return;
      }
      continue;
    }
    readerActive_ = true;
    lock.unlock();
    const Read read = waitAndRead(deadline);
    lock.lock();
    readerActive_ = false;
    if (read == Read::kTimeout) {
      return;
    }
    if (read == Read::kEnd) {
      fail(kErrPeerLost, nullptr);
    } else if (read == Read::kSome) {
      takeFrames();
    }
  }
}

OutgoingLink::Read OutgoingLink::waitAndRead(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
  if (left <= 0) {
    return Read::kTimeout;
  }
  // poll, not a blocking recv: the kernel wakes such a recv also when the peer reads a message.
  pollfd waiting{fd_.get(), POLLIN, 0};
  const int ready = poll(&waiting, 1, static_cast<int>(std::min<long long>(left, kLongestPollMs)));
  return ready > 0 ? readSome() : Read::kNothing;
}

OutgoingLink::Read OutgoingLink::readSome() {
  try {
    const std::span<char> space = reader_.space();
    const ssize_t count = recv(fd_.get(), space.data(), space.size(), MSG_DONTWAIT);
    if (count > 0) {
      reader_.filled(static_cast<std::size_t>(count));
      return Read::kSome;
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? Read::kNothing : Read::kEnd;
  } catch (const std::bad_alloc&) {
    return Read::kEnd;  // an answer too large for the memory ends the link, not the process
  }
}

/// Gives every whole answer to its caller. False when the link has ended. mutex_ is held.
bool OutgoingLink::takeFrames() {
  try {
    FrameReader::Next next = reader_.next();
    for (; next == FrameReader::Next::kFrame; next = reader_.next()) {
      if (!takeFrame()) {
        fail(kErrPeerLost, "a frame that a listener does not send");
        return false;
      }
    }
    if (next == FrameReader::Next::kBad) {
      fail(kErrPeerLost, reader_.defect());
    }
    return next == FrameReader::Next::kMore;
  } catch (const std::bad_alloc&) {
    fail(kErrSystem, "no memory for an answer");
    return false;
  }
}

bool OutgoingLink::takeFrame() {
  const FrameHeader& header = reader_.header();
  Answer answer;
  if (header.kind == FrameKind::kAnswer) {
    if (callOf(header.id) != calls_.end()) {
      answer.data = reader_.takeBody();
      answer.length = header.length;
    }
  } else if (header.kind == FrameKind::kRefusal) {
    answer.error = header.channel == kOk ? kErrSystem : static_cast<Error>(header.channel);
  } else {
    return false;
  }
  finish(header.id, std::move(answer));
  return true;
}

std::vector<OutgoingLink::Call*>::iterator OutgoingLink::callOf(std::uint64_t id) {
  return std::find_if(calls_.begin(), calls_.end(), [id](const Call* call) { return call->id == id; });
}

void OutgoingLink::finish(std::uint64_t id, Answer answer) {
  const auto found = callOf(id);
  if (found == calls_.end()) {
    lateAnswers_ -= lateAnswers_ > 0 ? 1 : 0;
    log_.writeOf(identity_.uid, BusLogLevel::kInfo,
                 "an answer of " + name_ + " came too late and is dropped");
    return;
  }
  Call& call = **found;
  calls_.erase(found);
  call.answer = std::move(answer);
  call.done = true;
  call.wake.notify_one();
}

/// The end of a call: passes the reader's role to another waiting caller. Without one, the io thread reads
/// late answers. mutex_ is held.
void OutgoingLink::leave() {
  if (readerActive_) {
    return;
  }
  if (!calls_.empty()) {
    calls_.front()->wake.notify_one();
  } else if (hungUp_) {
    drain();
  }
  watchForAnswers();
}

/// Reads late answers, or the end after a hang-up, unless a caller reads. mutex_ is held.
void OutgoingLink::drain() {
  while (alive_ && !readerActive_ && calls_.empty()) {
    const Read read = readSome();
    if (read == Read::kEnd) {
      fail(kErrPeerLost, nullptr);
    }
    if (read != Read::kSome || !takeFrames()) {
      break;
    }
  }
  watchForAnswers();
}

/// mutex_ is held.
void OutgoingLink::watchForAnswers() {
  const bool wanted = calls_.empty() && lateAnswers_ > 0;
  if (wantRead_ != wanted) {  // written under both locks, so one suffices to read
    const std::lock_guard lock(watchMutex_);
    wantRead_ = wanted;
    watch();
  }
}

/// watchMutex_ is held.
void OutgoingLink::watch() {
  const std::uint32_t events =
      EPOLLRDHUP | (wantWrite_ ? std::uint32_t{EPOLLOUT} : 0U) | (wantRead_ ? std::uint32_t{EPOLLIN} : 0U);
  if (watchKey_ != 0) {
    watcher_.change(fd_.get(), watchKey_, events);
  }
}

/// mutex_ is held.
void OutgoingLink::fail(Error error, const char* reason) {
  if (!alive_.exchange(false)) {
    return;
  }
  if (reason != nullptr) {
    log_.writeOf(identity_.uid, BusLogLevel::kError, "the connection to " + name_ + " is closed: " + reason);
  } else {
    log_.writeOf(identity_.uid, BusLogLevel::kInfo, "the connection to " + name_ + " has ended");
  }
  if (const std::size_t lost = writer_.queuedBytes(); lost > 0) {
    log_.writeOf(identity_.uid, BusLogLevel::kWarning,
                 std::to_string(lost) + " queued bytes for " + name_ + " are lost");
  }
  for (Call* call : calls_) {
    call->answer.error = error;
    call->done = true;
    call->wake.notify_one();
  }
  calls_.clear();
  writer_.close();
  shutdown(fd_.get(), SHUT_RDWR);  // wakes the reader
  const std::lock_guard lock(watchMutex_);
  if (watchKey_ != 0) {
    watcher_.remove(fd_.get(), std::exchange(watchKey_, 0));
  }
}

}  // namespace lunet
