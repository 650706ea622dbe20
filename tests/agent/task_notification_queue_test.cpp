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

NotificationQueue::Limits quick(std::chrono::milliseconds stall = std::chrono::minutes(5)) {
  return {.keptBytes = 1000, .retry = std::chrono::milliseconds(1), .stall = stall};
}

std::shared_ptr<Receiver> aReceiver() {
  return std::make_shared<Receiver>("a console");
}
bool never() {
  return false;
}

/// A queue, and a console with its receiver. Another console serves the tests that need two.
class NotificationQueueTest : public ::testing::Test {
 protected:
  void post(const std::string& text, NotificationKind kind = kKept, std::size_t bytes = 10) {
    queue.post(receiver, kind, bytes, console.notification(text));
  }
  void post(SendNotification send) { queue.post(receiver, kKept, 10, std::move(send)); }
  bool drain() { return queue.drain(std::chrono::seconds(10)); }

  // The queue ends first: its thread uses the others.
  FakeConsole console, other;
  std::atomic<int> tries{0};  ///< of a test's own sends
  const std::shared_ptr<Receiver> receiver = aReceiver();
  NotificationQueue queue{quick()};
};

TEST_F(NotificationQueueTest, NotificationsLeaveInTheOrderTheyWerePosted) {
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    post(std::to_string(i));
    expected.push_back(std::to_string(i));
  }
  ASSERT_TRUE(drain());
  EXPECT_EQ(expected, console.taken());
}

TEST_F(NotificationQueueTest, WhileTheReceiverStallsOnlyTheNewestProgressAndOverviewAreKept) {
  console.answer(lunet::kErrQueueFull);
  post("risk 1");
  ASSERT_TRUE(waitFor([&] { return console.tries() > 1; }));
  for (int i = 0; i < 50; ++i) {
    post("progress " + std::to_string(i), kProgress);
    post("overview " + std::to_string(i), kOverview);
  }
  post("risk 2");
  post("last overview", kOverview);
  post("state 2");
  console.answer(lunet::kOk);
  ASSERT_TRUE(drain());
  EXPECT_THAT(console.taken(), ElementsAre("risk 1", "progress 49", "risk 2", "last overview", "state 2"));
}

TEST_F(NotificationQueueTest, AStalledReceiverHoldsUpNobodyElse) {
  console.answer(lunet::kErrQueueFull);
  post("x");
  const auto second = aReceiver();
  queue.post(second, kKept, 10, other.notification("1"));
  queue.post(second, kKept, 10, other.notification("2"));
  EXPECT_TRUE(waitFor([&] { return other.taken().size() == 2; }));
}

TEST_F(NotificationQueueTest, PostingNeverWaits) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  for (int i = 0; i < 1000; ++i) {
    post([released]() -> std::uint32_t {
      released.wait();
      return lunet::kOk;
    });
  }
  release.set_value();
  EXPECT_TRUE(drain());
}

using ErrorRow = std::pair<const char*, std::uint32_t>;

class GoneOn : public NotificationQueueTest, public ::testing::WithParamInterface<ErrorRow> {};

TEST_P(GoneOn, TheRestIsDroppedAndNothingMoreIsTried) {
  console.answer(GetParam().second);
  // Both are on their way before the first is tried.
  std::promise<void> gate;
  queue.post(aReceiver(), kKept, 0, [opened = gate.get_future().share()]() -> std::uint32_t {
    opened.wait();
    return lunet::kOk;
  });
  post("1");
  post("2");
  gate.set_value();
  ASSERT_TRUE(waitFor([&] { return queue.gone(receiver); }));
  ASSERT_TRUE(drain());
  console.answer(lunet::kOk);
  post("3");
  ASSERT_TRUE(drain());
  EXPECT_EQ(1, console.tries());
  EXPECT_TRUE(console.taken().empty());
}

INSTANTIATE_TEST_SUITE_P(Errors, GoneOn,
                         ::testing::Values(ErrorRow{"NobodyAtTheAddress", lunet::kErrNoTarget},
                                           ErrorRow{"AnotherProcessAtTheAddress", lunet::kErrNotSame},
                                           ErrorRow{"TheEndpointClosed", lunet::kErrNotOpen},
                                           ErrorRow{"ADeniedPeer", lunet::kErrDenied}),
                         [](const auto& row) { return std::string(row.param.first); });

class RetriedOn : public NotificationQueueTest, public ::testing::WithParamInterface<ErrorRow> {};

