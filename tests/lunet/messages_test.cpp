#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <numeric>

#include "BusFixture.h"
#include "support/Wait.h"

using namespace lunettest;
using testsupport::waitFor;

class MessagesTest : public BusTest {
 protected:
  /// Bytes of which no two pieces are alike.
  static std::string varied(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i + 4 <= size; i += 4) {
      const auto word = static_cast<std::uint32_t>(i);
      std::memcpy(bytes.data() + i, &word, sizeof word);
    }
    return bytes;
  }

  Client client{config()};
};

TEST_F(MessagesTest, ACallIsAnsweredByItsTarget) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  const Endpoint::Answer answer = caller.call(server.guid(), "hello");
  EXPECT_EQ(answer.error, lunet::kOk);
  EXPECT_EQ(answer.errorOut, lunet::kOk);
  EXPECT_EQ(answer.data, "hello");
  EXPECT_TRUE(answer.terminated);
  EXPECT_EQ(server.messages()[0].channel, lunet::kRequestChannel);
}

TEST_F(MessagesTest, AOnewayMessageArrivesWithoutAReplyContext) {
  Endpoint server(client, newGuid());
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.send(server.guid(), "note"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(server.messages()[0].data, "note");
  EXPECT_EQ(server.messages()[0].channel, lunet::kOnewayChannel);
  EXPECT_EQ(server.messages()[0].replyContext, nullptr);
  EXPECT_EQ(server.messages()[0].context, server.get());
}

TEST_F(MessagesTest, AnEmptyMessageAndAnEmptyAnswerPass) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  const Endpoint::Answer answer = caller.call(server.guid(), "");
  EXPECT_EQ(answer.error, lunet::kOk);
  EXPECT_EQ(answer.data, "");
  EXPECT_TRUE(answer.terminated);
}

TEST_F(MessagesTest, BytesPassUnchangedNulsToo) {
  std::string bytes(256, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), bytes).data, bytes);
}

TEST_F(MessagesTest, AnAnswerOf64MebibytesPasses) {
  const std::string large = varied(64 << 20);
  Endpoint server(client, newGuid(),
                  [&](Endpoint& self, const Message& message) { self.reply(message, large); });
  Endpoint caller(client, newGuid());
  const Endpoint::Answer answer = caller.call(server.guid(), "give");
  EXPECT_EQ(answer.error, lunet::kOk);
  EXPECT_TRUE(answer.data == large);  // EXPECT_EQ would print both
}

TEST_F(MessagesTest, ARequestOf64MebibytesPasses) {
  const std::string large = varied(64 << 20);
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    self.reply(message, message.data == large ? "the same" : "another");
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), large).data, "the same");
}

TEST_F(MessagesTest, AMessageOverTheLimitIsRefusedAtOnce) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  const char byte = 0;
  const std::uint32_t length = lunet::kMaxMessageBytes + 1;
  EXPECT_EQ(caller->OnewaySend(server.guid(), lunet::kOnewayChannel, &byte, length), lunet::kErrTooLarge);
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t replyLength = 0;
  EXPECT_EQ(caller->SyncSend(server.guid(), lunet::kRequestChannel, &byte, length, &error, &reply,
                             &replyLength, 1000),
            lunet::kErrTooLarge);
  EXPECT_EQ(error, lunet::kErrTooLarge);
}

TEST_F(MessagesTest, AMessageAtTheLimitIsNotTooLarge) {
  Endpoint caller(client, newGuid());
  char* reply = nullptr;
  std::uint32_t replyLength = 0;
  EXPECT_EQ(caller->OnewaySend(newGuid(), lunet::kOnewayChannel, "x", lunet::kMaxMessageBytes),
            lunet::kErrNoTarget);
  EXPECT_EQ(caller->SyncSend(newGuid(), lunet::kRequestChannel, "x", lunet::kMaxMessageBytes, nullptr, &reply,
                             &replyLength, 1000),
            lunet::kErrNoTarget);
}

