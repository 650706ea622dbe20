#include "Watcher.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace lunet {

namespace {

int newSet() {
  const int fd = epoll_create1(EPOLL_CLOEXEC);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_create1");
  }
  return fd;
}

}  // namespace

Watcher::Watcher(asio::io_context& io) : set_(io, newSet()) {}

void Watcher::start() {
  wait();
}

void Watcher::stop() {
  asio::error_code ignored;
  set_.cancel(ignored);
}

std::uint64_t Watcher::add(int fd, std::uint32_t events, std::weak_ptr<Watched> watched) {
  std::uint64_t key = 0;
  {
    const std::lock_guard lock(mutex_);
    key = nextKey_++;
    watched_.emplace(key, std::move(watched));
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (epoll_ctl(set_.native_handle(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
  return key;
}

void Watcher::change(int fd, std::uint64_t key, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  (void)epoll_ctl(set_.native_handle(), EPOLL_CTL_MOD, fd, &event);
}

void Watcher::remove(int fd, std::uint64_t key) {
  epoll_event event{};
  (void)epoll_ctl(set_.native_handle(), EPOLL_CTL_DEL, fd, &event);
  const std::lock_guard lock(mutex_);
  watched_.erase(key);
}

void Watcher::wait() {
  set_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
    if (!error) {
      dispatch();
      wait();
    }
  });
}

void Watcher::dispatch() {
  std::array<epoll_event, 64> events{};
  const int count = epoll_wait(set_.native_handle(), events.data(), static_cast<int>(events.size()), 0);
  for (int i = 0; i < count; ++i) {
    std::shared_ptr<Watched> watched;
    {
      const std::lock_guard lock(mutex_);
      const auto found = watched_.find(events[static_cast<std::size_t>(i)].data.u64);
      watched = found == watched_.end() ? nullptr : found->second.lock();
    }
    if (watched) {
      watched->onReady(events[static_cast<std::size_t>(i)].events);
    }
  }
}

}  // namespace lunet
