#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "lunet/BusClient.h"
#include "lunet/Lunet.h"
#include "platform/Descriptor.h"
#include "platform/Text.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/NotificationQueue.h"

namespace agent {
namespace {

using ::testing::ElementsAre;
using testsupport::waitFor;

constexpr auto kProgress = NotificationKind::kProgress;
constexpr auto kOverview = NotificationKind::kOverview;
constexpr auto kKept = NotificationKind::kKept;

/// A console that takes notifications, or answers with an error.
class FakeConsole {
 public:
  SendNotification notification(const std::string& text) {
    return [this, text]() -> std::uint32_t {
      const std::lock_guard guard(mutex_);
      ++tries_;
      if (answer_ == lunet::kOk) {
        taken_.push_back(text);
      }
      return answer_;
    };
  }
  void answer(std::uint32_t error) {
    const std::lock_guard guard(mutex_);
    answer_ = error;
  }
  std::vector<std::string> taken() const {
    const std::lock_guard guard(mutex_);
    return taken_;
  }
  int tries() const {
    const std::lock_guard guard(mutex_);
    return tries_;
  }

 private:
  mutable std::mutex mutex_;
  std::uint32_t answer_ = lunet::kOk;
  std::vector<std::string> taken_;
  int tries_ = 0;
};

NotificationQueue::Limits quick() {
  NotificationQueue::Limits limits;
  limits.keptBytes = 1000;
  limits.retry = std::chrono::milliseconds(1);
  return limits;
}

std::shared_ptr<Receiver> aReceiver() {
  return std::make_shared<Receiver>("a console");
}
bool never() {
  return false;
}

TEST(NotificationQueue, NoticesLeaveInTheOrderTheyWerePosted) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    queue.post(receiver, kKept, 10, console.notification(std::to_string(i)));
    expected.push_back(std::to_string(i));
  }
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_EQ(expected, console.taken());
}

TEST(NotificationQueue, WhileTheReceiverStallsOnlyTheNewestProgressAndOverviewAreKept) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, console.notification("risk 1"));
  ASSERT_TRUE(waitFor([&] { return console.tries() > 1; }));
  for (int i = 0; i < 50; ++i) {
    queue.post(receiver, kProgress, 10, console.notification("progress " + std::to_string(i)));
    queue.post(receiver, kOverview, 10, console.notification("overview " + std::to_string(i)));
  }
  queue.post(receiver, kKept, 10, console.notification("risk 2"));
  queue.post(receiver, kOverview, 10, console.notification("last overview"));
  queue.post(receiver, kKept, 10, console.notification("state 2"));
  console.answer(lunet::kOk);
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("risk 1", "progress 49", "risk 2", "last overview", "state 2"));
}

TEST(NotificationQueue, AStalledReceiverHoldsUpNobodyElse) {
  FakeConsole stalled;
  stalled.answer(lunet::kErrQueueFull);
  FakeConsole other;
  NotificationQueue queue(quick());
  queue.post(aReceiver(), kKept, 10, stalled.notification("x"));
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, other.notification("1"));
  queue.post(receiver, kKept, 10, other.notification("2"));
  EXPECT_TRUE(waitFor([&] { return other.taken().size() == 2; }));
}

TEST(NotificationQueue, PostingNeverWaits) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  for (int i = 0; i < 1000; ++i) {
    queue.post(receiver, kKept, 100, [released]() -> std::uint32_t {
      released.wait();
      return lunet::kOk;
    });
  }
  release.set_value();
  EXPECT_TRUE(queue.drain(std::chrono::seconds(10)));
}

class GoneOn : public ::testing::TestWithParam<std::pair<const char*, std::uint32_t>> {};

