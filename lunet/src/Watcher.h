#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace lunet {

/// What the io thread calls when a watched socket has something for it. Must not throw.
class Watched {
 public:
  virtual void onReady(std::uint32_t events) = 0;

 protected:
  ~Watched() = default;
};

/// A set of sockets that the io thread keeps an eye on while other threads read and write them: for a
/// hang-up, for room to write what is queued, for an answer that nobody waits for any more. A set of its
/// own, because a socket given to the io context itself would wake its thread for every message.
/// Any thread, except start() and stop().
class Watcher {
 public:
  explicit Watcher(asio::io_context& io);
  void start();
  void stop();  ///< on the io thread, or when it has ended

  /// events: EPOLLIN, EPOLLOUT, EPOLLRDHUP; zero only for a socket that will get some by change().
  std::uint64_t add(int fd, std::uint32_t events, std::weak_ptr<Watched> watched);
  void change(int fd, std::uint64_t key, std::uint32_t events);
  void remove(int fd, std::uint64_t key);

 private:
  void wait();
  void dispatch();

  asio::posix::stream_descriptor set_;
  std::mutex mutex_;
  std::uint64_t nextKey_ = 1;
  std::unordered_map<std::uint64_t, std::weak_ptr<Watched>> watched_;
};

}  // namespace lunet
