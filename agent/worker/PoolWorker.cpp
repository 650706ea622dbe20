#include "worker/PoolWorker.h"

#include <cerrno>
#include <csignal>

#include "worker/Pidfd.h"

namespace agent {
namespace {

constexpr std::size_t kMostInFlight = 4;
constexpr std::uint64_t kMostBytesInFlight = 2U << 20;

}  // namespace

bool PoolWorker::hasRoomFor(std::uint64_t bytes) const {
  return tasks_.empty() || (tasks_.size() < kMostInFlight && bytes_ + bytes <= kMostBytesInFlight);
}

PoolWorker::Begun PoolWorker::begin(PoolTask& task) {
  ScanRequest request;
  request.id = task.id;
  request.name = task.name;
  request.options = task.options;
  const std::string packet = encode(request);
  if (!task.fd || packet.size() > kLongestPacket) {
    errno = task.fd ? EMSGSIZE : EBADF;
    return Begun::kCannot;
  }
  if (!channel_.send(packet, task.fd.get())) {
    return errno == EPIPE || errno == ECONNRESET ? Begun::kWorkerGone : Begun::kCannot;
  }
  if (tasks_.empty()) {
    since_ = Clock::now();
  }
  bytes_ += task.bytes;
  tasks_.push_back(std::move(task));
  return Begun::kYes;
}

PoolWorker::Heard PoolWorker::hear(Answered& answered) {
  Channel::Packet packet;
  switch (channel_.receive(packet, false)) {
    case Channel::Received::kNothing:
      return Heard::kNothing;
    case Channel::Received::kEnded:
      return Heard::kEnded;
    case Channel::Received::kPacket:
      break;
  }
  if (!greeted_ && decode<WorkerHello>(packet.bytes)) {
    process_ = std::move(packet.fd);
    greeted_ = true;
    since_ = Clock::now();  // what was sent ahead begins only now
    return Heard::kHello;
  }
  auto answer = decode<ScanAnswer>(packet.bytes);
  if (!answer || tasks_.empty() || answer->id != tasks_.front().id) {
    return Heard::kEnded;  // it no longer speaks our language: not to be trusted with another file
  }
  answered.task = std::move(tasks_.front());
  answered.verdict = std::move(answer->verdict);
  tasks_.pop_front();
  bytes_ -= answered.task.bytes;
  since_ = Clock::now();
  return Heard::kAnswer;
}

std::deque<PoolTask> PoolWorker::takeTasks() {
  bytes_ = 0;
  return std::exchange(tasks_, {});
}

std::optional<PoolWorker::Clock::time_point> PoolWorker::deadline(std::chrono::milliseconds limit) const {
  return tasks_.empty() ? std::nullopt : std::optional(since_ + limit);
}

void PoolWorker::kill() {
  if (!greeted_) {
    // From here on its hello cannot be sent, and it ends; one sent before tells us whom to kill.
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
