#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace agent {

/// Whether a task runs, waits or ends. Callers on any thread set the state; the task's thread obeys between
/// two entries. What works for the task on other threads, or makes the task's thread wait, is held meanwhile.
class TaskControl {
 public:
  /// False when the task is paused already or ending.
  bool pause();
  /// False when the task is not paused.
  bool resume();
  /// The first reason counts. False when the task is ending already. Runs onStop once, on the caller's
  /// thread.
  bool stop(const std::string& reason);
  bool stopping() const { return phase_.load(std::memory_order_acquire) == Phase::kStopping; }
  bool paused() const { return phase_.load(std::memory_order_acquire) == Phase::kPaused; }
  std::string stopReason() const;
  /// Ends a wait in which the task's thread does not look at the state. Set before the task starts.
  void onStop(std::function<void()> action) { onStop_ = std::move(action); }
  /// A pause calls `hold` at once, on the caller's thread. The task's thread calls `release` behind the
  /// `resumed` of onPause(), unless the task was paused again or stopped by then. Neither may call the
  /// control. Set before the task starts.
  void onHold(std::function<void()> hold, std::function<void()> release);
  /// The task's thread calls `paused` before the wait and `resumed` after the wait. A pause that was resumed
  /// before the thread saw the pause gets both calls, too. Set before the task starts.
  void onPause(std::function<void()> paused, std::function<void()> resumed);

  /// On the task's thread. Waits while paused. False when the task must end.
  bool keepGoing();
  /// On the task's thread, when all its work is done. As keepGoing, until every pause is reported. From then
  /// on the task is ending and refuses pause() and stop(). False when the task was stopped.
  bool finish();

 private:
  enum class Phase { kRunning, kPaused, kStopping, kFinished };
  std::atomic<Phase> phase_{Phase::kRunning};
  std::atomic<bool> pauseUnseen_{false};
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string reason_;
  std::function<void()> onStop_, onPaused_, onResumed_;
  std::function<void()> hold_ = [] {}, release_ = [] {};
};

}  // namespace agent
