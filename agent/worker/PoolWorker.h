#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "engine/ScanTypes.h"
#include "worker/Channel.h"
#include "worker/Messages.h"
#include "worker/WorkerPool.h"

namespace agent {

/// One file that the pool has been handed. The descriptor is kept until the answer is there: should the
/// worker die, the files behind the one it died of go to another.
struct PoolTask {
  std::uint64_t id = 0;
  platform::Descriptor fd;
  std::string name;
  ScanOptions options;
  WorkerPool::Done done;
  std::uint64_t bytes = 0;
};

/// A worker as its pool sees it. Used by the pool's thread only.
class PoolWorker {
 public:
  using Clock = std::chrono::steady_clock;

  PoolWorker(Channel channel, unsigned generation) : channel_(std::move(channel)), generation_(generation) {}

  /// Whether one more file may wait behind what it has: small ones only, so that none waits long while
  /// another worker is idle.
  bool hasRoomFor(std::uint64_t bytes) const;
  bool idle() const { return tasks_.empty(); }
  std::size_t load() const { return tasks_.size(); }
  unsigned generation() const { return generation_; }
  int fd() const { return channel_.fd(); }
  bool greeted() const { return greeted_; }

  enum class Begun {
    kYes,         ///< the task has been taken
    kWorkerGone,  ///< answers may still be there to hear
    kCannot,      ///< it cannot be handed to any worker: errno says why
  };
  Begun begin(PoolTask& task);
  struct Answered {
    PoolTask task;
    Verdict verdict;
  };
  enum class Heard { kAnswer, kHello, kNothing, kEnded };
  /// Takes one message.
  Heard hear(Answered& answered);
  /// All that it has not answered, the one under way first.
  std::deque<PoolTask> takeTasks();
  /// When the file under way has taken too long; nothing while idle.
  std::optional<Clock::time_point> deadline(std::chrono::milliseconds limit) const;
  void kill();

 private:
  Channel channel_;
  unsigned generation_;
  platform::Descriptor process_;  // a pidfd: a pid alone might be another process by now
  bool greeted_ = false;
  std::deque<PoolTask> tasks_;
  std::uint64_t bytes_ = 0;  // of all its tasks
  Clock::time_point since_{};
};

}  // namespace agent
