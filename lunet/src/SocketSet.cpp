#include "SocketSet.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

namespace lunet {

namespace {

/// The descriptor; throws std::system_error when there is none.
int checked(int fd, const char* what) {
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return fd;
}

}  // namespace

SocketSet::SocketSet() : set_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {}

void SocketSet::add(int fd, std::uint32_t events, std::weak_ptr<Watched> watched, std::uint64_t& key) {
  {
    const std::lock_guard lock(mutex_);
    key = nextKey_++;
    watched_.emplace(key, std::move(watched));
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (epoll_ctl(set_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    const std::system_error failure(errno, std::generic_category(), "epoll_ctl");
    const std::lock_guard lock(mutex_);
    watched_.erase(std::exchange(key, 0));
    throw failure;
  }
}

void SocketSet::change(int fd, std::uint64_t key, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  (void)epoll_ctl(set_.get(), EPOLL_CTL_MOD, fd, &event);
}

void SocketSet::remove(int fd, std::uint64_t key) {
  epoll_event event{};
  (void)epoll_ctl(set_.get(), EPOLL_CTL_DEL, fd, &event);
  const std::lock_guard lock(mutex_);
  watched_.erase(key);
}

void SocketSet::dispatch(int timeoutMs) {
  std::array<epoll_event, 64> events;  // NOLINT: the kernel fills the part that is read
  const int count = epoll_wait(set_.get(), events.data(), static_cast<int>(events.size()), timeoutMs);
  std::exception_ptr failure;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<std::size_t>(i)];
    std::shared_ptr<Watched> watched;
    {
      const std::lock_guard lock(mutex_);
      const auto found = watched_.find(event.data.u64);
      watched = found == watched_.end() ? nullptr : found->second.lock();
    }
    try {
      if (watched) {
        watched->onReady(event.events);
      }
    } catch (...) {
      failure = std::current_exception();
    }
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

Watcher::Watcher(asio::io_context& io)
    : waiting_(io, checked(fcntl(fd(), F_DUPFD_CLOEXEC, 0), "F_DUPFD_CLOEXEC")) {}

void Watcher::start() {
  waiting_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
    if (error) {
      return;
    }
    std::exception_ptr failure;
    try {
      dispatch(0);
    } catch (...) {
      failure = std::current_exception();
    }
    start();
    if (failure) {
      std::rethrow_exception(failure);
    }
  });
}

/// Wakes the delivery thread.
class DeliveryLoop::WakeUp final : public Watched {
 public:
  WakeUp() : fd_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {}
  int fd() const { return fd_.get(); }
  void signal() const { (void)eventfd_write(fd_.get(), 1); }
  void onReady(std::uint32_t) override {
    eventfd_t ignored = 0;
    (void)eventfd_read(fd_.get(), &ignored);
  }

 private:
  const platform::Descriptor fd_;
};

DeliveryLoop::DeliveryLoop() : wakeUp_(std::make_shared<WakeUp>()) {
  std::uint64_t key = 0;
  add(wakeUp_->fd(), EPOLLIN, wakeUp_, key);
}

void DeliveryLoop::run() {
  while (!stopped_) {
    dispatch(-1);
  }
}

void DeliveryLoop::stop() {
  stopped_ = true;
  wakeUp_->signal();
}

}  // namespace lunet
