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
#include "task/Outbox.h"

namespace agent {
namespace {

using ::testing::ElementsAre;
using testsupport::waitFor;

constexpr auto kProgress = NoticeKind::kProgress;
constexpr auto kOverview = NoticeKind::kOverview;
constexpr auto kKept = NoticeKind::kKept;

/// A console that takes notices, or does not.
class Receiver {
 public:
  SendNotice notice(const std::string& text) {
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

Outbox::Limits quick() {
  Outbox::Limits limits;
  limits.keptBytes = 1000;
  limits.retry = std::chrono::milliseconds(1);
  return limits;
}

std::shared_ptr<Mailbox> box() {
  return std::make_shared<Mailbox>("a console");
}
bool never() {
  return false;
}

TEST(Outbox, NoticesLeaveInTheOrderTheyWerePosted) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    outbox.post(mail, kKept, 10, console.notice(std::to_string(i)));
    expected.push_back(std::to_string(i));
  }
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_EQ(expected, console.taken());
}

TEST(Outbox, WhileTheReceiverStallsOnlyTheNewestProgressAndOverviewAreKept) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, console.notice("risk 1"));
  ASSERT_TRUE(waitFor([&] { return console.tries() > 1; }));
  for (int i = 0; i < 50; ++i) {
    outbox.post(mail, kProgress, 10, console.notice("progress " + std::to_string(i)));
    outbox.post(mail, kOverview, 10, console.notice("overview " + std::to_string(i)));
  }
  outbox.post(mail, kKept, 10, console.notice("risk 2"));
  outbox.post(mail, kOverview, 10, console.notice("last overview"));
  outbox.post(mail, kKept, 10, console.notice("state 2"));
  console.answer(lunet::kOk);
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("risk 1", "progress 49", "risk 2", "last overview", "state 2"));
}

TEST(Outbox, AStalledReceiverHoldsUpNobodyElse) {
  Receiver stalled;
  stalled.answer(lunet::kErrQueueFull);
  Receiver other;
  Outbox outbox(quick());
  outbox.post(box(), kKept, 10, stalled.notice("x"));
  const auto mail = box();
  outbox.post(mail, kKept, 10, other.notice("1"));
  outbox.post(mail, kKept, 10, other.notice("2"));
  EXPECT_TRUE(waitFor([&] { return other.taken().size() == 2; }));
}

TEST(Outbox, PostingNeverWaits) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  Outbox outbox(quick());
  const auto mail = box();
  for (int i = 0; i < 1000; ++i) {
    outbox.post(mail, kKept, 100, [released]() -> std::uint32_t {
      released.wait();
      return lunet::kOk;
    });
  }
  release.set_value();
  EXPECT_TRUE(outbox.drain(std::chrono::seconds(10)));
}

class GoneOn : public ::testing::TestWithParam<std::pair<const char*, std::uint32_t>> {};

TEST_P(GoneOn, TheRestIsDroppedAndNothingMoreIsTried) {
  Receiver console;
  console.answer(GetParam().second);
  Outbox outbox(quick());
  const auto mail = box();
  // Both are on their way before the first is tried.
  std::promise<void> gate;
  outbox.post(box(), kKept, 0, [opened = gate.get_future().share()]() -> std::uint32_t {
    opened.wait();
    return lunet::kOk;
  });
  outbox.post(mail, kKept, 10, console.notice("1"));
  outbox.post(mail, kKept, 10, console.notice("2"));
  gate.set_value();
  ASSERT_TRUE(waitFor([&] { return outbox.gone(mail); }));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  console.answer(lunet::kOk);
  outbox.post(mail, kKept, 10, console.notice("3"));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
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
  Receiver console;
  console.answer(GetParam().second);
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, console.notice("1"));
  outbox.post(mail, kKept, 10, console.notice("2"));
  ASSERT_TRUE(waitFor([&] { return console.tries() > 1; }));
  EXPECT_FALSE(outbox.gone(mail));
  console.answer(lunet::kOk);
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

INSTANTIATE_TEST_SUITE_P(Errors, RetriedOn,
                         ::testing::Values(std::pair("AFullQueue", std::uint32_t{lunet::kErrQueueFull}),
                                           std::pair("ATimeout", std::uint32_t{lunet::kErrTimeout}),
                                           std::pair("ALostPeer", std::uint32_t{lunet::kErrPeerLost}),
                                           std::pair("WantOfMemory", std::uint32_t{lunet::kErrSystem})),
                         [](const auto& row) { return std::string(row.param.first); });

TEST(Outbox, ANoticeThatIsTriedAgainLeavesBeforeThoseBehindIt) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  std::atomic<int> tries{0};
  outbox.post(mail, kKept, 10, [&, first = console.notice("1")]() -> std::uint32_t {
    return ++tries == 1 ? lunet::kErrQueueFull : first();
  });
  outbox.post(mail, kKept, 10, console.notice("2"));
  outbox.post(mail, kKept, 10, console.notice("3"));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2", "3"));
}