TEST_F(MessagesTest, NoBufferIsNeededForAnEmptyMessage) {
  Endpoint server(client, newGuid(), [](Endpoint& self, const Message& message) {
    if (message.replyContext != nullptr) {
      EXPECT_EQ(self->Reply(0, message.id, nullptr, 0, message.replyContext), lunet::kOk);
    }
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller->OnewaySend(server.guid(), lunet::kOnewayChannel, nullptr, 0), lunet::kOk);
  char* reply = nullptr;
  std::uint32_t replyLength = 1;
  EXPECT_EQ(caller->SyncSend(server.guid(), lunet::kRequestChannel, nullptr, 0, nullptr, &reply, &replyLength,
                             20000),
            lunet::kOk);
  EXPECT_NE(reply, nullptr);
  EXPECT_EQ(replyLength, 0u);
  caller->FreeBuffer(reply);
  EXPECT_EQ(server.count(), 2u);
}

TEST_F(MessagesTest, AnAnswerOverTheLimitIsReportedToBothSides) {
  std::atomic<std::uint32_t> replied{0};
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    const char byte = 0;
    replied = self->Reply(0, message.id, &byte, lunet::kMaxMessageBytes + 1, message.replyContext);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "give").error, lunet::kErrTooLarge);
  EXPECT_TRUE(waitFor([&] { return replied == lunet::kErrTooLarge; }));
}

TEST_F(MessagesTest, MessagesOfOneSenderOnBothChannelsAreDeliveredInTheOrderSent) {
  constexpr int kCount = 5000;
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  for (int i = 0; i < kCount; ++i) {
    // Large messages fill the socket, so that some are queued.
    const std::string text = std::to_string(i) + (i % 500 == 250 ? std::string(1 << 20, ' ') : "");
    if (i % 50 == 49) {
      ASSERT_EQ(caller.call(server.guid(), text).error, lunet::kOk);
    } else {
      ASSERT_EQ(caller.send(server.guid(), text, i % 2 == 0 ? lunet::kOnewayChannel : lunet::kRequestChannel),
                lunet::kOk);
    }
  }
  ASSERT_TRUE(server.waitForCount(kCount));
  const std::vector<Message> messages = server.messages();
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(std::stoi(messages[static_cast<std::size_t>(i)].data), i);
  }
}

