#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "engine/FileBudget.h"
#include "engine/ScanTypes.h"
#include "worker/Channel.h"
#include "worker/Messages.h"
#include "worker/WorkerPool.h"

namespace agent {

/// One file of the pool. The descriptor is kept until the answer arrives: if the worker dies, the files
/// queued behind the current one go to another worker.
struct PoolTask {
  std::uint64_t id = 0;
  platform::Descriptor fd;
  std::string name;
  ScanOptions options;
  WorkerPool::Done done;
  std::uint64_t bytes = 0;
  FileBudget budget{};
  int lost = 0;           ///< how often a worker ended on the file together with its template
  int interruptions = 0;  ///< by a hold of the pool
};

/// The pool's end of one worker. Used by the pool's thread only.
class PoolWorker {
 public:
  using Clock = std::chrono::steady_clock;

  PoolWorker(Channel channel, unsigned generation) : channel_(std::move(channel)), generation_(generation) {}

  /// Whether one more file may be sent. Only small files queue behind another, so that no file waits long
  /// while another worker is idle.
  bool accepts(std::uint64_t bytes) const;
  bool idle() const { return tasks_.empty(); }
  bool runs() const { return !idle() && !stoppedAt_; }
  std::size_t load() const { return tasks_.size(); }
  unsigned generation() const { return generation_; }
  int fd() const { return channel_.fd(); }
  bool helloReceived() const { return helloReceived_; }

  /// Sends the file and takes the task. On failure the task stays the caller's; without NotSent::peerGone no
  /// worker can take the task.
  tl::expected<void, NotSent> begin(PoolTask& task);
  struct Answered {
    PoolTask task;
    Verdict verdict;
  };
  enum class Received { kAnswer, kHello, kNothing, kEnded };
  /// Receives one message, without waiting. kEnded: the worker is gone or broke the protocol.
  Received receive(Answered& answered);
  /// Whether a refused call ended the worker.
  bool breached() const { return breach_.has_value(); }
  /// The reason of an error for the file of a worker that ended.
  std::string endReason() const;
  /// All unanswered tasks, the current one first.
  std::deque<PoolTask> takeTasks();
  /// The same; the current one counts an interruption if it had begun.
  std::deque<PoolTask> takeInterrupted();
  /// Stops the process when the current file has begun after `most` interruptions. False: nothing was done.
  bool stopAfter(int most);
  /// Continues a process that stopAfter() stopped. The time limit does not count the time between.
  void goOn();
  /// The time at which the current file will have taken `limit`; nothing while idle or stopped.
  std::optional<Clock::time_point> deadline(std::chrono::milliseconds limit) const;
  /// Of the current file; empty while idle.
  FileBudget budget() const { return tasks_.empty() ? FileBudget{} : tasks_.front().budget; }
  void kill();

 private:
  Channel channel_;
  unsigned generation_;
  platform::Descriptor process_;  // a pidfd: the pid may belong to another process by now
  bool helloReceived_ = false;
  std::deque<PoolTask> tasks_;
  std::uint64_t bytes_ = 0;    // of all tasks
  Clock::time_point since_{};  // start of the current file
  std::optional<Clock::time_point> stoppedAt_;
  std::optional<CallBreach> breach_;
  bool outOfTime_ = false;  // the worker ended itself
};

}  // namespace agent