TEST(Outbox, AProgressThatWasNotTakenGivesWayToANewerOneThatCameMeanwhile) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  std::atomic<int> tries{0};
  outbox.post(mail, kProgress, 10, [&]() -> std::uint32_t {
    if (++tries == 1) {
      outbox.post(mail, kProgress, 10, console.notice("newer"));
    }
    return tries == 1 ? lunet::kErrQueueFull : lunet::kOk;
  });
  ASSERT_TRUE(waitFor([&] { return !console.taken().empty(); }));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_EQ(1, tries);
  EXPECT_THAT(console.taken(), ElementsAre("newer"));
}

TEST(Outbox, WhatIsPostedByTheActionLeavesBeforeTheActionThatIsSetThen) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  std::promise<void> second;
  outbox.post(mail, kKept, 10, console.notice("1"));
  outbox.whenEmpty(mail, [&] {
    outbox.post(mail, kKept, 10, console.notice("2"));
    outbox.whenEmpty(mail, [&] { second.set_value(); });
  });
  EXPECT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

TEST(Outbox, ANoticeThatIsPostedByTheActionBehindTheLastOneLeavesToo) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, console.notice("1"));
  outbox.whenEmpty(mail, [&] { outbox.post(mail, kKept, 10, console.notice("2")); });
  EXPECT_TRUE(waitFor([&] { return console.taken().size() == 2; }));
  EXPECT_THAT(console.taken(), ElementsAre("1", "2"));
}

TEST(Outbox, AnActionThatIsSetByTheActionBeforeItRunsToo) {
  Outbox outbox(quick());
  const auto mail = box();
  std::promise<void> second;
  std::atomic<int> first{0};
  outbox.whenEmpty(mail, [&] {
    ++first;
    outbox.whenEmpty(mail, [&] { second.set_value(); });
  });
  EXPECT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_EQ(1, first);
}

TEST(Outbox, AStalledReceiverIsGivenUpAlsoWhileMoreIsPosted) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox::Limits limits = quick();
  limits.stall = std::chrono::milliseconds(100);
  Outbox outbox(limits);
  const auto mail = box();
  EXPECT_TRUE(waitFor([&] {
    outbox.post(mail, kKept, 10, console.notice("x"));
    return outbox.gone(mail);
  }));
}

TEST(Outbox, AReceiverThatTakesItsNoticesSlowlyIsNotStalled) {
  Receiver console;
  Outbox::Limits limits = quick();
  limits.stall = std::chrono::milliseconds(1500);
  Outbox outbox(limits);
  const auto mail = box();
  for (int i = 0; i < 12; ++i) {
    outbox.post(mail, kKept, 10, [] {
      std::this_thread::sleep_for(std::chrono::milliseconds(140));  // the receiver's own time
      return std::uint32_t{lunet::kOk};
    });
  }
  std::atomic<int> tries{0};
  outbox.post(mail, kKept, 10,
              [&]() -> std::uint32_t { return ++tries == 1 ? lunet::kErrQueueFull : lunet::kOk; });
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(20)));
  EXPECT_FALSE(outbox.gone(mail));
  EXPECT_EQ(2, tries);
}

TEST(Outbox, ANoticeThatIsTooLargeCostsItselfOnly) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, []() -> std::uint32_t { return lunet::kErrTooLarge; });
  outbox.post(mail, kKept, 10, console.notice("next"));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("next"));
}

TEST(Outbox, ANoticeThatThrowsCostsItselfOnly) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, []() -> std::uint32_t { throw std::runtime_error("no"); });
  outbox.post(mail, kKept, 10, console.notice("next"));
  ASSERT_TRUE(outbox.drain(std::chrono::seconds(10)));
  EXPECT_THAT(console.taken(), ElementsAre("next"));
}

TEST(Outbox, AReceiverThatTakesNothingForTheStallLimitCountsAsGone) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox::Limits limits = quick();
  limits.stall = std::chrono::milliseconds(20);
  Outbox outbox(limits);
  const auto mail = box();
  outbox.post(mail, kKept, 10, console.notice("1"));
  EXPECT_TRUE(waitFor([&] { return outbox.gone(mail); }));
}

TEST(Outbox, WaitForRoomWaitsUntilTheReceiverTakesAgain) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox outbox(quick());
  const auto mail = box();
  for (int i = 0; i < 30; ++i) {
    outbox.post(mail, kKept, 100, console.notice(std::to_string(i)));
  }
  std::atomic<bool> room{false};
  std::thread waiter([&] {
    outbox.waitForRoom(mail, never);
    room = true;
  });
  ASSERT_TRUE(waitFor([&] { return console.tries() > 3; }));
  EXPECT_FALSE(room);
  console.answer(lunet::kOk);
  EXPECT_TRUE(waitFor([&] { return room.load(); }));
  waiter.join();
}

TEST(Outbox, WaitForRoomEndsWhenCancelled) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 5000, console.notice("x"));
  outbox.waitForRoom(mail, [] { return true; });
}