TEST_F(MessagesTest, MessagesOfManySendersAtOnceAllArriveEachSendersInOrder) {
  constexpr int kSenders = 4;
  constexpr int kEach = 500;
  Endpoint server(client, newGuid(), echo);
  std::vector<std::unique_ptr<Endpoint>> senders;
  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    senders.push_back(std::make_unique<Endpoint>(client, newGuid()));
    threads.emplace_back([&server, &sender = *senders.back()] {
      for (int i = 0; i < kEach; ++i) {
        const std::string text = std::to_string(i);
        EXPECT_EQ(i % 10 == 0 ? sender.call(server.guid(), text).error : sender.send(server.guid(), text),
                  lunet::kOk);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  ASSERT_TRUE(server.waitForCount(kSenders * kEach));
  std::map<lunet::Guid, int> next;
  for (const Message& message : server.messages()) {
    EXPECT_EQ(std::stoi(message.data), next[message.peer]++);
  }
}

TEST_F(MessagesTest, CallsOfManyThreadsOverOneEndpointEachGetTheirOwnAnswer) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i);
        const Endpoint::Answer answer = caller.call(server.guid(), text);
        EXPECT_EQ(answer.error, lunet::kOk);
        EXPECT_EQ(answer.data, text);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(MessagesTest, AnswersMayComeInAnotherOrderThanTheirRequests) {
  std::vector<Message> kept;
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    kept.push_back(message);
    if (kept.size() == 3) {
      for (auto each = kept.rbegin(); each != kept.rend(); ++each) {
        self.reply(*each, "re " + each->data);
      }
    }
  });
  Endpoint caller(client, newGuid());
  std::vector<std::thread> threads;
  for (const std::string text : {"a", "b", "c"}) {
    threads.emplace_back([&, text] { EXPECT_EQ(caller.call(server.guid(), text).data, "re " + text); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(MessagesTest, AReplyMayBeGivenLaterAndOnAnotherThread) {
  Endpoint server(client, newGuid());
  Endpoint caller(client, newGuid());
  auto call = std::async(std::launch::async, [&] { return caller.call(server.guid(), "now").data; });
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(server.reply(server.messages()[0], "later"), lunet::kOk);
  EXPECT_EQ(call.get(), "later");
}

TEST_F(MessagesTest, AReplyContextIsGoodForOneReply) {
  std::vector<std::uint32_t> results;
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    if (message.replyContext != nullptr) {
      results.push_back(self.reply(message, "first"));
      results.push_back(self.reply(message, "second"));
    }
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").data, "first");
  EXPECT_EQ(caller.send(server.guid(), "y"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(2));
  EXPECT_EQ(results[0], lunet::kOk);
  EXPECT_EQ(results[1], lunet::kErrArgument);
}

TEST_F(MessagesTest, AReplyToTheWrongMessageIsRefused) {
  std::atomic<std::uint32_t> result{0};
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    result = self->Reply(0, message.id + 1, "x", 1, message.replyContext);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x", 50).error, lunet::kErrTimeout);
  EXPECT_TRUE(waitFor([&] { return result == lunet::kErrArgument; }));
}

TEST_F(MessagesTest, GetPeerGivesTheSenderInsideACallbackAndZeroesElsewhere) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.call(server.guid(), "x").error, lunet::kOk);
  EXPECT_EQ(server.messages()[0].peer, caller.guid());
  lunet::Guid peer = caller.guid();
  server->GetPeer(&peer);
  EXPECT_EQ(peer, lunet::Guid{});
  server->GetPeer(nullptr);
}

TEST_F(MessagesTest, GetPeerIdentityGivesTheSendersProcessInsideACallbackOnly) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.call(server.guid(), "x").error, lunet::kOk);
  const lunet::PeerIdentity process = server.messages()[0].process;
  EXPECT_EQ(process.pid, getpid());
  EXPECT_EQ(process.uid, geteuid());
  EXPECT_EQ(process.gid, getegid());
  EXPECT_GT(process.startTicks, 0u);
  EXPECT_TRUE(process.trusted) << "the same user";
  lunet::PeerIdentity outside;
  EXPECT_EQ(server->GetPeerIdentity(&outside), lunet::kErrNotOpen);
  EXPECT_EQ(server->GetPeerIdentity(nullptr), lunet::kErrArgument);
}

TEST_F(MessagesTest, WhileACallbackRunsItsSenderIsNotGivenToOtherThreads) {
  Gate gate;
  Endpoint server(client, newGuid(), [&](Endpoint&, const Message&) { gate.wait(); });
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.send(server.guid(), "x"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  lunet::Guid peer = caller.guid();
  server->GetPeer(&peer);
  EXPECT_EQ(peer, lunet::Guid{});
  lunet::PeerIdentity process;
  EXPECT_EQ(server->GetPeerIdentity(&process), lunet::kErrNotOpen);
  gate.open();
}

TEST_F(MessagesTest, AReceiveCallbackMaySend) {
  Endpoint sink(client, newGuid());
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    self.send(sink.guid(), "heard " + message.data);
    echo(self, message);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").error, lunet::kOk);
  ASSERT_TRUE(sink.waitForCount(1));
  EXPECT_EQ(sink.messages()[0].data, "heard x");
}

TEST_F(MessagesTest, AReceiveCallbackMayCall) {
  Endpoint third(client, newGuid(), echo);
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    self.reply(message, self.call(third.guid(), message.data + " by way of").data);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x by way of");
}

TEST_F(MessagesTest, AReceiveCallbackMayCallBackTheOneWhoCalls) {
  Endpoint caller(client, newGuid(), echo);
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    self.reply(message, self.call(message.peer, "who are you").data);
  });
  EXPECT_EQ(caller.call(server.guid(), "x").data, "who are you");
}

TEST_F(MessagesTest, ACallToTheOwnAddressIsAnsweredExceptFromACallback) {
  std::atomic<std::uint32_t> inside{0};
  Endpoint self(client, newGuid(), [&](Endpoint& endpoint, const Message& message) {
    inside = endpoint.call(endpoint.guid(), "nested", 5000).error;
    echo(endpoint, message);
  });
  EXPECT_EQ(self.call(self.guid(), "x").data, "x");
  EXPECT_EQ(inside, lunet::kErrArgument);
}

TEST_F(MessagesTest, ALateAnswerIsDroppedAndTheNextCallGetsItsOwn) {
  Gate gate;
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    if (message.data == "slow") {
      gate.wait();
    }
    echo(self, message);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "slow", 30).error, lunet::kErrTimeout);
  gate.open();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(caller.call(server.guid(), std::to_string(i)).data, std::to_string(i));
  }
}

