#include "bin/UnattendedOutput.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace tavcli {

namespace {

constexpr std::size_t kMostBytes = 8 << 20;
constexpr std::size_t kPieceBytes = 64 << 10;
/// The wait for a stream before the other stream's lines come first.
constexpr int kPatienceMs = 500;

bool takesBytes(int fd, int waitMs) {
  pollfd watched{fd, POLLOUT, 0};
  return poll(&watched, 1, waitMs) > 0;
}

}  // namespace

/// Lives until the writing thread has ended, and so perhaps until the end of the process.
class UnattendedOutput::Queue {
 public:
  void print(int fd, std::string_view text) {
    const std::lock_guard lock(mutex_);
    if (bytes_ + text.size() > kMostBytes) {
      dropped_ = true;
      return;
    }
    if (pieces_.empty() || pieces_.back().fd != fd || pieces_.back().text.size() > kPieceBytes) {
      pieces_.push_back({fd, ""});
    }
    pieces_.back().text += text;
    bytes_ += text.size();
    changed_.notify_all();
  }

  bool waitUntilWritten(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return bytes_ == 0; });
  }

  bool dropped() const {
    const std::lock_guard lock(mutex_);
    return dropped_;
  }

  void end() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  /// The body of the writing thread.
  void writeAll() {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return ended_ || !pieces_.empty(); });
      if (pieces_.empty()) {
        return;
      }
      writeSome(lock);
    }
  }

 private:
  struct Piece {
    int fd;
    std::string text;
  };

  /// Writes a part of the first piece, or of the other stream's first piece.
  void writeSome(std::unique_lock<std::mutex>& lock) {
    auto piece = pieces_.begin();
    if (!ready(lock, piece->fd, kPatienceMs)) {
      const int stuck = piece->fd;
      piece = std::find_if(pieces_.begin(), pieces_.end(),
                           [stuck](const Piece& other) { return other.fd != stuck; });
      if (piece == pieces_.end() || !ready(lock, piece->fd, 0)) {
        return;
      }
    }
    const int fd = piece->fd;
    // A pipe that is ready takes so many bytes without a wait.
    const std::string text = piece->text.substr(0, PIPE_BUF);
    lock.unlock();
    const ssize_t written = write(fd, text.data(), text.size());
    const bool again = written < 0 && (errno == EINTR || errno == EAGAIN);
    lock.lock();
    if (!again) {  // after another error the bytes are lost: nobody reads them
      drop(piece, written < 0 ? text.size() : static_cast<std::size_t>(written));
    }
  }

  static bool ready(std::unique_lock<std::mutex>& lock, int fd, int waitMs) {
    lock.unlock();
    const bool takes = takesBytes(fd, waitMs);
    lock.lock();
    return takes;
  }

  void drop(std::list<Piece>::iterator piece, std::size_t count) {
    piece->text.erase(0, count);
    bytes_ -= count;
    if (piece->text.empty()) {
      pieces_.erase(piece);
    }
    if (bytes_ == 0) {
      changed_.notify_all();
    }
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Piece> pieces_;  ///< printers append; iterators of the writing thread stay valid
  std::size_t bytes_ = 0;    ///< in pieces_
  bool dropped_ = false;
  bool ended_ = false;
};

/// A stream of the program that prints into the queue.
struct UnattendedOutput::Stream {
  Stream(std::FILE*& place, std::shared_ptr<Queue> target, int number)
      : stream(place), before(place), queue(std::move(target)), fd(number) {}
  ~Stream() {
    if (stream != before) {
      std::FILE* const mine = stream;
      stream = before;
      std::fclose(mine);
    }
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  std::FILE*& stream;
  std::FILE* const before;
  const std::shared_ptr<Queue> queue;
  const int fd;
};

std::unique_ptr<UnattendedOutput::Stream> UnattendedOutput::redirect(std::FILE*& stream, int fd,
                                                                     int buffering) {
  auto redirected = std::make_unique<Stream>(stream, queue_, fd);
  cookie_io_functions_t calls{};
  calls.write = [](void* cookie, const char* text, std::size_t size) -> ssize_t {
    const auto* const to = static_cast<const Stream*>(cookie);
    to->queue->print(to->fd, {text, size});
    return static_cast<ssize_t>(size);
  };
  std::fflush(stream);
  if (std::FILE* const mine = fopencookie(redirected.get(), "w", calls); mine != nullptr) {
    std::setvbuf(mine, nullptr, buffering, BUFSIZ);
    stream = mine;
  }
  return redirected;
}

UnattendedOutput::UnattendedOutput() : queue_(std::make_shared<Queue>()) {
  std::thread([queue = queue_] { queue->writeAll(); }).detach();
  out_ = redirect(stdout, STDOUT_FILENO, _IOFBF);
  err_ = redirect(stderr, STDERR_FILENO, _IOLBF);
}

UnattendedOutput::~UnattendedOutput() {
  out_.reset();
  err_.reset();
  queue_->end();
}

bool UnattendedOutput::waitUntilWritten(std::chrono::milliseconds limit) {
  std::fflush(stdout);
  std::fflush(stderr);
  return queue_->waitUntilWritten(limit);
}

bool UnattendedOutput::dropped() const {
  return queue_->dropped();
}

}  // namespace tavcli
