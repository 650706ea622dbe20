// What a peer that breaks the rules of the wire can do: end its own connection, and nothing else.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "BusFixture.h"
#include "Frame.h"
#include "SocketFolder.h"
#include "platform/Descriptor.h"
#include "support/Wait.h"

using namespace lunettest;
using lunet::FrameHeader;
using lunet::FrameKind;
using testsupport::waitFor;

class StrangersTest : public BusTest {
 protected:
  static FrameHeader oneway(std::uint32_t length) {
    FrameHeader header;
    header.channel = lunet::kOnewayChannel;
    header.length = length;
    return header;
  }
  /// A connection that has been welcomed.
  std::unique_ptr<RawConnection> guest() {
    auto raw = std::make_unique<RawConnection>(socketOf(server.guid()));
    EXPECT_EQ(raw->greet(owner.guid(), server.guid()), lunet::kOk);
    return raw;
  }
  void expectUnharmed() { EXPECT_EQ(friendly.call(server.guid(), "still there").data, "still there"); }

  Client client{config()};
  Endpoint server{client, newGuid(), echo};
  Endpoint owner{client, newGuid()};
  Endpoint friendly{client, newGuid()};
};

struct BadFrameRow {
  const char* name;
  FrameHeader header;
};

class BadFrameTest : public StrangersTest, public testing::WithParamInterface<BadFrameRow> {};

TEST_P(BadFrameTest, ClosesThatConnectionAndHarmsNoOther) {
  expectUnharmed();
  const auto raw = guest();
  raw->send(GetParam().header);
  EXPECT_TRUE(raw->waitUntilClosed());
  expectUnharmed();
}