TEST_F(MessagesTest, ALateLargeAnswerWithNobodyCallingIsTakenOffTheLine) {
  Gate gate;
  const std::string large(8 << 20, 'L');
  std::atomic<bool> replied{false};
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    gate.wait();
    self.reply(message, large);
    replied = true;
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "slow", 30).error, lunet::kErrTimeout);
  gate.open();
  EXPECT_TRUE(waitFor([&] { return replied.load(); }));
  EXPECT_TRUE(caller.call(server.guid(), "x").data == large);
}

TEST_F(MessagesTest, ALateAnswerIsTakenOffTheLineWhileNobodyCalls) {
  static std::atomic<bool> dropped{false};
  Gate gate;
  Client logged(config("\"log_level\":2"));
  logged->SetLogCallback([](int, const char* text) {
    dropped = dropped || std::string_view(text).find("came too late") != std::string_view::npos;
  });
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    gate.wait();
    echo(self, message);
  });
  Endpoint caller(logged, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "slow", 30).error, lunet::kErrTimeout);
  gate.open();
  EXPECT_TRUE(waitFor([] { return dropped.load(); }));
}

TEST_F(MessagesTest, EachOfSeveralLateAnswersIsTakenOffTheLineWhileNobodyCalls) {
  static std::atomic<int> dropped{0};
  dropped = 0;
  Client logged(config("\"log_level\":2"));
  logged->SetLogCallback([](int, const char* text) {
    dropped += std::string_view(text).find("came too late") != std::string_view::npos ? 1 : 0;
  });
  Endpoint server(client, newGuid());
  Endpoint caller(logged, newGuid());
  ASSERT_EQ(caller.send(server.guid(), "connects"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(caller.call(server.guid(), "slow", 30).error, lunet::kErrTimeout);
    ASSERT_TRUE(server.waitForCount(1 + i));
  }
  for (int i = 1; i <= 3; ++i) {  // the one before is taken by now
    EXPECT_EQ(server.reply(server.messages()[static_cast<std::size_t>(i)], "late"), lunet::kOk);
    EXPECT_TRUE(waitFor([i] { return dropped == i; })) << i;
  }
}

TEST_F(MessagesTest, ACallThatNobodyAnswersEndsWithItsTimeout) {
  Endpoint server(client, newGuid());
  Endpoint caller(client, newGuid());
  const Endpoint::Answer answer = caller.call(server.guid(), "x", 30);
  EXPECT_EQ(answer.error, lunet::kErrTimeout);
  EXPECT_EQ(answer.errorOut, lunet::kErrTimeout);
  EXPECT_EQ(caller.call(server.guid(), "x", 0).error, lunet::kErrTimeout);
}

TEST_F(MessagesTest, TimeoutsOfCallsAtOnceAreEachTheirOwn) {
  Gate gate;
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    EXPECT_TRUE(gate.wait()) << "the hasty one must not wait for the patient one's answer";
    echo(self, message);
  });
  Endpoint caller(client, newGuid());
  std::thread patient([&] { EXPECT_EQ(caller.call(server.guid(), "patient").data, "patient"); });
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(caller.call(server.guid(), "hasty", 30).error, lunet::kErrTimeout);
  gate.open();
  patient.join();
}

/// The first call reads for both. Whatever its end, the other call still gets its answer.
TEST_F(MessagesTest, ACallWhoseReaderHasItsAnswerAndGoesGetsItsOwn) {
  Endpoint server(client, newGuid());
  Endpoint caller(client, newGuid());
  auto first = std::async(std::launch::async, [&] { return caller.call(server.guid(), "first").data; });
  ASSERT_TRUE(server.waitForCount(1));
  auto second = std::async(std::launch::async, [&] { return caller.call(server.guid(), "second").data; });
  ASSERT_TRUE(server.waitForCount(2));
  EXPECT_EQ(server.reply(server.messages()[0], "to the first"), lunet::kOk);
  EXPECT_EQ(first.get(), "to the first");
  EXPECT_EQ(server.reply(server.messages()[1], "to the second"), lunet::kOk);
  EXPECT_EQ(second.get(), "to the second");
}

