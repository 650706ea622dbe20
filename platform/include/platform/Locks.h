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

class CRwLock {
 public:
  void lockRead() { mutex_.lock_shared(); }
  void unlockRead() { mutex_.unlock_shared(); }
  void lockWrite() { mutex_.lock(); }
  void unlockWrite() { mutex_.unlock(); }

 private:
  std::shared_mutex mutex_;
};

class CReadLocker {
 public:
  explicit CReadLocker(CRwLock& lock) : lock_(lock) { lock_.lockRead(); }
  ~CReadLocker() { lock_.unlockRead(); }
  CReadLocker(const CReadLocker&) = delete;
  CReadLocker& operator=(const CReadLocker&) = delete;

 private:
  CRwLock& lock_;
};

class CWriteLocker {
 public:
  explicit CWriteLocker(CRwLock& lock) : lock_(lock) { lock_.lockWrite(); }
  ~CWriteLocker() { lock_.unlockWrite(); }
  CWriteLocker(const CWriteLocker&) = delete;
  CWriteLocker& operator=(const CWriteLocker&) = delete;

 private:
  CRwLock& lock_;
};
