#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace agent {

/// Whether a task goes on, waits or ends: set by callers, obeyed by the task's thread between two entries.
/// Any thread may call the first group of operations.
class TaskControl {
 public:
  /// False when the task is paused already or ending.
  bool pause();
  /// False when it is not paused.
  bool resume();
  /// The first reason counts. False when it is ending already. Runs onStop once, on the caller's thread.
  bool stop(const std::string& reason);
  bool stopping() const { return phase_.load(std::memory_order_acquire) == Phase::kStopping; }
  bool paused() const { return phase_.load(std::memory_order_acquire) == Phase::kPaused; }
  std::string stopReason() const;
  /// Waits until stop() is called, at most `limit`; true when it was.
  bool waitForStop(std::chrono::milliseconds limit);

  /// What ends a wait that the task's thread cannot be asked in. Set before the task starts.
  void onStop(std::function<void()> action) { onStop_ = std::move(action); }

  /// On the task's thread. Waits while paused; `quiet` is called before the wait and `again` behind it, also
  /// for a pause that was taken back before it was seen. False when the task must end.
  bool goOn(const std::function<void()>& quiet, const std::function<void()>& again);
  /// On the task's thread, when all its work is done. As goOn, until no pause is left to be told; from then
  /// on the task is ending, and neither a pause nor a stop is taken any more. False when the task must end.
  bool finish(const std::function<void()>& quiet, const std::function<void()>& again);

 private:
  enum class Phase { kRunning, kPaused, kStopping, kFinished };
  std::atomic<Phase> phase_{Phase::kRunning};
  std::atomic<bool> pauseUnseen_{false};
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string reason_;
  std::function<void()> onStop_;
};

}  // namespace agent
