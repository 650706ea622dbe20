#pragma once

#include <chrono>
#include <cstdio>
#include <memory>

namespace tavcli {

/// The standard output and the standard error of an unattended run. What the program prints is queued in
/// memory, and a thread of its own writes the queue, in the order printed. A reader that takes nothing
/// therefore delays neither a print nor a signal nor a timeout. While a stream takes nothing, the lines of
/// the other stream come first. A full queue drops what is printed.
class UnattendedOutput {
 public:
  /// Redirects the two streams. Call after the signals are blocked, before any other thread prints.
  UnattendedOutput();
  /// Gives the two streams back. What is not written by then may be lost.
  ~UnattendedOutput();
  UnattendedOutput(const UnattendedOutput&) = delete;
  UnattendedOutput& operator=(const UnattendedOutput&) = delete;

  /// Waits until everything printed is written. False at the limit.
  bool waitUntilWritten(std::chrono::milliseconds limit);
  /// Whether a full queue has dropped something.
  bool dropped() const;

 private:
  class Queue;
  struct Stream;

  /// When the system gives no stream, the program prints as before.
  std::unique_ptr<Stream> redirect(std::FILE*& stream, int fd, int buffering);

  const std::shared_ptr<Queue> queue_;
  std::unique_ptr<Stream> out_;
  std::unique_ptr<Stream> err_;
};

}  // namespace tavcli
