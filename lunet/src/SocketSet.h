#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/Descriptor.h"

namespace lunet {

/// Is called when a watched socket is ready.
class Watched {
 public:
  virtual void onReady(std::uint32_t events) = 0;

 protected:
  ~Watched() = default;
};

/// Sockets that one thread watches while other threads use them too. The io context's own set would wake its
/// thread for every message and try each socket twice. Adding, changing and removing: any thread.
class SocketSet {
 public:
  SocketSet();
  /// events: EPOLLIN, EPOLLOUT, EPOLLRDHUP; EPOLLET for edge-triggered. key, for change and remove, is set
  /// before the first event; 0 when this throws (no memory, or too many watched sockets).
  void add(int fd, std::uint32_t events, std::weak_ptr<Watched> watched, std::uint64_t& key);
  void change(int fd, std::uint64_t key, std::uint32_t events);
  void remove(int fd, std::uint64_t key);
  /// Waits (-1: without limit) and calls the objects of ready sockets. The set's own thread. An exception of
  /// one object is thrown after the calls of the others.
  void dispatch(int timeoutMs);
  int fd() const { return set_.get(); }

 private:
  const platform::Descriptor set_;
  std::mutex mutex_;
  std::uint64_t nextKey_ = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<Watched>> watched_;
};

/// The io thread's set: hang-ups, sockets that take queued bytes again, and late answers.
class Watcher : public SocketSet {
 public:
  explicit Watcher(asio::io_context& io);
  void start();  ///< from now on io.run() dispatches; an exception of an object leaves run()

 private:
  asio::posix::stream_descriptor waiting_;
};

/// The delivery thread's set, and its loop.
class DeliveryLoop : public SocketSet {
 public:
  DeliveryLoop();
  void run();   ///< until stop()
  void stop();  ///< any thread

 private:
  class WakeUp;
  std::shared_ptr<WakeUp> wakeUp_;
  std::atomic<bool> stopped_{false};
};

}  // namespace lunet
