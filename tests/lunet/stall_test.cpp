#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "BusFixture.h"
#include "Frame.h"
#include "support/Wait.h"

using namespace lunettest;
using testsupport::waitFor;

namespace {

/// True when an epoll set of this process watches a socket for EPOLLOUT.
bool aSocketIsWatchedForSpace() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(entry.path());
    for (std::string line; std::getline(info, line);) {
      const std::size_t events = line.find("events:");
      if (line.starts_with("tfd:") && events != std::string::npos &&
          (std::stoul(line.substr(events + 7), nullptr, 16) & EPOLLOUT) != 0) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

class StallTest : public BusTest {
 protected:
  /// Sends until kErrQueueFull; the number of accepted messages.
  static int fill(Endpoint& sender, const lunet::Guid& target, std::uint32_t& error) {
    const std::string text(1 << 20, 's');
    for (int count = 0;; ++count) {
      error = sender.send(target, text);
      if (error != lunet::kOk) {
        return count;
      }
    }
  }

  Client client{config()};
};

TEST_F(StallTest, ASenderToAStalledReceiverSeesQueueFullAndLosesNothingThatWasTaken) {
  Gate gate;
  Endpoint server(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint sender(client, newGuid());
  std::uint32_t error = 0;
  const int taken = fill(sender, server.guid(), error);
  EXPECT_EQ(error, lunet::kErrQueueFull);
  EXPECT_GE(taken, 32);
  EXPECT_LE(taken, 40);
  gate.open();
  EXPECT_TRUE(server.waitForCount(static_cast<std::size_t>(taken)));
  EXPECT_TRUE(waitFor([&] { return sender.send(server.guid(), "again") == lunet::kOk; }));
}

TEST_F(StallTest, CloseGivesUpOnAReceiverThatTakesNothing) {
  Gate gate;
  Endpoint server(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint sender(client, newGuid());
  std::uint32_t error = 0;
  fill(sender, server.guid(), error);
  auto closed = std::async(std::launch::async, [&] { sender->Close(); });
  EXPECT_EQ(closed.wait_for(std::chrono::seconds(15)), std::future_status::ready);
  gate.open();
}

TEST_F(StallTest, ACallToAStalledReceiverFailsAtOnceWhenTheQueueIsFull) {
  Gate gate;
  Endpoint server(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint sender(client, newGuid());
  ASSERT_EQ(sender.send(server.guid(), "first"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1)) << "from here on nothing is read";
  std::uint32_t error = 0;
  fill(sender, server.guid(), error);
  EXPECT_EQ(sender.call(server.guid(), "x", 3600 * 1000).error, lunet::kErrQueueFull);
  gate.open();
}

TEST_F(StallTest, AStalledReceiverHoldsUpNobodyElse) {
  Gate gate;
  Endpoint stalled(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint other(client, newGuid(), echo);
  Endpoint sender(client, newGuid());
  std::uint32_t error = 0;
  fill(sender, stalled.guid(), error);
  EXPECT_EQ(sender.call(other.guid(), "x").data, "x");
  gate.open();
}

TEST_F(StallTest, WhileAReceiverIsBusyConnectionsAreStillAccepted) {
  Gate gate;
  Endpoint agent(client, lunet::parseGuid(lunet::kAgentGuid),
                 [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint sender(client, newGuid());
  sender.send(agent.guid(), "x");
  ASSERT_TRUE(agent.waitForCount(1));
  EXPECT_EQ(client->Connect(10), lunet::kOk);
  gate.open();
}

TEST_F(StallTest, AStoppedProcessIsGivenUpAfterAMomentNotForEver) {
  installTree();
  const lunet::Guid guid = newGuid();
  Player player(lunetctl({"listen", lunet::formatGuid(guid)}));
  ASSERT_TRUE(player.ready());
  player.process.kill(SIGSTOP);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(guid, "x", 100).error, lunet::kErrTimeout);
  player.process.kill(SIGCONT);
  EXPECT_EQ(caller.send(guid, "y"), lunet::kOk);
}

TEST_F(StallTest, WhatWasQueuedForAPeerThatDiedIsLogged) {
  static std::atomic<bool> logsLoss{false};
  installTree();
  Client logged(config("\"log_level\":1"));
  logged->SetLogCallback([](int, const char* text) {
    logsLoss = logsLoss || std::string_view(text).find("queued bytes for ") != std::string_view::npos;
  });
  const lunet::Guid guid = newGuid();
  Player player(lunetctl({"listen", lunet::formatGuid(guid)}));
  ASSERT_TRUE(player.ready());
  Endpoint sender(logged, newGuid());
  ASSERT_EQ(sender.send(guid, "connects"), lunet::kOk);
  ASSERT_TRUE(player.gotMessage("connects"));
  player.process.kill(SIGSTOP);
  std::uint32_t error = 0;
  fill(sender, guid, error);
  EXPECT_FALSE(logsLoss);
  player.process.kill(SIGKILL);
  EXPECT_TRUE(waitFor([] { return logsLoss.load(); }));
}

/// A full queue refuses the answer before the body is read.
TEST_F(StallTest, AnAnswerAtTheLimitIsNotTooLarge) {
  std::atomic<std::uint32_t> replied{lunet::kOk};
  const std::string large(4 << 20, 'a');
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    if (message.data.empty()) {
      self.reply(message, large);
      return;
    }
    replied = self->Reply(0, message.id, "x", lunet::kMaxMessageBytes, message.replyContext);
  });
  Endpoint owner(client, newGuid());
  const RawConnection raw(socketOf(server.guid()));
  ASSERT_EQ(raw.handshake(owner.guid(), server.guid()), lunet::kOk);
  lunet::FrameHeader request;
  request.kind = lunet::FrameKind::kRequest;
  request.channel = lunet::kRequestChannel;
  for (request.id = 1; request.id <= 12; ++request.id) {
    raw.send(request);
  }
  request.length = 1;
  raw.send(request);
  raw.send("x", 1);
  ASSERT_TRUE(server.waitForCount(13));
  EXPECT_TRUE(waitFor([&] { return replied != lunet::kOk; }));
  EXPECT_EQ(replied, lunet::kErrQueueFull);
}

/// A connection made by hand whose socket holds more than one turn reads.
class LongTurnTest : public StallTest {
 protected:
  static constexpr std::size_t kFrames = 400;

  /// False when the system does not allow such a socket.
  bool fillSocket() {
    lunet::FrameHeader frame;
    frame.channel = lunet::kOnewayChannel;
    frame.length = 8000;
    const std::string bytes =
        std::string(reinterpret_cast<const char*>(&frame), sizeof frame) + std::string(8000, 'f');
    EXPECT_EQ(raw.handshake(owner.guid(), server.guid()), lunet::kOk);
    for (std::size_t i = 0; raw.growBuffer(32 << 20) && i < kFrames; ++i) {
      if (!raw.sendNow(bytes.data(), bytes.size())) {
        return false;
      }
    }
    return raw.growBuffer(32 << 20);
  }
  void SetUp() override {
    ASSERT_EQ(other.send(server.guid(), "connects"), lunet::kOk);
    ASSERT_TRUE(server.waitForCount(1));
    ASSERT_EQ(owner.send(server.guid(), "waits"), lunet::kOk);
    ASSERT_TRUE(server.waitForCount(2));
    if (!fillSocket()) {
      gate.open();
      GTEST_SKIP() << "only root may have so large a socket";
    }
  }

  Gate gate;
  Endpoint owner{client, newGuid()};
  Endpoint other{client, newGuid()};
  Endpoint server{client, newGuid(), [this](Endpoint&, const Message& message) {
                    (void)(message.data == "connects" || gate.wait());
                  }};
  RawConnection raw{socketOf(server.guid())};
};

TEST_F(LongTurnTest, AllOfItIsReadThoughNothingNewComes) {
  gate.open();
  EXPECT_TRUE(server.waitForCount(2 + kFrames)) << server.count();
}

TEST_F(LongTurnTest, OthersHaveTheirTurnBetween) {
  ASSERT_EQ(other.send(server.guid(), "other"), lunet::kOk);
  gate.open();
  ASSERT_TRUE(server.waitForCount(3 + kFrames));
  EXPECT_NE(server.messages().back().data, "other");
}

TEST_F(StallTest, AReadThatTakesExactlyWhatIsThereEndsNothing) {
  Gate gate;
  Endpoint owner(client, newGuid());
  Endpoint server(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  ASSERT_EQ(owner.send(server.guid(), "first"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  const RawConnection raw(socketOf(server.guid()));
  ASSERT_EQ(raw.handshake(owner.guid(), server.guid()), lunet::kOk);
  lunet::FrameHeader frame;
  frame.channel = lunet::kOnewayChannel;
  frame.length = (8 << 10) - sizeof frame;
  const std::string bytes =
      std::string(reinterpret_cast<const char*>(&frame), sizeof frame) + std::string(frame.length, 'f');
  for (int i = 0; i < 8; ++i) {  // 64 KiB, the size of one read
    ASSERT_TRUE(raw.sendNow(bytes.data(), bytes.size()));
  }
  gate.open();
  ASSERT_TRUE(server.waitForCount(9));
  raw.send(bytes.data(), bytes.size());
  EXPECT_TRUE(server.waitForCount(10));
}

TEST_F(StallTest, ASocketIsWatchedForSpaceOnlyWhileAnswersWaitForIt) {
  const std::string large(4 << 20, 'a');
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    EXPECT_EQ(self.reply(message, large), lunet::kOk);
  });
  Endpoint owner(client, newGuid());
  ASSERT_FALSE(aSocketIsWatchedForSpace());
  const RawConnection raw(socketOf(server.guid()));
  ASSERT_EQ(raw.handshake(owner.guid(), server.guid()), lunet::kOk);
  lunet::FrameHeader request;
  request.kind = lunet::FrameKind::kRequest;
  request.channel = lunet::kRequestChannel;
  request.id = 1;
  raw.send(request);
  EXPECT_TRUE(waitFor(aSocketIsWatchedForSpace));
  EXPECT_EQ(raw.receive(sizeof request + large.size()).size(), sizeof request + large.size());
  EXPECT_TRUE(waitFor([] { return !aSocketIsWatchedForSpace(); }));
}

TEST_F(StallTest, CallersWhoseAnswersAreNotTakenAreNoticedByTheReplier) {
  // The caller sends requests and never reads, so its answers queue at the replier up to the limit.
  std::atomic<bool> full{false};
  const std::string large(4 << 20, 'a');
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    if (self.reply(message, large) == lunet::kErrQueueFull) {
      full = true;
    }
  });
  Endpoint owner(client, newGuid());
  const RawConnection raw(socketOf(server.guid()));
  ASSERT_EQ(raw.handshake(owner.guid(), server.guid()), lunet::kOk);
  for (std::uint64_t id = 1; id <= 20; ++id) {
    lunet::FrameHeader header;
    header.kind = lunet::FrameKind::kRequest;
    header.channel = lunet::kRequestChannel;
    header.id = id;
    raw.send(header);
  }
  EXPECT_TRUE(waitFor([&] { return full.load(); }));
  Endpoint other(client, newGuid());
  EXPECT_EQ(other.call(server.guid(), "x").data.size(), large.size());
}
