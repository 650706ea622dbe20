#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "SocketSet.h"
#include "platform/Descriptor.h"

namespace {

/// A socket that is ready from the beginning. onReady removes this socket or another one from the set.
class Ready final : public lunet::Watched {
 public:
  void onReady(std::uint32_t) override {
    ++notified;
    if (then) {
      then();
    }
  }

  const platform::Descriptor fd{eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::uint64_t key = 0;
  int notified = 0;
  std::function<void()> then;
};

class SocketSetTest : public testing::Test {
 protected:
  std::shared_ptr<Ready> addOne() {
    auto one = std::make_shared<Ready>();
    set.add(one->fd.get(), EPOLLIN, one, one->key);
    return one;
  }
  void remove(const std::shared_ptr<Ready>& one) { set.remove(one->fd.get(), one->key); }

  lunet::SocketSet set;
};

TEST_F(SocketSetTest, WhatIsReadyIsNotifiedUntilItIsRemoved) {
  const auto one = addOne();
  set.dispatch(0);
  set.dispatch(0);
  EXPECT_EQ(one->notified, 2);
  remove(one);
  set.dispatch(0);
  EXPECT_EQ(one->notified, 2);
}

TEST_F(SocketSetTest, WhatTheSystemCannotWatchIsAnErrorAndHasNoKey) {
  const auto one = std::make_shared<Ready>();
  const platform::Descriptor file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  one->key = 7;
  EXPECT_THROW(set.add(file.get(), EPOLLIN, one, one->key), std::system_error);
  EXPECT_EQ(one->key, 0u);
}

TEST_F(SocketSetTest, WhatAnotherThatIsReadyAtTheSameTimeRemovesIsNotNotifiedAnyMore) {
  const auto one = addOne();
  const auto other = addOne();
  one->then = [&] { remove(other); };
  other->then = [&] { remove(one); };
  set.dispatch(0);
  EXPECT_EQ(one->notified + other->notified, 1);
}

TEST_F(SocketSetTest, AnExceptionOfOneKeepsNoOtherFromItsEvent) {
  const auto one = addOne();
  const auto other = addOne();
  one->then = other->then = [] { throw std::runtime_error("thrown by a test"); };
  EXPECT_THROW(set.dispatch(0), std::runtime_error);
  EXPECT_EQ(one->notified + other->notified, 2);
}

TEST(WatcherTest, StillWatchesAfterAnException) {
  asio::io_context io;
  lunet::Watcher watcher(io);
  watcher.start();
  const auto one = std::make_shared<Ready>();
  watcher.add(one->fd.get(), EPOLLIN, one, one->key);
  one->then = [] { throw std::runtime_error("thrown by a test"); };
  EXPECT_THROW(io.run_one(), std::runtime_error);
  EXPECT_THROW(io.run_one(), std::runtime_error);
  EXPECT_EQ(one->notified, 2);
}

}  // namespace
