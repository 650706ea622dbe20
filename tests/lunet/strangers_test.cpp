// A peer that breaks the rules of the wire ends its own connection, and nothing else.

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <utility>

#include "BusFixture.h"
#include "Frame.h"
#include "SocketFolder.h"
#include "platform/Descriptor.h"
#include "support/Process.h"
#include "support/Wait.h"

using namespace lunettest;
using lunet::FrameHeader;
using lunet::FrameKind;
using testsupport::waitFor;

namespace {

/// Called before a message of a caller, or its hello, is sent in one piece.
std::function<void()> beforeSending;

}  // namespace

// Stands before the C library's function, for the bus library too.
extern "C" ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  if (beforeSending) {  // only read by the threads of other tests
    std::exchange(beforeSending, nullptr)();
  }
  return sendto(fd, bytes, size, flags, nullptr, 0);
}

class StrangersTest : public BusTest {
 protected:
  static FrameHeader oneway(std::uint32_t length) {
    FrameHeader header;
    header.channel = lunet::kOnewayChannel;
    header.length = length;
    return header;
  }
  /// A connection behind its handshake.
  std::unique_ptr<RawConnection> connected() {
    auto raw = std::make_unique<RawConnection>(socketOf(server.guid()));
    EXPECT_EQ(raw->handshake(owner.guid(), server.guid()), lunet::kOk);
    return raw;
  }
  /// The number of open descriptors of this process.
  static auto descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
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
  const auto raw = connected();
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

TEST_F(StrangersTest, AHelloThatEndsEarlyGetsNoAnswer) {
  const RawConnection raw(socketOf(server.guid()));
  FrameHeader header;
  header.kind = FrameKind::kHello;
  header.length = sizeof(lunet::HelloBody);
  raw.send(header);
  raw.send(owner.guid());
  raw.endSending();
  EXPECT_EQ(raw.receive(1), "");
  expectUnharmed();
}

TEST_F(StrangersTest, AHalfFrameAtTheEndIsDroppedAndHarmsNoOther) {
  const auto raw = connected();
  raw->send(oneway(100));
  raw->send("half", 4);
  raw->close();
  expectUnharmed();
  EXPECT_EQ(server.count(), 1u);
}

TEST_F(StrangersTest, AHalfFrameThatStandsStillHoldsUpNoOther) {
  const auto raw = connected();
  raw->send(oneway(100));
  raw->send("half", 4);
  expectUnharmed();
  raw->send(std::string(96, 'x').data(), 96);
  EXPECT_TRUE(server.waitForCount(2));
}

TEST_F(StrangersTest, MessagesBeforeABadFrameAreDelivered) {
  const auto raw = connected();
  raw->send(oneway(4));
  raw->send("good", 4);
  FrameHeader bad;
  bad.magic = 0;
  raw->send(bad);
  EXPECT_TRUE(raw->waitUntilClosed());
  ASSERT_EQ(server.count(), 1u);
  EXPECT_EQ(server.messages()[0].data, "good");
}

TEST_F(StrangersTest, AnEndThatComesTogetherWithAMessageIsNoticed) {
  Gate gate;
  Endpoint busy(client, newGuid(), [&](Endpoint&, const Message&) {
    gate.wait();
    errno = EAGAIN;  // of some earlier call
  });
  ASSERT_EQ(friendly.send(busy.guid(), "x"), lunet::kOk);
  ASSERT_TRUE(busy.waitForCount(1));
  const auto before = descriptors();
  RawConnection raw(socketOf(busy.guid()));
  ASSERT_EQ(raw.handshake(owner.guid(), busy.guid()), lunet::kOk);
  raw.send(oneway(0));
  raw.close();
  gate.open();
  EXPECT_TRUE(busy.waitForCount(2));
  EXPECT_TRUE(waitFor([&] { return descriptors() <= before; })) << before << " then " << descriptors();
}

/// The kernel reports such an end as an error of the read.
TEST_F(StrangersTest, AnEndThatLeavesAnAnswerUnreadIsNoticed) {
  expectUnharmed();
  const auto before = descriptors();
  const auto raw = connected();
  FrameHeader request = oneway(1);
  request.kind = FrameKind::kRequest;
  request.channel = lunet::kRequestChannel;
  request.id = 1;
  raw->send(request);
  raw->send("x", 1);
  ASSERT_EQ(raw->receive(sizeof request).size(), sizeof request);
  raw->close();
  EXPECT_TRUE(waitFor([&] { return descriptors() <= before; })) << before << " then " << descriptors();
}

TEST_F(StrangersTest, AOnewayMessageOnAChannelWithoutAReceiverGetsNoAnswer) {
  const auto raw = connected();
  FrameHeader frame;
  frame.channel = 777;
  raw->send(frame);
  frame.kind = FrameKind::kRequest;
  frame.id = 4711;
  raw->send(frame);
  const std::string bytes = raw->receive(sizeof frame);
  ASSERT_EQ(bytes.size(), sizeof frame);
  std::memcpy(&frame, bytes.data(), sizeof frame);
  EXPECT_EQ(frame.id, 4711u);
  EXPECT_EQ(frame.channel, lunet::kErrNoTarget);
}

TEST_F(StrangersTest, ACallerThatHangsUpWhileItsAnswersWaitIsReportedToTheReplier) {
  std::vector<Message> requests;
  std::atomic<bool> lost{false};
  Gate gate;
  Endpoint replier(client, newGuid(), [&](Endpoint& self, const Message& message) {
    requests.push_back(message);
    if (message.data != "last") {
      return;
    }
    EXPECT_EQ(self.reply(requests.front(), std::string(4 << 20, 'a')), lunet::kOk);  // more than one read
    gate.open();
    std::size_t next = 1;
    lost = waitFor([&] { return self.reply(requests.at(next++), "x") == lunet::kErrPeerLost; });
  });
  RawConnection raw(socketOf(replier.guid()));
  ASSERT_EQ(raw.handshake(owner.guid(), replier.guid()), lunet::kOk);
  FrameHeader request;
  request.kind = FrameKind::kRequest;
  request.channel = lunet::kRequestChannel;
  for (request.id = 1; request.id <= 11000; ++request.id) {
    raw.send(request);
  }
  request.length = 4;
  raw.send(request);
  raw.send("last", 4);
  ASSERT_TRUE(gate.wait());
  raw.close();
  EXPECT_TRUE(waitFor([&] { return lost.load(); }));
}

TEST_F(StrangersTest, AHelloThatMakesNoSenseEndsTheConnection) {
  const RawConnection raw(socketOf(server.guid()));
  raw.send(std::string(100, '?').data(), 100);
  EXPECT_TRUE(raw.waitUntilClosed());
  expectUnharmed();
}

TEST_F(StrangersTest, AMessageBeforeTheHelloEndsTheConnection) {
  const RawConnection raw(socketOf(server.guid()));
  raw.send(oneway(32));
  raw.send(std::string(32, 'x').data(), 32);
  EXPECT_TRUE(raw.waitUntilClosed());
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(StrangersTest, AHelloWithOneWrongFieldEndsTheConnection) {
  void (*const spoil[])(FrameHeader&) = {
      [](FrameHeader& h) { h.magic ^= 1; }, [](FrameHeader& h) { ++h.version; },
      [](FrameHeader& h) { h.kind = FrameKind::kOneway; }, [](FrameHeader& h) { ++h.length; }};
  for (std::size_t i = 0; i < std::size(spoil); ++i) {
    const RawConnection raw(socketOf(server.guid()));
    FrameHeader hello;
    hello.kind = FrameKind::kHello;
    hello.length = sizeof(lunet::HelloBody);
    spoil[i](hello);
    raw.send(hello);
    raw.send(lunet::HelloBody{owner.guid(), server.guid()});
    EXPECT_TRUE(raw.waitUntilClosed()) << i;
  }
}

/// The limit is five seconds.
TEST_F(StrangersTest, ACallerThatSendsNoHelloIsCutOff) {
  const RawConnection raw(socketOf(server.guid()));
  raw.send("half", 4);
  EXPECT_TRUE(raw.waitUntilClosed());
}

TEST_F(StrangersTest, AHelloMeantForAnotherAddressIsRefused) {
  const RawConnection raw(socketOf(server.guid()));
  EXPECT_EQ(raw.handshake(owner.guid(), newGuid()), lunet::kErrDenied);
  EXPECT_TRUE(raw.waitUntilClosed());
}

TEST_F(StrangersTest, MessagesOfManyConnectionsThatWaitAtOnceAllArrive) {
  constexpr std::size_t kConnections = 150;
  Gate gate;
  Endpoint busy(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  std::vector<std::unique_ptr<RawConnection>> connections;
  for (std::size_t i = 0; i < kConnections; ++i) {
    connections.push_back(std::make_unique<RawConnection>(socketOf(busy.guid())));
    ASSERT_EQ(connections.back()->handshake(owner.guid(), busy.guid()), lunet::kOk);
    connections.back()->send(oneway(0));
    ASSERT_TRUE(busy.waitForCount(1));
  }
  gate.open();
  EXPECT_TRUE(busy.waitForCount(kConnections)) << busy.count();
}

TEST_F(StrangersTest, AnAddressThatNobodyHasCannotBeClaimed) {
  const RawConnection raw(socketOf(server.guid()));
  EXPECT_EQ(raw.handshake(newGuid(), server.guid()), lunet::kErrDenied);
}

TEST_F(StrangersTest, AnAddressAtWhichNoSocketStandsCannotBeClaimed) {
  const lunet::Guid guid = newGuid();
  tree.write("run/lunet/" + lunet::formatGuid(guid) + ".sock", "");
  const RawConnection raw(socketOf(server.guid()));
  EXPECT_EQ(raw.handshake(guid, server.guid()), lunet::kErrDenied);
}

TEST_F(StrangersTest, AnAddressAtWhichALinkToASocketStandsCannotBeClaimed) {
  const lunet::Guid guid = newGuid();
  std::filesystem::create_symlink(socketOf(owner.guid()), socketOf(guid));
  const RawConnection raw(socketOf(server.guid()));
  EXPECT_EQ(raw.handshake(guid, server.guid()), lunet::kErrDenied);
}

/// Written out, so that a probe of another build is understood too.
TEST_F(StrangersTest, AHelloOfTheseBytesGetsAReplyOfTheseBytes) {
  const auto text = [](const lunet::Guid& guid) {
    return std::string(reinterpret_cast<const char*>(guid.data()), guid.size());
  };
  for (const char channel : {'\0', '\1'}) {
    const bool probe = channel == '\1';
    const RawConnection raw(socketOf(server.guid()));
    const std::string hello = std::string("LNET\1\0\1\0", 8) + channel + std::string("\0\0\0 \0\0\0", 7) +
                              std::string(8, '\0') + (probe ? std::string(16, '\0') : text(owner.guid())) +
                              text(server.guid());
    raw.send(hello.data(), hello.size());
    EXPECT_EQ(raw.receive(40),
              std::string("LNET\1\0\2\0\0\0\0\0\x10\0\0\0\0\0\0\0\0\0\0\0", 24) + text(server.guid()));
  }
}

TEST_F(StrangersTest, AProbeGetsAHelloReplyAndCanSendNothing) {
  const RawConnection raw(socketOf(server.guid()));
  FrameHeader hello;
  hello.kind = FrameKind::kHello;
  hello.channel = lunet::kProbe;
  hello.length = sizeof(lunet::HelloBody);
  raw.send(hello);
  raw.send(lunet::HelloBody{{}, server.guid()});
  FrameHeader reply;
  const std::string answer = raw.receive(sizeof reply + sizeof(lunet::Guid));
  ASSERT_EQ(answer.size(), sizeof reply + sizeof(lunet::Guid));
  std::memcpy(&reply, answer.data(), sizeof reply);
  EXPECT_EQ(reply.channel, lunet::kOk);
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

/// A listener made by hand that answers as the test says.
class FalseListenerTest : public BusTest {
 protected:
  FalseListenerTest() : caller(client, newGuid()) {
    const auto address = lunet::socketAddress(socketOf(guid));
    listener = platform::Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
    EXPECT_EQ(listen(listener.get(), 5), 0);
  }
  ~FalseListenerTest() override {
    caller->Close();                      // ends a connection that the thread reads
    shutdown(listener.get(), SHUT_RDWR);  // ends a wait in accept
    if (thread.joinable()) {
      thread.join();
    }
  }
  /// Answers each hello with these replies in turn, and ends each connection when its caller does.
  void replyToEach(std::vector<FrameHeader> replies) {
    thread = std::thread([this, replies = std::move(replies)] {
      for (const FrameHeader& reply : replies) {
        const platform::Descriptor peer(accept(listener.get(), nullptr, nullptr));
        char block[4096];
        (void)!recv(peer.get(), block, sizeof(FrameHeader) + sizeof(lunet::HelloBody), MSG_WAITALL);
        (void)send(peer.get(), &reply, sizeof reply, MSG_NOSIGNAL);
        (void)send(peer.get(), &guid, sizeof guid, MSG_NOSIGNAL);
        while (recv(peer.get(), block, sizeof block, 0) > 0) {
        }
      }
    });
  }
  static FrameHeader helloReply() {
    FrameHeader header;
    header.kind = FrameKind::kHelloReply;
    header.length = sizeof(lunet::Guid);
    return header;
  }
  /// Makes the queue of new connections full; the connections that fill the queue.
  std::vector<platform::Descriptor> fillQueue() const {
    EXPECT_EQ(listen(listener.get(), 0), 0);
    const auto address = lunet::socketAddress(socketOf(guid));
    std::vector<platform::Descriptor> others;
    do {
      others.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    } while (connect(others.back().get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) ==
             0);
    EXPECT_EQ(errno, EAGAIN);
    others.pop_back();
    return others;
  }
  bool somebodyCalls() const {
    pollfd waiting{listener.get(), POLLIN, 0};
    return poll(&waiting, 1, 20000) == 1;
  }

  /// A connection whose handshake is finished as `claimed`. deaf: writes of the caller fail from the start.
  platform::Descriptor greeted(const lunet::Guid& claimed, bool deaf = false) const {
    platform::Descriptor peer(accept(listener.get(), nullptr, nullptr));
    char hello[sizeof(FrameHeader) + sizeof(lunet::HelloBody)];
    (void)!recv(peer.get(), hello, sizeof hello, MSG_WAITALL);
    if (deaf) {
      shutdown(peer.get(), SHUT_RD);
    }
    const FrameHeader reply = helloReply();
    (void)send(peer.get(), &reply, sizeof reply, MSG_NOSIGNAL);
    (void)send(peer.get(), &claimed, sizeof claimed, MSG_NOSIGNAL);
    return peer;
  }
  /// Sends on so many threads, which all wait: one for the hello reply, the others for its end.
  std::vector<std::future<std::uint32_t>> sendAtOnce(std::size_t count) {
    std::mutex mutex;
    std::vector<pid_t> threads;
    std::vector<std::future<std::uint32_t>> sends;
    for (std::size_t i = 0; i < count; ++i) {
      sends.push_back(std::async(std::launch::async, [&] {
        {
          const std::lock_guard lock(mutex);
          threads.push_back(gettid());
        }
        return caller.send(guid, "x");
      }));
    }
    EXPECT_TRUE(waitFor([&] {
      const std::lock_guard lock(mutex);
      return threads.size() == count &&
             std::all_of(threads.begin(), threads.end(), testsupport::threadSleeps);
    }));
    return sends;
  }
  /// Reads one request of one byte and answers with these bytes.
  static void answerOne(const platform::Descriptor& peer, const std::string& bytes) {
    char request[sizeof(FrameHeader) + 1];
    (void)!recv(peer.get(), request, sizeof request, MSG_WAITALL);
    (void)send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  static void waitForEnd(const platform::Descriptor& peer) {
    char block[4096];
    while (recv(peer.get(), block, sizeof block, 0) > 0) {
    }
  }
  /// Finishes one handshake as `claimed`, reads one request and answers with these bytes.
  void answerWith(const lunet::Guid& claimed, std::string bytes) {
    thread = std::thread([this, claimed, bytes = std::move(bytes)] {
      const platform::Descriptor peer = greeted(claimed);
      answerOne(peer, bytes);
      waitForEnd(peer);
      ended = true;
    });
  }
  static std::string bytesOf(const FrameHeader& header) {
    return std::string(reinterpret_cast<const char*>(&header), sizeof header);
  }

  static constexpr std::chrono::milliseconds kHandshakeLimit{3000};
  Client client{config()};
  Endpoint caller;
  const lunet::Guid guid = lunet::parseGuid(lunet::kAgentGuid);
  platform::Descriptor listener;
  std::atomic<bool> ended{false};  ///< the connection of answerWith
  std::thread thread;
};

TEST_F(FalseListenerTest, AnAnswerWithAWrongMagicEndsTheCall) {
  FrameHeader header;
  header.kind = FrameKind::kAnswer;
  header.magic = 1;
  answerWith(guid, bytesOf(header));
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrPeerLost);
  EXPECT_TRUE(waitFor([this] { return ended.load(); })) << "the listener sees the end of the connection";
}

/// The log's records from level 0 (errors) to 2.
class LoggedEndTest : public FalseListenerTest {
 protected:
  LoggedEndTest() {
    std::lock_guard lock(mutex);
    records.clear();
    logged->SetLogCallback([](int, const char* text) {
      std::lock_guard adding(mutex);
      records += std::string(text) + "\n";
    });
  }
  static bool has(const char* text) {
    std::lock_guard lock(mutex);
    return records.find(text) != std::string::npos;
  }

  static inline std::mutex mutex;
  static inline std::string records;
  Client logged{config("\"log_level\":2")};
  Endpoint own{logged, newGuid()};
};

TEST_F(LoggedEndTest, AListenersDefectiveAnswerIsTheReason) {
  FrameHeader bad;
  bad.kind = FrameKind::kRequest;
  answerWith(guid, bytesOf(bad));
  EXPECT_EQ(own.call(guid, "x").error, lunet::kErrPeerLost);
  EXPECT_TRUE(has("is closed: a frame that a listener does not send\n")) << records;
  EXPECT_FALSE(has("queued bytes")) << records;
}

TEST_F(LoggedEndTest, ACallersDefectiveFrameIsTheReason) {
  const RawConnection raw(socketOf(own.guid()));
  ASSERT_EQ(raw.handshake(caller.guid(), own.guid()), lunet::kOk);
  FrameHeader bad;
  bad.kind = FrameKind::kAnswer;
  raw.send(bad);
  EXPECT_TRUE(raw.waitUntilClosed());
  EXPECT_TRUE(has("is closed: a frame that a caller does not send\n")) << records;
}

TEST_F(LoggedEndTest, AnOrderlyEndHasNoReason) {
  {
    Endpoint other(client, newGuid(), echo);
    ASSERT_EQ(own.call(other.guid(), "x").data, "x");
  }
  EXPECT_TRUE(waitFor([] { return has("has ended\n"); })) << records;
  EXPECT_FALSE(has("is closed: ")) << records;
  EXPECT_FALSE(has("queued bytes")) << records;
}

TEST_F(FalseListenerTest, AConnectionThatIsLostAtOnceIsMadeOnceMoreAndNotForEver) {
  std::atomic<int> dialled{0};
  thread = std::thread([&] {
    std::vector<platform::Descriptor> peers;
    while (dialled < 10) {
      peers.push_back(greeted(guid, true));
      ++dialled;
    }
    shutdown(listener.get(), SHUT_RDWR);
  });
  EXPECT_EQ(caller.send(guid, "x"), lunet::kErrNoTarget);
  EXPECT_EQ(dialled, 2);
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrPeerLost);
  EXPECT_EQ(dialled, 4);
  shutdown(listener.get(), SHUT_RDWR);
  thread.join();
}

/// The end of the listener's reading is no end of the caller's: only a write fails.
TEST_F(FalseListenerTest, AListenerThatReadsNoMoreIsDialledAnew) {
  Gate queued;
  std::atomic<bool> reached{false};
  thread = std::thread([&] {
    const platform::Descriptor first = greeted(guid);
    queued.wait();
    shutdown(first.get(), SHUT_RD);
    waitForEnd(first);  // makes space, so that the caller writes again
    const platform::Descriptor second = greeted(guid);
    FrameHeader header;
    (void)!recv(second.get(), &header, sizeof header, MSG_WAITALL);
    reached = header.channel == 4711;
  });
  EXPECT_EQ(caller.send(guid, std::string(4 << 20, 'q')), lunet::kOk);
  queued.open();
  EXPECT_TRUE(waitFor([&] {
    caller.send(guid, "x", 4711);
    return reached.load();
  }));
  shutdown(listener.get(), SHUT_RDWR);
  thread.join();
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

TEST_F(FalseListenerTest, ARefusalThatGivesNoReasonIsNoSuccess) {
  FrameHeader header;
  header.kind = FrameKind::kRefusal;
  header.id = 1;
  answerWith(guid, bytesOf(header));
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrSystem);
}

TEST_F(FalseListenerTest, AListenerThatHangsUpInsteadOfAHelloReplyIsNoTarget) {
  thread = std::thread([this] { const platform::Descriptor peer(accept(listener.get(), nullptr, nullptr)); });
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrNoTarget);
}

TEST_F(FalseListenerTest, ConnectTakesAnAgentThatGivesNoHelloReplyForAbsent) {
  Client hasty(config("\"connect_timeout_ms\":50"));
  EXPECT_EQ(hasty->Connect(10), lunet::kErrNoTarget);
}

TEST_F(FalseListenerTest, ConnectWaitsForAnAgentThatHasTooManyConnections) {
  FrameHeader full = helloReply();
  full.channel = lunet::kErrQueueFull;
  replyToEach({full, full, helloReply()});
  EXPECT_EQ(client->Connect(60), lunet::kOk);
}

TEST_F(FalseListenerTest, AListenerThatHangsUpBeforeTheHelloDoesNotEndTheCallersProcess) {
  beforeSending = [this] { const platform::Descriptor gone(accept(listener.get(), nullptr, nullptr)); };
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrNoTarget);
  EXPECT_FALSE(beforeSending);
}

TEST_F(FalseListenerTest, CloseEndsACallThatWaitsForAHelloReply) {
  auto call = std::async(std::launch::async, [&] { return caller.call(guid, "x").error; });
  ASSERT_TRUE(somebodyCalls());
  caller->Close();
  EXPECT_EQ(call.get(), lunet::kErrNotOpen);
}

TEST_F(FalseListenerTest, AListenerWhoseQueueOfNewConnectionsIsFullIsTriedAgain) {
  const std::vector<platform::Descriptor> others = fillQueue();
  auto call = std::async(std::launch::async, [&] { return caller.call(guid, "x").data; });
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);  // still waits
  for (std::size_t i = 0; i < others.size(); ++i) {
    const platform::Descriptor other(accept(listener.get(), nullptr, nullptr));
  }
  FrameHeader good;
  good.kind = FrameKind::kAnswer;
  good.id = 1;
  good.length = 2;
  answerWith(guid, bytesOf(good) + "ok");
  EXPECT_EQ(call.get(), "ok");
}

