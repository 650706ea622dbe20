#include "worker/PoolWorker.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>

#include "platform/Posix.h"
#include "worker/CallFilter.h"
#include "worker/Pidfd.h"

namespace agent {
namespace {

constexpr std::size_t kMostInFlight = 4;
constexpr std::uint64_t kMostBytesInFlight = 2U << 20;

// Through any other descriptor a worker could change the file.
bool isForReading(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) == O_RDONLY;
}

}  // namespace

bool PoolWorker::accepts(std::uint64_t bytes) const {
  return tasks_.empty() || (tasks_.size() < kMostInFlight && bytes_ + bytes <= kMostBytesInFlight);
}

tl::expected<void, NotSent> PoolWorker::begin(PoolTask& task) {
  const std::string packet = encode(ScanRequest{task.id, task.name, task.options});
  if (!task.fd || packet.size() > kLongestPacket) {
    return tl::unexpected(NotSent{false, platform::errnoText(task.fd ? EMSGSIZE : EBADF)});
  }
  if (!isForReading(task.fd.get())) {
    return tl::unexpected(NotSent{false, "it is open for writing"});
  }
  if (auto sent = channel_.send(packet, task.fd.get()); !sent) {
    return sent;
  }
  if (tasks_.empty()) {
    since_ = Clock::now();
  }
  bytes_ += task.bytes;
  tasks_.push_back(std::move(task));
  return {};
}

PoolWorker::Received PoolWorker::receive(Answered& answered) {
  Channel::Packet packet;
  switch (channel_.receive(packet, false)) {
    case Channel::Received::kNothing:
      return Received::kNothing;
    case Channel::Received::kEnded:
      return Received::kEnded;
    case Channel::Received::kPacket:
      break;
  }
  if (!helloReceived_ && decode<WorkerHello>(packet.bytes)) {
    process_ = std::move(packet.fd);
    helloReceived_ = true;
    since_ = Clock::now();  // files sent before the hello begin only now
    return Received::kHello;
  }
  if ((breach_ = decode<CallBreach>(packet.bytes))) {
    return Received::kEnded;
  }
  if (decode<OutOfProcessorTime>(packet.bytes)) {
    outOfTime_ = true;
    return Received::kEnded;
  }
  auto answer = decode<ScanAnswer>(packet.bytes);
  if (!answer || tasks_.empty() || answer->id != tasks_.front().id) {
    return Received::kEnded;  // the worker broke the protocol: do not trust it with another file
  }
  answered.task = std::move(tasks_.front());
  answered.verdict = std::move(answer->verdict);
  tasks_.pop_front();
  bytes_ -= answered.task.bytes;
  since_ = Clock::now();
  if (idle()) {
    goOn();  // it answered before it was stopped
  }
  return Received::kAnswer;
}

std::string PoolWorker::endReason() const {
  if (outOfTime_) {
    return processorReason(budget());
  }
  return breach_ ? "the process that scanned the file was ended: " + breachText(*breach_)
                 : "the process that scanned the file died";
}

std::deque<PoolTask> PoolWorker::takeTasks() {
  bytes_ = 0;
  return std::exchange(tasks_, {});
}

std::deque<PoolTask> PoolWorker::takeInterrupted() {
  if (helloReceived_ && !tasks_.empty()) {
    ++tasks_.front().interruptions;
  }
  return takeTasks();
}

bool PoolWorker::stopAfter(int most) {
  if (!helloReceived_ || tasks_.empty() || tasks_.front().interruptions < most) {
    return false;
  }
  pidfd_send_signal(process_.get(), SIGSTOP, nullptr, 0);
  stoppedAt_ = Clock::now();
  return true;
}

void PoolWorker::goOn() {
  if (stoppedAt_) {
    since_ += Clock::now() - *stoppedAt_;
    stoppedAt_.reset();
    pidfd_send_signal(process_.get(), SIGCONT, nullptr, 0);
  }
}

std::optional<PoolWorker::Clock::time_point> PoolWorker::deadline(std::chrono::milliseconds limit) const {
  return runs() ? std::optional(since_ + limit) : std::nullopt;
}

void PoolWorker::kill() {
  if (!helloReceived_) {
    // The worker cannot send its hello any more, and ends. A hello sent before names the process to kill.
    channel_.shutDown();
    Channel::Packet packet;
    if (channel_.receive(packet, false) == Channel::Received::kPacket && decode<WorkerHello>(packet.bytes)) {
      process_ = std::move(packet.fd);
    }
  }
  if (process_) {
    pidfd_send_signal(process_.get(), SIGKILL, nullptr, 0);
  }
  channel_.close();
}

}  // namespace agent