TEST(Outbox, WaitForRoomEndsWhenTheReceiverIsGone) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 5000, console.notice("x"));
  std::thread waiter([&] { outbox.waitForRoom(mail, never); });
  console.answer(lunet::kErrNotSame);
  waiter.join();
  EXPECT_TRUE(outbox.gone(mail));
}

TEST(Outbox, WhenEmptyRunsBehindTheLastNotice) {
  Receiver console;
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, console.notice("1"));
  outbox.post(mail, kKept, 10, console.notice("2"));
  std::promise<std::size_t> taken;
  outbox.whenEmpty(mail, [&] { taken.set_value(console.taken().size()); });
  EXPECT_EQ(2U, taken.get_future().get());
}

TEST(Outbox, WhenEmptyRunsAlsoForAReceiverThatIsGone) {
  Receiver console;
  console.answer(lunet::kErrNoTarget);
  Outbox outbox(quick());
  const auto mail = box();
  outbox.post(mail, kKept, 10, console.notice("1"));
  std::promise<void> done;
  outbox.whenEmpty(mail, [&] { done.set_value(); });
  EXPECT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(10)));
}

TEST(Outbox, EndsWhileAReceiverStalls) {
  Receiver console;
  console.answer(lunet::kErrQueueFull);
  Outbox outbox(quick());
  outbox.post(box(), kKept, 10, console.notice("1"));
  EXPECT_FALSE(outbox.drain(std::chrono::milliseconds(5)));
}

/// Posts and waits for each: how many notices of a well-behaved receiver get through.
int takenOneByOne(Outbox& outbox, Receiver& receiver, int count) {
  const auto mail = box();
  for (int i = 0; i < count; ++i) {
    outbox.post(mail, kKept, 10, receiver.notice("x"));
    if (!waitFor([&] { return receiver.taken().size() == static_cast<std::size_t>(i) + 1; })) {
      return i;
    }
  }
  return count;
}

/// A send that runs out of time, as one to an endpoint that never welcomes.
SendNotice timesOut(std::atomic<int>& tries) {
  return [&tries]() -> std::uint32_t {
    ++tries;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return lunet::kErrTimeout;
  };
}

TEST(Outbox, WhatOneEndpointOfAMemberTakesFromTheSenderCountsAgainstAllOfHis) {
  std::atomic<int> tries{0};
  Outbox outbox(quick());
  std::vector<std::shared_ptr<Mailbox>> boxes;
  for (int i = 0; i < 20; ++i) {
    boxes.push_back(std::make_shared<Mailbox>("a member's console", 4711));
    outbox.post(boxes.back(), kKept, 10, timesOut(tries));
  }
  ASSERT_TRUE(waitFor([&] { return tries > 0; }));
  Receiver other;
  EXPECT_EQ(20, takenOneByOne(outbox, other, 20));
  EXPECT_EQ(1, tries);
}

/// Receives on an endpoint of the real bus.
class BusReceiver final : public lunet::IMRReceiveComplete {
 public:
  explicit BusReceiver(lunet::IClient& client) : endpoint(client.CreateEndpoint()), client_(client) {
    std::string text;
    CUuid::generate(text);
    guid = lunet::parseGuid(text.c_str());
    endpoint->RegisterReceiver(lunet::kOnewayChannel, this, nullptr);
    EXPECT_EQ(endpoint->Open(guid), lunet::kOk);
  }
  ~BusReceiver() { client_.DestroyEndpoint(endpoint); }
  BusReceiver(const BusReceiver&) = delete;
  BusReceiver& operator=(const BusReceiver&) = delete;

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

TEST(OutboxOnTheBus, AConsoleThatNeverWelcomesKeepsNoOtherWaiting) {
  const testsupport::TempDir tree;
  lunet::BusClient bus;
  ASSERT_TRUE(bus.load(TAV_LIB_DIR "/libLunetClientMgr.so"));
  ASSERT_EQ(lunet::kOk, bus.init("{\"runtime_path\":\"" + tree.path() + "\"}", "test"));
  BusReceiver agent(*bus.client());
  BusReceiver console(*bus.client());
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

  const auto notice = [&agent, &process](const lunet::Guid& target, std::atomic<int>& tries) -> SendNotice {
    return [&agent, &process, &target, &tries] {
      ++tries;
      return agent.endpoint->SendToProcess(target, process, lunet::kOnewayChannel, "x", 1);
    };
  };
  std::atomic<int> deafTries{0};
  std::atomic<int> tries{0};
  Outbox outbox(quick());
  const auto deafBox = box();
  outbox.post(deafBox, kKept, 10, notice(deaf, deafTries));
  ASSERT_TRUE(waitFor([&] { return deafTries == 1; }));
  const auto mail = box();
  for (int i = 1; i <= 200; ++i) {
    outbox.post(mail, kKept, 10, notice(console.guid, tries));
    ASSERT_TRUE(waitFor([&] { return console.count == i; }));
  }
  EXPECT_EQ(1, deafTries);
  EXPECT_FALSE(outbox.gone(deafBox));  // it may come to itself
}

}  // namespace
}  // namespace agent
