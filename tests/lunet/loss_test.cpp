#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <future>

#include "BusFixture.h"
#include "Frame.h"
#include "support/Wait.h"

using namespace lunettest;
using testsupport::waitFor;

class LossTest : public BusTest {
 protected:
  LossTest() { installTree(); }
  std::vector<std::string> listen(const lunet::Guid& guid) const {
    return lunetctl({"listen", lunet::formatGuid(guid)});
  }

  /// Longer than any test may last, so a call that ends has another reason.
  static constexpr std::uint32_t kForEverMs = 3600 * 1000;

  Client client{config()};
  const lunet::Guid address = newGuid();
};

TEST_F(LossTest, SendsToAnAbsentEndpointFailAtOnceWithAnErrorNumber) {
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.send(address, "x"), lunet::kErrNoTarget);
  const Endpoint::Answer answer = caller.call(address, "x", kForEverMs);
  EXPECT_EQ(answer.error, lunet::kErrNoTarget);
  EXPECT_EQ(answer.errorOut, lunet::kErrNoTarget);
}

TEST_F(LossTest, APeerThatIsKilledDuringACallFailsTheCallAtOnce) {
  Endpoint caller(client, newGuid());
  Player player(listen(address));
  ASSERT_TRUE(player.ready());
  auto call = std::async(std::launch::async, [&] { return caller.call(address, "x", kForEverMs); });
  ASSERT_TRUE(player.gotMessage("x"));
  player.process.kill(SIGKILL);
  const Endpoint::Answer answer = call.get();
  EXPECT_EQ(answer.error, lunet::kErrPeerLost);
  EXPECT_EQ(answer.errorOut, lunet::kErrPeerLost);
}

TEST_F(LossTest, AKilledPeerFailsEveryCallUnderWay) {
  Endpoint caller(client, newGuid());
  Player player(listen(address));
  ASSERT_TRUE(player.ready());
  std::vector<std::future<std::uint32_t>> calls;
  for (int i = 0; i < 5; ++i) {
    const std::string text = "call" + std::to_string(i);
    calls.push_back(
        std::async(std::launch::async, [&, text] { return caller.call(address, text, kForEverMs).error; }));
    ASSERT_TRUE(player.gotMessage(text));
  }
  player.process.kill(SIGKILL);
  for (std::future<std::uint32_t>& call : calls) {
    EXPECT_EQ(call.get(), lunet::kErrPeerLost);
  }
}

TEST_F(LossTest, APeerThatClosesDuringACallFailsTheCallAtOnce) {
  auto server = std::make_unique<Endpoint>(client, address);
  Endpoint caller(client, newGuid());
  auto call = std::async(std::launch::async, [&] { return caller.call(address, "x", kForEverMs).error; });
  ASSERT_TRUE(server->waitForCount(1));
  server->destroy();
  EXPECT_EQ(call.get(), lunet::kErrPeerLost);
}

TEST_F(LossTest, AfterThePeersRestartTheNextCallWorks) {
  Endpoint caller(client, newGuid());
  for (int round = 0; round < 3; ++round) {
    Player player(listen(address));
    ASSERT_TRUE(player.ready());
    auto call = std::async(std::launch::async, [&] { return caller.call(address, "x", kForEverMs); });
    ASSERT_TRUE(player.gotMessage("x"));
    player.process.write("{\"reply\":1,\"data\":\"round\"}\n");
    EXPECT_EQ(call.get().data, "round");
    player.process.kill(round == 1 ? SIGTERM : SIGKILL);
    player.process.wait();
  }
  EXPECT_EQ(caller.call(address, "x", kForEverMs).error, lunet::kErrNoTarget);
}

TEST_F(LossTest, AfterThePeersRestartTheNextOnewayMessageArrives) {
  Endpoint sender(client, newGuid());
  for (int round = 0; round < 3; ++round) {
    Endpoint server(client, address);
    EXPECT_EQ(sender.send(address, "x"), lunet::kOk);
    EXPECT_TRUE(server.waitForCount(1));
  }
}