TEST_P(RetriedOn, TheNotificationIsTriedAgainAndNotLost) {
  console.answer(GetParam().second);
  post("1");
  post("2");
  ASSERT_TRUE(waitFor([&] { return console.tries() > 1; }));
  EXPECT_FALSE(queue.gone(receiver));
  console.answer(lunet::kOk);
  ASSERT_TRUE(drain());
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

INSTANTIATE_TEST_SUITE_P(Errors, RetriedOn,
                         ::testing::Values(ErrorRow{"AFullQueue", lunet::kErrQueueFull},
                                           ErrorRow{"ATimeout", lunet::kErrTimeout},
                                           ErrorRow{"ALostPeer", lunet::kErrPeerLost},
                                           ErrorRow{"WantOfMemory", lunet::kErrSystem}),
                         [](const auto& row) { return std::string(row.param.first); });

TEST_F(NotificationQueueTest, AFullQueueIsTriedAgainAfterThePauseAndNotMuchLater) {
  constexpr auto kPause = std::chrono::milliseconds(50);
  std::vector<std::chrono::steady_clock::time_point> triedAt;
  NotificationQueue patient({.keptBytes = 1000, .retry = kPause, .stall = std::chrono::minutes(5)});
  patient.post(receiver, kKept, 10, [&]() -> std::uint32_t {
    triedAt.push_back(std::chrono::steady_clock::now());
    return triedAt.size() < 10 ? lunet::kErrQueueFull : lunet::kOk;
  });
  ASSERT_TRUE(patient.drain(std::chrono::seconds(20)));  // nine pauses are less than half a second
  ASSERT_EQ(10U, triedAt.size());
  for (std::size_t i = 1; i < triedAt.size(); ++i) {
    EXPECT_GE(triedAt[i] - triedAt[i - 1], kPause);
  }
}

TEST_F(NotificationQueueTest, ANotificationThatIsTriedAgainLeavesBeforeThoseBehindIt) {
  post([&, first = console.notification("1")]() -> std::uint32_t {
    return ++tries == 1 ? lunet::kErrQueueFull : first();
  });
  post("2");
  post("3");
  ASSERT_TRUE(drain());
  EXPECT_THAT(console.taken(), ElementsAre("1", "2", "3"));
}

TEST_F(NotificationQueueTest, AProgressThatWasNotTakenGivesWayToANewerOneThatCameMeanwhile) {
  queue.post(receiver, kProgress, 10, [&]() -> std::uint32_t {
    if (++tries == 1) {
      post("newer", kProgress);
    }
    return tries == 1 ? lunet::kErrQueueFull : lunet::kOk;
  });
  ASSERT_TRUE(waitFor([&] { return !console.taken().empty(); }));
  ASSERT_TRUE(drain());
  EXPECT_EQ(1, tries);
  EXPECT_THAT(console.taken(), ElementsAre("newer"));
}

TEST_F(NotificationQueueTest, AProgressAndAnOverviewThatWereNotTakenGiveWayToNoOtherKind) {
  const std::vector<std::pair<NotificationKind, NotificationKind>> kinds = {
      {kProgress, kOverview}, {kProgress, kKept}, {kOverview, kProgress}, {kOverview, kKept}};
  std::vector<std::string> expected;
  for (const auto& [kind, behind] : kinds) {
    const std::string pair = std::to_string(expected.size());
    tries = 0;
    queue.post(receiver, kind, 10,
               [this, pair, behind = behind, taken = console.notification(pair)]() -> std::uint32_t {
                 if (++tries > 1) {
                   return taken();
                 }
                 post("behind " + pair, behind);
                 return lunet::kErrQueueFull;
               });
    ASSERT_TRUE(drain());
    expected.push_back(pair);
    expected.push_back("behind " + pair);
  }
  EXPECT_EQ(expected, console.taken());
}

TEST_F(NotificationQueueTest, WhatIsPostedByTheActionLeavesBeforeTheActionThatIsSetThen) {
  std::promise<void> second;
  post("1");
  queue.onDelivered(receiver, [&] {
    post("2");
    queue.onDelivered(receiver, [&] { second.set_value(); });
  });
  EXPECT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

TEST_F(NotificationQueueTest, ANotificationThatIsPostedByTheActionBehindTheLastOneLeavesToo) {
  post("1");
  queue.onDelivered(receiver, [&] { post("2"); });
  EXPECT_TRUE(waitFor([&] { return console.taken().size() == 2; }));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

TEST_F(NotificationQueueTest, AnActionThatIsSetByTheActionBeforeItRunsToo) {
  std::promise<void> second;
  std::atomic<int> first{0};
  queue.onDelivered(receiver, [&] {
    ++first;
    queue.onDelivered(receiver, [&] { second.set_value(); });
  });
  EXPECT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
  ASSERT_TRUE(drain());
  EXPECT_EQ(1, first);
}

TEST_F(NotificationQueueTest, AStalledReceiverIsGivenUpAlsoWhileMoreIsPosted) {
  console.answer(lunet::kErrQueueFull);
  NotificationQueue impatient(quick(std::chrono::milliseconds(100)));
  EXPECT_TRUE(waitFor([&] {
    impatient.post(receiver, kKept, 10, console.notification("x"));
    return impatient.gone(receiver);
  }));
}

TEST_F(NotificationQueueTest, AReceiverThatTakesItsNotificationsSlowlyIsNotStalled) {
  NotificationQueue impatient(quick(std::chrono::milliseconds(1500)));
  for (int i = 0; i < 12; ++i) {
    impatient.post(receiver, kKept, 10, [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(140));  // the receiver's own time
      return std::uint32_t{lunet::kOk};
    });
  }
  impatient.post(receiver, kKept, 10,
                 [&]() -> std::uint32_t { return ++tries == 1 ? lunet::kErrQueueFull : lunet::kOk; });
  ASSERT_TRUE(impatient.drain(std::chrono::seconds(20)));
  EXPECT_FALSE(impatient.gone(receiver));
  EXPECT_EQ(2, tries);
}

TEST_F(NotificationQueueTest, ANotificationThatIsTooLargeCostsItselfOnly) {
  post([]() -> std::uint32_t { return lunet::kErrTooLarge; });
  post("next");
  ASSERT_TRUE(drain());
  EXPECT_THAT(console.taken(), ElementsAre("next"));
}

TEST_F(NotificationQueueTest, ANotificationThatThrowsCostsItselfOnly) {
  post([]() -> std::uint32_t { throw std::runtime_error("no"); });
  post("next");
  ASSERT_TRUE(drain());
  EXPECT_THAT(console.taken(), ElementsAre("next"));
}

TEST_F(NotificationQueueTest, AReceiverThatTakesNothingForTheStallLimitCountsAsGone) {
  console.answer(lunet::kErrQueueFull);
  NotificationQueue impatient(quick(std::chrono::milliseconds(20)));
  impatient.post(receiver, kKept, 10, console.notification("1"));
  EXPECT_TRUE(waitFor([&] { return impatient.gone(receiver); }));
  EXPECT_TRUE(impatient.drain(std::chrono::seconds(10))) << "nothing is tried again";
}

TEST_F(NotificationQueueTest, WaitForQuotaWaitsUntilTheReceiverTakesAgain) {
  console.answer(lunet::kErrQueueFull);
  for (int i = 0; i < 30; ++i) {
    post(std::to_string(i), kKept, 100);
  }
  std::atomic<bool> waited{false};
  std::thread waiter([&] {
    queue.waitForQuota(receiver, never);
    waited = true;
  });
  ASSERT_TRUE(waitFor([&] { return console.tries() > 3; }));
  EXPECT_FALSE(waited);
  console.answer(lunet::kOk);
  EXPECT_TRUE(waitFor([&] { return waited.load(); }));
  waiter.join();
}

TEST_F(NotificationQueueTest, WaitForQuotaDoesNotWaitAtTheLimitItself) {
  console.answer(lunet::kErrQueueFull);
  int asked = 0;
  const auto once = [&asked] {
    ++asked;
    return true;
  };
  post("x", kKept, 1000);
  queue.waitForQuota(receiver, once);
  EXPECT_EQ(0, asked);
  post("y", kKept, 1);
  queue.waitForQuota(receiver, once);
  EXPECT_EQ(1, asked);
}

TEST_F(NotificationQueueTest, WhatTheReceiverTookOfProgressLeavesTheQuotaAlone) {
  std::promise<void> posted;
  post([released = posted.get_future().share()]() -> std::uint32_t {
    released.wait();
    return lunet::kOk;
  });
  queue.post(receiver, kProgress, 5000, [this]() -> std::uint32_t {
    console.answer(lunet::kErrQueueFull);
    return lunet::kOk;
  });
  post("x", kKept, 2000);
  posted.set_value();
  ASSERT_TRUE(waitFor([&] { return console.tries() > 0; }));
  bool asked = false;
  queue.waitForQuota(receiver, [&asked] { return asked = true; });
  EXPECT_TRUE(asked);
}

TEST_F(NotificationQueueTest, WaitForQuotaEndsWhenCancelled) {
  console.answer(lunet::kErrQueueFull);
  post("x", kKept, 5000);
  queue.waitForQuota(receiver, [] { return true; });
}

TEST_F(NotificationQueueTest, WaitForQuotaEndsWhenTheReceiverIsGone) {
  console.answer(lunet::kErrQueueFull);
  post("x", kKept, 5000);
  std::thread waiter([&] { queue.waitForQuota(receiver, never); });
  console.answer(lunet::kErrNotSame);
  waiter.join();
  EXPECT_TRUE(queue.gone(receiver));
}

TEST_F(NotificationQueueTest, TheActionRunsBehindTheLastNotification) {
  post("1");
  post("2");
  std::promise<std::size_t> taken;
  queue.onDelivered(receiver, [&] { taken.set_value(console.taken().size()); });
  EXPECT_EQ(2U, taken.get_future().get());
}

TEST_F(NotificationQueueTest, TheActionRunsAlsoForAReceiverThatIsGone) {
  console.answer(lunet::kErrNoTarget);
  post("1");
  std::promise<void> done;
  queue.onDelivered(receiver, [&] { done.set_value(); });
  EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(10)));
}

