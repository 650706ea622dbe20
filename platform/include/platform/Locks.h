#pragma once

#include <mutex>
#include <shared_mutex>

/// A lock that a scoped guard can hold.
class CBasicLock {
 public:
  virtual ~CBasicLock() = default;
  virtual void lock() = 0;
  virtual void unlock() = 0;
};

/// Not recursive. Works with std::lock_guard.
class CMutex : public CBasicLock {
 public:
  void lock() override { mutex_.lock(); }
  void unlock() override { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

using CRwLock = std::shared_mutex;
using CReadLocker = std::shared_lock<CRwLock>;
using CWriteLocker = std::lock_guard<CRwLock>;