/// A caller with a defective header keeps the thread that notices a peer's end in the log callback.
class UnnoticedLossTest : public LossTest {
 protected:
  UnnoticedLossTest() {
    noticing.emplace();
    logged->SetLogCallback([](int, const char* text) {
      if (std::string_view(text).find("no greeting") != std::string_view::npos) {
        kept = true;
        noticing->wait();
        kept = false;
      }
    });
  }
  ~UnnoticedLossTest() override {
    noticing->open();
    sender.destroy();
    waitFor([] { return !kept; });
  }
  /// The sender has a connection to the address, and does not notice the connection's end.
  void lose() {
    auto first = std::make_unique<Endpoint>(client, address, echo);
    ASSERT_EQ(sender.call(address, "x").data, "x");
    lunet::FrameHeader header;
    header.length = sizeof(lunet::HelloBody);
    strange = std::make_unique<RawConnection>(socketOf(sender.guid()));
    strange->send(header);
    strange->send(lunet::HelloBody{});
    ASSERT_TRUE(waitFor([] { return kept.load(); }));
    first.reset();
  }

  static inline std::optional<Gate> noticing;
  static inline std::atomic<bool> kept{false};
  Client logged{config("\"log_level\":0")};
  Endpoint sender{logged, newGuid()};
  std::unique_ptr<RawConnection> strange;
};

TEST_F(UnnoticedLossTest, TheNextCallGoesToWhoIsThereNow) {
  ASSERT_NO_FATAL_FAILURE(lose());
  Endpoint second(client, address, echo);
  EXPECT_EQ(sender.call(address, "y").data, "y");
}

TEST_F(UnnoticedLossTest, TheNextOnewayMessageGoesToWhoIsThereNow) {
  ASSERT_NO_FATAL_FAILURE(lose());
  Endpoint second(client, address);
  EXPECT_EQ(sender.send(address, "y"), lunet::kOk);
  EXPECT_TRUE(second.waitForCount(1));
}

TEST_F(UnnoticedLossTest, WithNobodyThereNowTheSenderGetsThatError) {
  ASSERT_NO_FATAL_FAILURE(lose());
  EXPECT_EQ(sender.send(address, "y"), lunet::kErrNoTarget);
  EXPECT_EQ(sender.call(address, "y").error, lunet::kErrNoTarget);
}

TEST_F(LossTest, AnAnswerThatArrivedBeforeThePeerEndedIsStillTaken) {
  for (int round = 0; round < 50; ++round) {
    auto server = std::make_unique<Endpoint>(client, address, echo);
    Endpoint caller(client, newGuid());
    auto call = std::async(std::launch::async, [&] { return caller.call(address, "x", kForEverMs).data; });
    ASSERT_TRUE(server->waitForCount(1));
    server->destroy();  // returns behind the callback and its reply
    EXPECT_EQ(call.get(), "x");
  }
}

TEST_F(LossTest, WhatAnEndedSenderHadSentIsStillDelivered) {
  Gate gate;
  Endpoint server(client, address, [&](Endpoint&, const Message&) { gate.wait(); });
  const lunet::Guid guid = newGuid();
  {
    Endpoint sender(client, guid);
    for (int i = 0; i < 100; ++i) {
      ASSERT_EQ(sender.send(address, std::to_string(i)), lunet::kOk);
    }
  }
  gate.open();
  ASSERT_TRUE(server.waitForCount(100));
  EXPECT_EQ(server.messages()[99].peer, guid);
}

TEST_F(LossTest, WhatIsQueuedWhenTheSenderClosesStillGoesOut) {
  constexpr std::size_t kCount = 8;
  const std::string large(1 << 20, 'q');  // more than the socket takes: most bytes wait in the sender
  Endpoint server(client, address);
  {
    Endpoint sender(client, newGuid());
    for (std::size_t i = 0; i < kCount; ++i) {
      ASSERT_EQ(sender.send(address, large), lunet::kOk);
    }
  }
  EXPECT_TRUE(server.waitForCount(kCount));
}

