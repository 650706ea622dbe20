#include "task/TaskControl.h"

namespace agent {

bool TaskControl::pause() {
  const std::lock_guard guard(mutex_);
  if (phase_ != Phase::kRunning) {
    return false;
  }
  pauseUnseen_ = true;  // first: a pause that is seen by its phase is not told a second time
  phase_ = Phase::kPaused;
  changed_.notify_all();
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

bool TaskControl::waitForStop(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [this] { return phase_ == Phase::kStopping; });
}

bool TaskControl::goOn(const std::function<void()>& quiet, const std::function<void()>& again) {
  while (pauseUnseen_.load(std::memory_order_acquire) ||
         phase_.load(std::memory_order_acquire) != Phase::kRunning) {
    if (stopping()) {
      return false;
    }
    pauseUnseen_ = false;
    quiet();
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return phase_ != Phase::kPaused; });
    }
    if (stopping()) {
      return false;
    }
    again();
  }
  return true;
}

bool TaskControl::finish(const std::function<void()>& quiet, const std::function<void()>& again) {
  while (goOn(quiet, again)) {
    const std::lock_guard guard(mutex_);
    if (phase_ == Phase::kRunning && !pauseUnseen_) {
      phase_ = Phase::kFinished;
      return true;
    }
  }
  return false;
}

}  // namespace agent