TEST_F(NotificationQueueTest, EndsWhileAReceiverStalls) {
  console.answer(lunet::kErrQueueFull);
  post("1");
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

TEST_F(NotificationQueueTest, WhatOneEndpointOfAMemberTakesFromTheSenderCountsAgainstAllOfThatMember) {
  std::vector<std::shared_ptr<Receiver>> receivers;
  for (int i = 0; i < 20; ++i) {
    receivers.push_back(std::make_shared<Receiver>("a member's console", 4711));
    queue.post(receivers.back(), kKept, 10, timesOut(tries));
  }
  ASSERT_TRUE(waitFor([&] { return tries > 0; }));
  EXPECT_EQ(20, takenOneByOne(queue, other, 20));
  EXPECT_EQ(1, tries);
}

TEST_F(NotificationQueueTest, AMemberWhoseQueueWasFullIsTriedAgainSoonHoweverLongThatSendTook) {
  std::atomic<int> timeouts{0};
  queue.post(receiver, kKept, 10, timesOut(timeouts));  // is left alone for ten times 300 milliseconds
  ASSERT_TRUE(waitFor([&] { return timeouts == 1; }));
  queue.post(std::make_shared<Receiver>("a member's console", 4711), kKept, 10, [&]() -> std::uint32_t {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the receiver's own time
    return ++tries == 1 ? lunet::kErrQueueFull : lunet::kOk;
  });
  ASSERT_TRUE(waitFor([&] { return tries == 2; }));
  EXPECT_EQ(1, timeouts);
}

TEST_F(NotificationQueueTest, AMemberIsTriedAgainBehindThePauseThatATimeoutCosts) {
  queue.post(std::make_shared<Receiver>("a member's console", 4711), kKept, 10,
             [&]() -> std::uint32_t { return ++tries == 1 ? lunet::kErrTimeout : lunet::kOk; });
  EXPECT_TRUE(drain());
  EXPECT_EQ(2, tries);
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
  lunet::PeerIdentity sender;  // of the last message; read after count
  std::atomic<int> count{0};

 private:
  lunet::IClient& client_;
};

TEST(NotificationQueueOnTheBus, AConsoleThatFinishesNoHandshakeKeepsNoOtherWaiting) {
  const testsupport::TempDir tree;
  lunet::BusClient bus;
  ASSERT_TRUE(bus.load(TAV_LIB_DIR "/libLunetClientMgr.so"));
  ASSERT_EQ(lunet::kOk, bus.init("{\"runtime_path\":\"" + tree.path() + "\"}", "test"));
  BusConsole agent(*bus.client());
  BusConsole console(*bus.client());
  ASSERT_EQ(lunet::kOk, console.endpoint->OnewaySend(agent.guid, lunet::kOnewayChannel, "I", 1));
  ASSERT_TRUE(waitFor([&] { return agent.count == 1; }));
  const lunet::PeerIdentity process = agent.sender;

  const lunet::Guid silent{1, 2, 3};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (tree.at("run/lunet/") + lunet::formatGuid(silent) + ".sock")
      .copy(address.sun_path, sizeof address.sun_path - 1);
  const platform::Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, listen(listener.get(), 5));

  const auto notification = [&agent, &process](const lunet::Guid& target,
                                               std::atomic<int>& tries) -> SendNotification {
    return [&agent, &process, &target, &tries] {
      ++tries;
      return agent.endpoint->SendToProcess(target, process, lunet::kOnewayChannel, "x", 1);
    };
  };
  std::atomic<int> silentTries{0};
  std::atomic<int> tries{0};
  NotificationQueue queue(quick());
  const auto silentReceiver = aReceiver();
  queue.post(silentReceiver, kKept, 10, notification(silent, silentTries));
  ASSERT_TRUE(waitFor([&] { return silentTries == 1; }));
  const auto receiver = aReceiver();
  for (int i = 1; i <= 200; ++i) {
    queue.post(receiver, kKept, 10, notification(console.guid, tries));
    ASSERT_TRUE(waitFor([&] { return console.count == i; }));
  }
  EXPECT_EQ(1, silentTries);
  EXPECT_FALSE(queue.gone(silentReceiver));  // a later try may succeed
}

}  // namespace
}  // namespace agent