TEST_F(LossTest, CloseWhileCallsAreUnderWayEndsThemWithNotOpen) {
  Gate gate;
  Endpoint server(client, address, [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint caller(client, newGuid());
  std::vector<std::future<std::uint32_t>> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(
        std::async(std::launch::async, [&] { return caller.call(address, "x", kForEverMs).error; }));
  }
  ASSERT_TRUE(server.waitForCount(1));
  caller->Close();
  for (std::future<std::uint32_t>& call : calls) {
    EXPECT_EQ(call.get(), lunet::kErrNotOpen);
  }
  EXPECT_EQ(caller.call(address, "x").error, lunet::kErrNotOpen);
  EXPECT_EQ(caller.send(address, "x"), lunet::kErrNotOpen);
  gate.open();
}

/// The receiver of the later link reads nothing until the earlier link is done.
TEST_F(LossTest, WhatIsQueuedForSeveralTargetsWhenTheSenderClosesStillGoesOut) {
  constexpr std::size_t kCount = 8;
  const std::string large(1 << 20, 'q');
  for (const bool lowerFirst : {true, false}) {
    const std::pair<lunet::Guid, lunet::Guid> both = std::minmax(newGuid(), newGuid());
    Gate gate;
    Endpoint first(client, lowerFirst ? both.first : both.second, [&](Endpoint& self, const Message&) {
      if (self.count() == kCount) {
        gate.open();
      }
    });
    Endpoint second(client, lowerFirst ? both.second : both.first,
                    [&](Endpoint&, const Message&) { gate.wait(); });
    {
      Endpoint sender(client, newGuid());
      for (std::size_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(sender.send(second.guid(), large), lunet::kOk);
      }
      for (std::size_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(sender.send(first.guid(), large), lunet::kOk);
      }
    }
    EXPECT_TRUE(first.waitForCount(kCount));
    EXPECT_TRUE(second.waitForCount(kCount))
        << second.count() << (lowerFirst ? " of the higher" : " of the lower") << " address";
  }
}

TEST_F(LossTest, CloseEndsTheCallsToEachOfItsTargets) {
  std::vector<std::unique_ptr<Endpoint>> servers;
  Endpoint caller(client, newGuid());
  std::vector<std::future<std::uint32_t>> calls;
  for (int i = 0; i < 3; ++i) {
    servers.push_back(std::make_unique<Endpoint>(client, newGuid()));
    calls.push_back(std::async(std::launch::async, [&caller, target = servers.back()->guid()] {
      return caller.call(target, "x", 20000).error;
    }));
    ASSERT_TRUE(servers.back()->waitForCount(1));
  }
  caller->Close();
  for (std::future<std::uint32_t>& call : calls) {
    EXPECT_EQ(call.get(), lunet::kErrNotOpen);
  }
}

/// The callers read one after the other; more than their sockets take is queued for each.
TEST_F(LossTest, AnswersToSeveralCallersThatAreQueuedAtTheCloseStillGoOut) {
  constexpr std::uint64_t kCallers = 6;
  const std::string large(2 << 20, 'a');
  Endpoint owner(client, newGuid());
  Endpoint server(client, address);
  std::vector<std::unique_ptr<RawConnection>> callers;
  for (std::uint64_t i = 1; i <= kCallers; ++i) {
    callers.push_back(std::make_unique<RawConnection>(socketOf(address)));
    ASSERT_EQ(callers.back()->handshake(owner.guid(), address), lunet::kOk);
    callers.back()->send(
        lunet::FrameHeader{.kind = lunet::FrameKind::kRequest, .channel = lunet::kRequestChannel, .id = i});
    ASSERT_TRUE(server.waitForCount(i));
    EXPECT_EQ(server.reply(server.messages().back(), large), lunet::kOk);
  }
  std::thread closer([&] { server->Close(); });
  EXPECT_TRUE(waitFor([&] { return !std::filesystem::exists(socketOf(address)); }));
  for (const std::unique_ptr<RawConnection>& caller : callers) {
    EXPECT_EQ(caller->receive(sizeof(lunet::FrameHeader) + large.size()).size(),
              sizeof(lunet::FrameHeader) + large.size());
  }
  closer.join();
}

TEST_F(LossTest, CloseReturnsWhenNoCallbackRunsAnyMore) {
  Gate gate;
  std::atomic<bool> finished{false};
  Endpoint server(client, address, [&](Endpoint&, const Message&) {
    gate.wait();
    finished = true;
  });
  Endpoint sender(client, newGuid());
  sender.send(address, "x");
  ASSERT_TRUE(server.waitForCount(1));
  std::thread opener([&] { gate.open(); });
  server->Close();
  EXPECT_TRUE(finished);
  opener.join();
}

TEST_F(LossTest, CloseEndsACallThatACallbackIsIn) {
  Endpoint silent(client, newGuid());
  std::atomic<std::uint32_t> inside{0};
  Endpoint server(client, address, [&](Endpoint& self, const Message&) {
    inside = self.call(silent.guid(), "nested", kForEverMs).error;
  });
  Endpoint sender(client, newGuid());
  sender.send(address, "x");
  ASSERT_TRUE(silent.waitForCount(1));
  server->Close();
  EXPECT_EQ(inside, lunet::kErrNotOpen);
}

TEST_F(LossTest, ACallbackUnderWayWhenItsEndpointClosesMayStillReply) {
  Gate gate;
  const std::string large(4 << 20, 'L');
  Endpoint server(client, address, [&](Endpoint& self, const Message& message) {
    gate.wait();
    EXPECT_EQ(self.send(newGuid(), "new"), lunet::kErrNotOpen);
    EXPECT_EQ(self.reply(message, large), lunet::kOk);
  });
  Endpoint caller(client, newGuid());
  auto call = std::async(std::launch::async, [&] { return caller.call(address, "x", kForEverMs).data; });
  ASSERT_TRUE(server.waitForCount(1));
  std::thread closer([&] { server->Close(); });
  EXPECT_TRUE(waitFor([&] { return !std::filesystem::exists(socketOf(address)); }));
  Endpoint late(client, newGuid());
  EXPECT_EQ(late.send(address, "x"), lunet::kErrNoTarget);
  gate.open();
  closer.join();
  EXPECT_TRUE(call.get() == large);
}

TEST_F(LossTest, CloseFromTheOwnCallbackDoesNothing) {
  Endpoint server(client, address, [](Endpoint& self, const Message& message) {
    self->Close();
    echo(self, message);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "x").data, "x");
}

TEST_F(LossTest, AClosedEndpointMayBeOpenedAgain) {
  Endpoint server(client, address, echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "1").data, "1");
  server->Close();
  EXPECT_EQ(caller.call(address, "2").error, lunet::kErrNoTarget);
  ASSERT_EQ(server->Open(address), lunet::kOk);
  EXPECT_EQ(caller.call(address, "3").data, "3");
}