TEST_P(GoneOn, TheRestIsDroppedAndNothingMoreIsTried) {
  FakeConsole console;
  console.answer(GetParam().second);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  // Both are on their way before the first is tried.
  std::promise<void> gate;
  queue.post(aReceiver(), kKept, 0, [opened = gate.get_future().share()]() -> std::uint32_t {
    opened.wait();
    return lunet::kOk;
  });
  queue.post(receiver, kKept, 10, console.notification("1"));
  queue.post(receiver, kKept, 10, console.notification("2"));
  gate.set_value();
  ASSERT_TRUE(waitFor([&] { return queue.gone(receiver); }));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  console.answer(lunet::kOk);
  queue.post(receiver, kKept, 10, console.notification("3"));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_EQ(1, console.tries());
  EXPECT_TRUE(console.taken().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Errors, GoneOn,
    ::testing::Values(std::pair("NobodyAtTheAddress", std::uint32_t{lunet::kErrNoTarget}),
                      std::pair("AnotherProcessAtTheAddress", std::uint32_t{lunet::kErrNotSame}),
                      std::pair("TheEndpointClosed", std::uint32_t{lunet::kErrNotOpen}),
                      std::pair("ADeniedPeer", std::uint32_t{lunet::kErrDenied})),
    [](const auto& row) { return std::string(row.param.first); });

class RetriedOn : public ::testing::TestWithParam<std::pair<const char*, std::uint32_t>> {};

TEST_P(RetriedOn, TheNoticeIsTriedAgainAndNotLost) {
  FakeConsole console;
  console.answer(GetParam().second);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, console.notification("1"));
  queue.post(receiver, kKept, 10, console.notification("2"));
  ASSERT_TRUE(waitFor([&] { return console.tries() > 1; }));
  EXPECT_FALSE(queue.gone(receiver));
  console.answer(lunet::kOk);
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

INSTANTIATE_TEST_SUITE_P(Errors, RetriedOn,
                         ::testing::Values(std::pair("AFullQueue", std::uint32_t{lunet::kErrQueueFull}),
                                           std::pair("ATimeout", std::uint32_t{lunet::kErrTimeout}),
                                           std::pair("ALostPeer", std::uint32_t{lunet::kErrPeerLost}),
                                           std::pair("WantOfMemory", std::uint32_t{lunet::kErrSystem})),
                         [](const auto& row) { return std::string(row.param.first); });

TEST(NotificationQueue, ANoticeThatIsTriedAgainLeavesBeforeThoseBehindIt) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  std::atomic<int> tries{0};
  queue.post(receiver, kKept, 10, [&, first = console.notification("1")]() -> std::uint32_t {
    return ++tries == 1 ? lunet::kErrQueueFull : first();
  });
  queue.post(receiver, kKept, 10, console.notification("2"));
  queue.post(receiver, kKept, 10, console.notification("3"));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2", "3"));
}

TEST(NotificationQueue, AProgressThatWasNotTakenGivesWayToANewerOneThatCameMeanwhile) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  std::atomic<int> tries{0};
  queue.post(receiver, kProgress, 10, [&]() -> std::uint32_t {
    if (++tries == 1) {
      queue.post(receiver, kProgress, 10, console.notification("newer"));
    }
    return tries == 1 ? lunet::kErrQueueFull : lunet::kOk;
  });
  ASSERT_TRUE(waitFor([&] { return !console.taken().empty(); }));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_EQ(1, tries);
  EXPECT_THAT(console.taken(), ElementsAre("newer"));
}

TEST(NotificationQueue, WhatIsPostedByTheActionLeavesBeforeTheActionThatIsSetThen) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  std::promise<void> second;
  queue.post(receiver, kKept, 10, console.notification("1"));
  queue.onDelivered(receiver, [&] {
    queue.post(receiver, kKept, 10, console.notification("2"));
    queue.onDelivered(receiver, [&] { second.set_value(); });
  });
  EXPECT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

TEST(NotificationQueue, ANoticeThatIsPostedByTheActionBehindTheLastOneLeavesToo) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, console.notification("1"));
  queue.onDelivered(receiver, [&] { queue.post(receiver, kKept, 10, console.notification("2")); });
  EXPECT_TRUE(waitFor([&] { return console.taken().size() == 2; }));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

TEST(NotificationQueue, AnActionThatIsSetByTheActionBeforeItRunsToo) {
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  std::promise<void> second;
  std::atomic<int> first{0};
  queue.onDelivered(receiver, [&] {
    ++first;
    queue.onDelivered(receiver, [&] { second.set_value(); });
  });
  EXPECT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_EQ(1, first);
}

TEST(NotificationQueue, AStalledReceiverIsGivenUpAlsoWhileMoreIsPosted) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue::Limits limits = quick();
  limits.stall = std::chrono::milliseconds(100);
  NotificationQueue queue(limits);
  const auto receiver = aReceiver();
  EXPECT_TRUE(waitFor([&] {
    queue.post(receiver, kKept, 10, console.notification("x"));
    return queue.gone(receiver);
  }));
}