TEST_F(FalseListenerTest, AListenerWhoseQueueOfNewConnectionsStaysFullIsGivenUp) {
  const std::vector<platform::Descriptor> others = fillQueue();
  EXPECT_EQ(caller.call(guid, "x", 30).error, lunet::kErrTimeout);
  auto call = std::async(std::launch::async, [&] { return caller.call(guid, "x").error; });
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);  // still waits
  caller->Close();
  EXPECT_EQ(call.get(), lunet::kErrNotOpen);
}

TEST_F(FalseListenerTest, ASocketOfAnotherKindIsAnErrorOfTheSystem) {
  const lunet::Guid other = newGuid();
  const auto address = lunet::socketAddress(socketOf(other));
  const platform::Descriptor datagrams(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(datagrams.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
  EXPECT_EQ(caller.send(other, "x"), lunet::kErrSystem);
}

/// Otherwise the messages of one sender could overtake each other.
TEST_F(FalseListenerTest, SendersOfOneEndpointAtOnceShareOneConnection) {
  std::vector<std::future<std::uint32_t>> sends = sendAtOnce(4);
  ASSERT_TRUE(somebodyCalls());
  const platform::Descriptor peer = greeted(guid);
  for (std::future<std::uint32_t>& each : sends) {
    EXPECT_EQ(each.wait_for(kHandshakeLimit * 2 / 3), std::future_status::ready) << "waits for the limit";
    EXPECT_EQ(each.get(), lunet::kOk);
  }
  pollfd another{listener.get(), POLLIN, 0};
  EXPECT_EQ(poll(&another, 1, 0), 0);
}

TEST_F(FalseListenerTest, SendersAtOnceToAListenerThatHangsUpAllLearnThatNobodyIsThere) {
  std::vector<std::future<std::uint32_t>> sends = sendAtOnce(3);
  ASSERT_TRUE(somebodyCalls());
  std::filesystem::remove(socketOf(guid));
  { const platform::Descriptor peer(accept(listener.get(), nullptr, nullptr)); }
  for (std::future<std::uint32_t>& each : sends) {
    EXPECT_EQ(each.wait_for(kHandshakeLimit * 2 / 3), std::future_status::ready) << "waits for the limit";
    EXPECT_EQ(each.get(), lunet::kErrNoTarget);
  }
}

TEST_F(FalseListenerTest, AHelloReplyMayComeInPieces) {
  thread = std::thread([this] {
    const platform::Descriptor peer(accept(listener.get(), nullptr, nullptr));
    char hello[sizeof(FrameHeader) + sizeof(lunet::HelloBody)];
    (void)!recv(peer.get(), hello, sizeof hello, MSG_WAITALL);
    const std::string reply = bytesOf(helloReply()) + std::string(reinterpret_cast<const char*>(&guid), 16);
    for (const char byte : reply) {
      (void)send(peer.get(), &byte, 1, MSG_NOSIGNAL);
      int unread = 1;
      EXPECT_TRUE(waitFor([&] { return ioctl(peer.get(), SIOCOUTQ, &unread) == 0 && unread == 0; }));
    }
    FrameHeader good;
    good.kind = FrameKind::kAnswer;
    good.id = 1;
    good.length = 2;
    answerOne(peer, bytesOf(good) + "ok");
    waitForEnd(peer);
  });
  EXPECT_EQ(caller.call(guid, "x").data, "ok");
}

/// The limit is three seconds, or the caller's own if shorter.
TEST_F(FalseListenerTest, AListenerThatGivesNoHelloReplyIsGivenUp) {
  const lunet::Guid other = newGuid();
  const auto address = lunet::socketAddress(socketOf(other));
  const platform::Descriptor silent(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(silent.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
  ASSERT_EQ(listen(silent.get(), 5), 0);
  auto send = std::async(std::launch::async, [&] { return caller.send(guid, "x"); });
  ASSERT_TRUE(somebodyCalls());
  EXPECT_EQ(caller.call(other, "x", 1).error, lunet::kErrTimeout);
  EXPECT_EQ(caller.call(guid, "x", 1).error, lunet::kErrTimeout) << "waits for the handshake of the send";
  EXPECT_NE(send.wait_for(std::chrono::seconds(0)), std::future_status::ready) << "the call came first";
  EXPECT_EQ(send.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  caller->Close();  // also ends a call without limit
  EXPECT_EQ(send.get(), lunet::kErrTimeout);
}

struct FalseReplyRow {
  const char* name;
  void (*spoil)(FrameHeader&);
  std::uint32_t error;
};

class FalseHelloReplyTest : public FalseListenerTest, public testing::WithParamInterface<FalseReplyRow> {};

TEST_P(FalseHelloReplyTest, EndsTheCall) {
  FrameHeader header = helloReply();
  GetParam().spoil(header);
  replyToEach({header});
  EXPECT_EQ(caller.call(guid, "x").error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Table, FalseHelloReplyTest,
    testing::Values(
        FalseReplyRow{"AWrongMagic", [](FrameHeader& h) { h.magic ^= 1; }, lunet::kErrDenied},
        FalseReplyRow{"AnotherKind", [](FrameHeader& h) { h.kind = FrameKind::kAnswer; }, lunet::kErrDenied},
        FalseReplyRow{"AnotherLength", [](FrameHeader& h) { h.length += 1; }, lunet::kErrDenied},
        FalseReplyRow{"ADenial", [](FrameHeader& h) { h.channel = lunet::kErrDenied; }, lunet::kErrDenied},
        FalseReplyRow{"TooManyConnections", [](FrameHeader& h) { h.channel = lunet::kErrQueueFull; },
                      lunet::kErrQueueFull}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(FalseListenerTest, AListenerThatServesAnotherAddressIsNotTalkedTo) {
  answerWith(newGuid(), "");
  EXPECT_EQ(caller.call(guid, "x").error, lunet::kErrDenied);
}