namespace {

FrameHeader spoiled(void (*spoil)(FrameHeader&)) {
  FrameHeader header;
  header.channel = lunet::kOnewayChannel;
  spoil(header);
  return header;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Table, BadFrameTest,
    testing::Values(BadFrameRow{"AWrongMagic", spoiled([](FrameHeader& h) { h.magic = 0x21212121; })},
                    BadFrameRow{"AnotherVersion", spoiled([](FrameHeader& h) { h.version = 9; })},
                    BadFrameRow{"ALengthOverTheLimit",
                                spoiled([](FrameHeader& h) { h.length = 0xFFFFFFFF; })},
                    BadFrameRow{"ASecondHello", spoiled([](FrameHeader& h) { h.kind = FrameKind::kHello; })},
                    BadFrameRow{"AnAnswer", spoiled([](FrameHeader& h) { h.kind = FrameKind::kAnswer; })},
                    BadFrameRow{"AnUnknownKind", spoiled([](FrameHeader& h) { h.kind = FrameKind{99}; })}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(StrangersTest, AHalfFrameAtTheEndIsDroppedAndHarmsNoOther) {
  const auto raw = guest();
  raw->send(oneway(100));
  raw->send("half", 4);
  raw->close();
  expectUnharmed();
  EXPECT_EQ(server.count(), 1u);
}

TEST_F(StrangersTest, AHalfFrameThatStandsStillHoldsUpNoOther) {
  const auto raw = guest();
  raw->send(oneway(100));
  raw->send("half", 4);
  expectUnharmed();
  raw->send(std::string(96, 'x').data(), 96);
  EXPECT_TRUE(server.waitForCount(2));
}

TEST_F(StrangersTest, MessagesBeforeABadFrameAreDelivered) {
  const auto raw = guest();
  raw->send(oneway(4));
  raw->send("good", 4);
  FrameHeader bad;
  bad.magic = 0;
  raw->send(bad);
  EXPECT_TRUE(raw->waitUntilClosed());
  ASSERT_EQ(server.count(), 1u);
  EXPECT_EQ(server.messages()[0].data, "good");
}

TEST_F(StrangersTest, AGreetingThatMakesNoSenseEndsTheConnection) {
  const RawConnection raw(socketOf(server.guid()));
  raw.send(std::string(100, '?').data(), 100);
  EXPECT_TRUE(raw.waitUntilClosed());
  expectUnharmed();
}

TEST_F(StrangersTest, AMessageBeforeTheGreetingEndsTheConnection) {
  const RawConnection raw(socketOf(server.guid()));
  raw.send(oneway(32));
  raw.send(std::string(32, 'x').data(), 32);
  EXPECT_TRUE(raw.waitUntilClosed());
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(StrangersTest, AGreetingMeantForAnotherAddressIsRefused) {
  const RawConnection raw(socketOf(server.guid()));
  EXPECT_EQ(raw.greet(owner.guid(), newGuid()), lunet::kErrDenied);
  EXPECT_TRUE(raw.waitUntilClosed());
}

TEST_F(StrangersTest, AnAddressThatNobodyHasCannotBeClaimed) {
  const RawConnection raw(socketOf(server.guid()));
  EXPECT_EQ(raw.greet(newGuid(), server.guid()), lunet::kErrDenied);
}

TEST_F(StrangersTest, AProbeIsWelcomedAndCanSendNothing) {
  const RawConnection raw(socketOf(server.guid()));
  FrameHeader hello;
  hello.kind = FrameKind::kHello;
  hello.channel = lunet::kProbe;
  hello.length = sizeof(lunet::HelloBody);
  raw.send(hello);
  raw.send(lunet::HelloBody{{}, server.guid()});
  FrameHeader welcome;
  const std::string answer = raw.receive(sizeof welcome + sizeof(lunet::Guid));
  ASSERT_EQ(answer.size(), sizeof welcome + sizeof(lunet::Guid));
  std::memcpy(&welcome, answer.data(), sizeof welcome);
  EXPECT_EQ(welcome.channel, lunet::kOk);
  EXPECT_TRUE(raw.waitUntilClosed());
}

TEST_F(StrangersTest, CallersThatSayNothingHoldUpNobody) {
  std::vector<std::unique_ptr<RawConnection>> silent;
  for (int i = 0; i < 100; ++i) {
    silent.push_back(std::make_unique<RawConnection>(socketOf(server.guid())));
    ASSERT_TRUE(silent.back()->connected());
  }
  expectUnharmed();
}

/// A listener made by hand, that answers as the test says.
class FalseListenerTest : public BusTest {
 protected:
  FalseListenerTest() : caller(client, newGuid()) {
    const auto address = lunet::socketAddress(socketOf(guid));
    listener = platform::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
    EXPECT_EQ(listen(listener.get(), 5), 0);
  }
  ~FalseListenerTest() override {
    caller->Close();  // ends the connection that the thread may be waiting on
    if (thread.joinable()) {
      thread.join();
    }
  }
  /// Welcomes one caller as `claimed`, reads one request and answers with these bytes.
  void answerWith(const lunet::Guid& claimed, std::string bytes) {
    thread = std::thread([this, claimed, bytes = std::move(bytes)] {
      const platform::Descriptor peer(accept(listener.get(), nullptr, nullptr));
      char block[4096];
      (void)!recv(peer.get(), block, sizeof(FrameHeader) + sizeof(lunet::HelloBody), MSG_WAITALL);
      FrameHeader welcome;
      welcome.kind = FrameKind::kWelcome;
      welcome.length = sizeof claimed;
      (void)send(peer.get(), &welcome, sizeof welcome, MSG_NOSIGNAL);
      (void)send(peer.get(), &claimed, sizeof claimed, MSG_NOSIGNAL);
      (void)!recv(peer.get(), block, sizeof(FrameHeader) + 1, MSG_WAITALL);
      (void)send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      (void)!recv(peer.get(), block, sizeof block, 0);  // until the other side ends it
    });
  }
  static std::string bytesOf(const FrameHeader& header) {
    return std::string(reinterpret_cast<const char*>(&header), sizeof header);
  }

  Client client{config()};
  Endpoint caller;
  const lunet::Guid guid = newGuid();
  platform::Descriptor listener;
  std::thread thread;
};

TEST_F(FalseListenerTest, AnAnswerWithAWrongMagicEndsTheCall) {
  FrameHeader header;
  header.kind = FrameKind::kAnswer;
  header.magic = 1;
  answerWith(guid, bytesOf(header));
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrPeerLost);
}

TEST_F(FalseListenerTest, AnAnswerOverTheLimitEndsTheCall) {
  FrameHeader header;
  header.kind = FrameKind::kAnswer;
  header.length = lunet::kMaxMessageBytes + 1;
  answerWith(guid, bytesOf(header));
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrPeerLost);
}

TEST_F(FalseListenerTest, ARequestFromAListenerEndsTheCall) {
  FrameHeader header;
  header.kind = FrameKind::kRequest;
  answerWith(guid, bytesOf(header));
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrPeerLost);
}

TEST_F(FalseListenerTest, AnAnswerToNothingIsDropped) {
  FrameHeader stray;
  stray.kind = FrameKind::kAnswer;
  stray.id = 4711;
  stray.length = 4;
  FrameHeader good;
  good.kind = FrameKind::kAnswer;
  good.id = 1;
  good.length = 2;
  std::string bytes = bytesOf(stray);
  bytes.append("what").append(bytesOf(good)).append("ok");
  answerWith(guid, std::move(bytes));
  EXPECT_EQ(caller.call(guid, "x").data, "ok");
}

TEST_F(FalseListenerTest, AListenerThatServesAnotherAddressIsNotTalkedTo) {
  answerWith(newGuid(), "");
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrDenied);
}
