#include "task/TaskControl.h"

namespace agent {

bool TaskControl::pause() {
  const std::lock_guard guard(mutex_);
  if (phase_ != Phase::kRunning) {
    return false;
  }
  pauseUnseen_ = true;  // before the phase: the task's thread must not report one pause twice
  phase_ = Phase::kPaused;
  hold_();
  return true;
}

bool TaskControl::resume() {
  const std::lock_guard guard(mutex_);
  if (phase_ != Phase::kPaused) {
    return false;
  }
  phase_ = Phase::kRunning;
  changed_.notify_all();
  return true;
}

bool TaskControl::stop(const std::string& reason) {
  {
    const std::lock_guard guard(mutex_);
    if (phase_ == Phase::kStopping || phase_ == Phase::kFinished) {
      return false;
    }
    phase_ = Phase::kStopping;
    reason_ = reason;
    changed_.notify_all();
  }
  if (onStop_) {
    onStop_();
  }
  return true;
}

std::string TaskControl::stopReason() const {
  const std::lock_guard guard(mutex_);
  return reason_;
}

void TaskControl::onHold(std::function<void()> hold, std::function<void()> release) {
  hold_ = std::move(hold);
  release_ = std::move(release);
}

void TaskControl::onPause(std::function<void()> paused, std::function<void()> resumed) {
  onPaused_ = std::move(paused);
  onResumed_ = std::move(resumed);
}

bool TaskControl::keepGoing() {
  while (pauseUnseen_.load(std::memory_order_acquire) ||
         phase_.load(std::memory_order_acquire) != Phase::kRunning) {
    if (stopping()) {
      return false;
    }
    pauseUnseen_ = false;
    onPaused_();
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return phase_ != Phase::kPaused; });
    }
    if (stopping()) {
      return false;
    }
    onResumed_();
    const std::lock_guard guard(mutex_);
    if (phase_ == Phase::kRunning) {
      release_();
    }
  }
  return true;
}

bool TaskControl::finish() {
  while (keepGoing()) {
    const std::lock_guard guard(mutex_);
    if (phase_ == Phase::kRunning && !pauseUnseen_) {
      phase_ = Phase::kFinished;
      return true;
    }
  }
  return false;
}

}  // namespace agent
