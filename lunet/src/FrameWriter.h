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

/// Queued bytes from which on a connection takes no more messages. A message is taken whole or not at all,
/// so the queue may pass this by one message.
inline constexpr std::size_t kQueueFullBytes = 32 << 20;

/// Puts frames on one socket, whole and in order, from any thread, without blocking. What the socket does
/// not take at once is queued, up to kQueueFullBytes, and goes out when `wantWrite(true)`'s reader of
/// events calls flush. The descriptor is not owned; nobody touches it here after close().
class FrameWriter {
 public:
  enum class Result { kTaken, kFull, kGone, kBroken };
  /// wantWrite is called under the writer's lock, with true when bytes wait and with false when none do.
  FrameWriter(int fd, std::function<void(bool)> wantWrite);

  /// kGone: the other side has hung up (or close() was called); this frame did not reach it. kBroken: no
  /// memory for what the socket did not take. The other side may have a part of the frame, and would take the
  /// next one for the rest: the connection is shut and the writer closed.
  Result write(const FrameHeader& header, const void* data);
  /// Writes what the socket takes now. False when the other side is gone.
  bool flush();
  void close();
  /// Waits until nothing is queued, or the writer is closed, or the deadline (monotonic) has passed.
  void waitUntilDrained(std::chrono::steady_clock::time_point deadline);
  std::size_t queuedBytes();

 private:
  enum class Sent { kAll, kSome, kGone };
  Sent sendNow(const FrameHeader& header, const void* data, std::size_t& sent);
  Result keep(const FrameHeader& header, const void* data, std::size_t alreadySent);
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