TEST(NotificationQueue, AReceiverThatTakesItsNoticesSlowlyIsNotStalled) {
  FakeConsole console;
  NotificationQueue::Limits limits = quick();
  limits.stall = std::chrono::milliseconds(1500);
  NotificationQueue queue(limits);
  const auto receiver = aReceiver();
  for (int i = 0; i < 12; ++i) {
    queue.post(receiver, kKept, 10, [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(140));  // the receiver's own time
      return std::uint32_t{lunet::kOk};
    });
  }
  std::atomic<int> tries{0};
  queue.post(receiver, kKept, 10,
             [&]() -> std::uint32_t { return ++tries == 1 ? lunet::kErrQueueFull : lunet::kOk; });
  ASSERT_TRUE(queue.drain(std::chrono::seconds(20)));
  EXPECT_FALSE(queue.gone(receiver));
  EXPECT_EQ(2, tries);
}

TEST(NotificationQueue, ANoticeThatIsTooLargeCostsItselfOnly) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, []() -> std::uint32_t { return lunet::kErrTooLarge; });
  queue.post(receiver, kKept, 10, console.notification("next"));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("next"));
}

TEST(NotificationQueue, ANoticeThatThrowsCostsItselfOnly) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, []() -> std::uint32_t { throw std::runtime_error("no"); });
  queue.post(receiver, kKept, 10, console.notification("next"));
  ASSERT_TRUE(queue.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("next"));
}

TEST(NotificationQueue, AReceiverThatTakesNothingForTheStallLimitCountsAsGone) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue::Limits limits = quick();
  limits.stall = std::chrono::milliseconds(20);
  NotificationQueue queue(limits);
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, console.notification("1"));
  EXPECT_TRUE(waitFor([&] { return queue.gone(receiver); }));
}

TEST(NotificationQueue, WaitForRoomWaitsUntilTheReceiverTakesAgain) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  for (int i = 0; i < 30; ++i) {
    queue.post(receiver, kKept, 100, console.notification(std::to_string(i)));
  }
  std::atomic<bool> room{false};
  std::thread waiter([&] {
    queue.waitForQuota(receiver, never);
    room = true;
  });
  ASSERT_TRUE(waitFor([&] { return console.tries() > 3; }));
  EXPECT_FALSE(room);
  console.answer(lunet::kOk);
  EXPECT_TRUE(waitFor([&] { return room.load(); }));
  waiter.join();
}

TEST(NotificationQueue, WaitForRoomEndsWhenCancelled) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 5000, console.notification("x"));
  queue.waitForQuota(receiver, [] { return true; });
}

TEST(NotificationQueue, WaitForRoomEndsWhenTheReceiverIsGone) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 5000, console.notification("x"));
  std::thread waiter([&] { queue.waitForQuota(receiver, never); });
  console.answer(lunet::kErrNotSame);
  waiter.join();
  EXPECT_TRUE(queue.gone(receiver));
}

TEST(NotificationQueue, WhenEmptyRunsBehindTheLastNotice) {
  FakeConsole console;
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, console.notification("1"));
  queue.post(receiver, kKept, 10, console.notification("2"));
  std::promise<std::size_t> taken;
  queue.onDelivered(receiver, [&] { taken.set_value(console.taken().size()); });
  EXPECT_EQ(2U, taken.get_future().get());
}

TEST(NotificationQueue, WhenEmptyRunsAlsoForAReceiverThatIsGone) {
  FakeConsole console;
  console.answer(lunet::kErrNoTarget);
  NotificationQueue queue(quick());
  const auto receiver = aReceiver();
  queue.post(receiver, kKept, 10, console.notification("1"));
  std::promise<void> done;
  queue.onDelivered(receiver, [&] { done.set_value(); });
  EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(10)));
}

TEST(NotificationQueue, EndsWhileAReceiverStalls) {
  FakeConsole console;
  console.answer(lunet::kErrQueueFull);
  NotificationQueue queue(quick());
  queue.post(aReceiver(), kKept, 10, console.notification("1"));
  EXPECT_FALSE(queue.drain(std::chrono::milliseconds(5)));
}

/// Posts one by one, and waits for each delivery. Returns the number of deliveries.
int takenOneByOne(NotificationQueue& queue, FakeConsole& console, int count) {
  const auto receiver = aReceiver();
  for (int i = 0; i < count; ++i) {
    queue.post(receiver, kKept, 10, console.notification("x"));
    if (!waitFor([&] { return console.taken().size() == static_cast<std::size_t>(i) + 1; })) {
      return i;
    }
  }
  return count;
}

