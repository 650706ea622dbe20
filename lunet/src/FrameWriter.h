#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "Frame.h"

namespace lunet {

/// A connection with so many queued bytes takes no more messages. A message is taken whole or not at all, so
/// the queue may exceed the limit by one message.
inline constexpr std::size_t kQueueFullBytes = 32 << 20;

/// Writes frames to one socket, whole and in order, without blocking. Any thread. The bytes that the socket
/// does not take are queued until flush. The descriptor is not owned, and not used after close().
class FrameWriter {
 public:
  /// wantWrite: called under the writer's lock, with true when bytes begin to wait, with false when none
  /// wait. The callee calls flush when the socket is writable.
  FrameWriter(int fd, std::function<void(bool)> wantWrite);

  /// kErrPeerLost: the peer has hung up, or close() was called; the frame did not reach the peer.
  /// kErrQueueFull: nothing was queued. kErrSystem: no memory to queue the rest of a frame. The peer may have
  /// a part of the frame, so the connection is shut and the writer closed.
  Error write(const FrameHeader& header, const void* data);
  /// Writes the queued bytes that the socket takes now. False when the peer is gone.
  bool flush();
  void close();
  /// Waits until nothing is queued, or the writer is closed, or the deadline (monotonic) has passed.
  void waitUntilDrained(std::chrono::steady_clock::time_point deadline);
  std::size_t queuedBytes();

 private:
  enum class Sent { kAll, kSome, kGone };
  Sent sendNow(const FrameHeader& header, const void* data, std::size_t& sent);
  Error keep(const FrameHeader& header, const void* data, std::size_t alreadySent);
  void dropAll();
  void enqueue(const FrameHeader& header, const void* data, std::size_t alreadySent);
  Sent sendQueue();
  void consume(std::size_t count);

  const int fd_;
  const std::function<void(bool)> wantWrite_;
  std::mutex mutex_;
  std::condition_variable drained_;
  bool closed_ = false;
  std::deque<std::string> queue_;
  std::size_t headOffset_ = 0;  ///< of the first unsent byte in queue_.front()
  std::size_t queuedBytes_ = 0;
};

}  // namespace lunet