TEST_F(LossTest, AClosedEndpointMayBeOpenedAtAnotherAddress) {
  const lunet::Guid next = newGuid();
  Endpoint server(client, address, echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "1").data, "1");
  server.send(caller.guid(), "from the first");
  server->Close();
  ASSERT_EQ(server->Open(next), lunet::kOk);
  EXPECT_EQ(caller.call(address, "2").error, lunet::kErrNoTarget);
  EXPECT_EQ(caller.call(next, "3").data, "3");
  server.send(caller.guid(), "from the second");
  ASSERT_TRUE(caller.waitForCount(2));
  EXPECT_EQ(caller.messages()[0].peer, address);
  EXPECT_EQ(caller.messages()[1].peer, next);
}

/// Otherwise two processes could act at one address at the same time.
TEST_F(LossTest, AnAddressIsInUseUntilTheLastCallbackOfItsCloseHasEnded) {
  Gate gate;
  Endpoint server(client, address, [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint sender(client, newGuid());
  ASSERT_EQ(sender.send(address, "x"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  auto closing = std::async(std::launch::async, [&] { server->Close(); });
  EXPECT_TRUE(waitFor([&] { return !std::filesystem::exists(socketOf(address)); }));
  Endpoint next(client);
  EXPECT_EQ(next->Open(address), lunet::kErrInUse);
  gate.open();
  closing.get();
  EXPECT_EQ(next->Open(address), lunet::kOk);
}

TEST_F(LossTest, AReplyToACallerWhoIsGoneSaysSo) {
  Gate gate;
  std::atomic<std::uint32_t> replied{0};
  Endpoint server(client, address, [&](Endpoint& self, const Message& message) {
    if (message.replyContext != nullptr) {
      gate.wait();
      replied = self.reply(message, "x");
    }
  });
  auto caller = std::make_unique<Endpoint>(client, newGuid());
  ASSERT_EQ(caller->send(address, "connects"),
            lunet::kOk);  // connecting may take longer than the call's limit
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(caller->call(address, "x", 30).error, lunet::kErrTimeout);
  caller->destroy();
  gate.open();
  EXPECT_TRUE(waitFor([&] { return replied == lunet::kErrPeerLost; }));
}

TEST_F(LossTest, ARequestWhoseConnectionHasEndedHasNoReplyContextAnyMore) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Endpoint server(client, address);
  Endpoint other(client, newGuid());
  const auto before = descriptors();
  {
    Endpoint caller(client, newGuid());
    ASSERT_EQ(caller.send(address, "connects"), lunet::kOk);
    ASSERT_TRUE(server.waitForCount(1));
    EXPECT_EQ(caller.call(address, "x", 30).error, lunet::kErrTimeout);
    ASSERT_TRUE(server.waitForCount(2));
  }
  ASSERT_TRUE(waitFor([&] { return descriptors() <= before; })) << before << " then " << descriptors();
  ASSERT_EQ(other.send(address, "delivered behind that end"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(3));
  EXPECT_EQ(server.reply(server.messages()[1], "late"), lunet::kErrArgument);
}

TEST_F(LossTest, AConnectionThatIsIdleStaysWhenOthersAreMade) {
  static std::atomic<int> made{0};
  made = 0;
  Client logged(config("\"log_level\":2"));
  logged->SetLogCallback(
      [](int, const char* text) { made += std::string_view(text).starts_with("connected to ") ? 1 : 0; });
  Endpoint hub(logged, newGuid());
  Endpoint one(client, newGuid());
  Endpoint other(client, newGuid());
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(hub.send(one.guid(), "x"), lunet::kOk);
    ASSERT_EQ(hub.send(other.guid(), "x"), lunet::kOk);
  }
  EXPECT_EQ(made, 2);
}

TEST_F(LossTest, ConnectionsThatHaveEndedDoNotAddUp) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Endpoint hub(client, newGuid());
  {
    Endpoint first(client, newGuid());
    hub.send(first.guid(), "x");
    first.send(hub.guid(), "x");
  }
  const auto before = descriptors();
  [[maybe_unused]] const std::size_t memory = mallinfo2().uordblks;
  for (int i = 0; i < 50; ++i) {
    Endpoint peer(client, newGuid());
    ASSERT_EQ(hub.send(peer.guid(), "x"), lunet::kOk);
    ASSERT_EQ(peer.send(hub.guid(), "x"), lunet::kOk);
  }
  ASSERT_TRUE(hub.waitForCount(51));
  EXPECT_TRUE(waitFor([&] { return descriptors() <= before + 2; })) << before << " then " << descriptors();
#ifndef TAV_SANITIZED
  // Each connection had a block of 64 KiB at both ends.
  EXPECT_TRUE(waitFor([&] { return mallinfo2().uordblks < memory + (2 << 20); }))
      << memory << " then " << mallinfo2().uordblks;
#endif
}