/// A send that runs out of time, as does a send to an endpoint that finishes no handshake.
SendNotification timesOut(std::atomic<int>& tries) {
  return [&tries]() -> std::uint32_t {
    ++tries;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return lunet::kErrTimeout;
  };
}

TEST(NotificationQueue, WhatOneEndpointOfAMemberTakesFromTheSenderCountsAgainstAllOfHis) {
  std::atomic<int> tries{0};
  NotificationQueue queue(quick());
  std::vector<std::shared_ptr<Receiver>> boxes;
  for (int i = 0; i < 20; ++i) {
    boxes.push_back(std::make_shared<Receiver>("a member's console", 4711));
    queue.post(boxes.back(), kKept, 10, timesOut(tries));
  }
  ASSERT_TRUE(waitFor([&] { return tries > 0; }));
  FakeConsole other;
  EXPECT_EQ(20, takenOneByOne(queue, other, 20));
  EXPECT_EQ(1, tries);
}

/// Receives on an endpoint of the real bus.
class BusConsole final : public lunet::IMRReceiveComplete {
 public:
  explicit BusConsole(lunet::IClient& client) : endpoint(client.CreateEndpoint()), client_(client) {
    guid = lunet::parseGuid(CUuid::generate().c_str());
    endpoint->RegisterReceiver(lunet::kOnewayChannel, this, nullptr);
    EXPECT_EQ(endpoint->Open(guid), lunet::kOk);
  }
  ~BusConsole() { client_.DestroyEndpoint(endpoint); }
  BusConsole(const BusConsole&) = delete;
  BusConsole& operator=(const BusConsole&) = delete;

  void ReceiveCallback(std::uint32_t, std::uint64_t, const void*, std::uint32_t, void*, void*) override {
    endpoint->GetPeerIdentity(&sender);
    ++count;
  }

  lunet::IEndpoint* const endpoint;
  lunet::Guid guid{};
  lunet::PeerIdentity sender;  // of the last message; read when count has been
  std::atomic<int> count{0};

 private:
  lunet::IClient& client_;
};

TEST(NotificationQueueOnTheBus, AConsoleThatNeverWelcomesKeepsNoOtherWaiting) {
  const testsupport::TempDir tree;
  lunet::BusClient bus;
  ASSERT_TRUE(bus.load(TAV_LIB_DIR "/libLunetClientMgr.so"));
  ASSERT_EQ(lunet::kOk, bus.init("{\"runtime_path\":\"" + tree.path() + "\"}", "test"));
  BusConsole agent(*bus.client());
  BusConsole console(*bus.client());
  ASSERT_EQ(lunet::kOk, console.endpoint->OnewaySend(agent.guid, lunet::kOnewayChannel, "I", 1));
  ASSERT_TRUE(waitFor([&] { return agent.count == 1; }));
  const lunet::PeerIdentity process = agent.sender;

  const lunet::Guid deaf{1, 2, 3};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (tree.at("run/lunet/") + lunet::formatGuid(deaf) + ".sock")
      .copy(address.sun_path, sizeof address.sun_path - 1);
  const platform::Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, listen(listener.get(), 5));

  const auto notice = [&agent, &process](const lunet::Guid& target,
                                         std::atomic<int>& tries) -> SendNotification {
    return [&agent, &process, &target, &tries] {
      ++tries;
      return agent.endpoint->SendToProcess(target, process, lunet::kOnewayChannel, "x", 1);
    };
  };
  std::atomic<int> deafTries{0};
  std::atomic<int> tries{0};
  NotificationQueue queue(quick());
  const auto deafBox = aReceiver();
  queue.post(deafBox, kKept, 10, notice(deaf, deafTries));
  ASSERT_TRUE(waitFor([&] { return deafTries == 1; }));
  const auto receiver = aReceiver();
  for (int i = 1; i <= 200; ++i) {
    queue.post(receiver, kKept, 10, notice(console.guid, tries));
    ASSERT_TRUE(waitFor([&] { return console.count == i; }));
  }
  EXPECT_EQ(1, deafTries);
  EXPECT_FALSE(queue.gone(deafBox));  // it may come to itself
}

}  // namespace
}  // namespace agent