TEST_F(MessagesTest, CallsWhoseReaderRunsOutOfTimeStillGetTheirAnswers) {
  Endpoint server(client, newGuid());
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.send(server.guid(), "connects"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  auto reader = std::async(std::launch::async, [&] { return caller.call(server.guid(), "r", 300).error; });
  ASSERT_TRUE(server.waitForCount(2));
  std::vector<std::future<std::string>> others;
  for (std::size_t i = 0; i < 3; ++i) {
    others.push_back(std::async(std::launch::async, [&] { return caller.call(server.guid(), "x").data; }));
    ASSERT_TRUE(server.waitForCount(3 + i));
  }
  EXPECT_EQ(reader.get(), lunet::kErrTimeout);
  for (std::size_t i = others.size(); i-- > 0;) {  // the call that came last first
    EXPECT_EQ(server.reply(server.messages()[2 + i], std::to_string(i)), lunet::kOk);
    EXPECT_EQ(others[i].get(), std::to_string(i));
  }
  EXPECT_EQ(server.reply(server.messages()[1], "late"), lunet::kOk);
}

TEST_F(MessagesTest, NullPointersAreRefused) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t length = 0;
  EXPECT_EQ(caller->OnewaySend(server.guid(), 1, nullptr, 5), lunet::kErrArgument);
  EXPECT_EQ(caller->SyncSend(server.guid(), 1, nullptr, 5, &error, &reply, &length, 10), lunet::kErrArgument);
  EXPECT_EQ(caller->SyncSend(server.guid(), 1, "x", 1, &error, nullptr, &length, 10), lunet::kErrArgument);
  EXPECT_EQ(caller->SyncSend(server.guid(), 1, "x", 1, &error, &reply, nullptr, 10), lunet::kErrArgument);
  EXPECT_EQ(error, lunet::kErrArgument);
  EXPECT_EQ(caller->SendToProcess(server.guid(), {}, 1, nullptr, 5), lunet::kErrArgument);
  EXPECT_EQ(caller->GetPeerIdentity(nullptr), lunet::kErrArgument);
  caller->GetPeer(nullptr);
  EXPECT_EQ(caller->RegisterReceiver(1, nullptr, nullptr), lunet::kErrArgument);
  EXPECT_EQ(caller->Reply(0, 1, "x", 1, nullptr), lunet::kErrArgument);
  EXPECT_EQ(caller->Open(lunet::Guid{}), lunet::kErrArgument);
  caller->FreeBuffer(nullptr);
  caller->Close();
  EXPECT_EQ(caller->Reply(0, 1, "x", 1, nullptr), lunet::kErrArgument);
}

TEST_F(MessagesTest, AReplyWithABadArgumentIsRefusedAndTheRequestCanStillBeAnswered) {
  Endpoint server(client, newGuid(), [](Endpoint& self, const Message& message) {
    EXPECT_EQ(self->Reply(1, message.id, "x", 1, message.replyContext), lunet::kErrArgument);
    EXPECT_EQ(self->Reply(0, message.id, nullptr, 1, message.replyContext), lunet::kErrArgument);
    echo(self, message);
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
}

TEST_F(MessagesTest, ACallWritesItsOwnResultOverThatOfTheCallBefore) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t length = 0;
  const auto call = [&](const lunet::Guid& target, std::string_view text) {
    return caller->SyncSend(target, lunet::kRequestChannel, text.data(),
                            static_cast<std::uint32_t>(text.size()), &error, &reply, &length, 20000);
  };
  EXPECT_EQ(call(newGuid(), "x"), lunet::kErrNoTarget);
  EXPECT_EQ(error, lunet::kErrNoTarget);
  EXPECT_EQ(call(server.guid(), "text"), lunet::kOk);
  EXPECT_EQ(error, lunet::kOk);
  EXPECT_EQ(std::string(reply, length), "text");
  caller->FreeBuffer(reply);
  EXPECT_EQ(call(server.guid(), ""), lunet::kOk);
  EXPECT_EQ(length, 0u);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(*reply, '\0');
  caller->FreeBuffer(reply);
  EXPECT_EQ(call(newGuid(), "x"), lunet::kErrNoTarget);
  EXPECT_EQ(error, lunet::kErrNoTarget);
  EXPECT_EQ(reply, nullptr);
}

TEST_F(MessagesTest, ACallThatFailsLeavesNoReply) {
  Endpoint caller(client, newGuid());
  char stale = 0;
  char* reply = &stale;
  std::uint32_t length = 5;
  EXPECT_EQ(caller->SyncSend(newGuid(), 1, "x", 1, nullptr, &reply, &length, 10), lunet::kErrNoTarget);
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(length, 0u);
}
