#include "Receivers.h"

#include <gtest/gtest.h>

#include "BusFixture.h"
#include "support/Wait.h"

using namespace lunettest;
using testsupport::waitFor;

class ReceiversTest : public BusTest {
 protected:
  /// Ignores messages.
  class Counter final : public lunet::IMRReceiveComplete {
   public:
    void ReceiveCallback(std::uint32_t, std::uint64_t, const void*, std::uint32_t, void*,
                         void* given) override {
      context = given;
      ++count;
    }
    std::atomic<int> count{0};
    std::atomic<void*> context{nullptr};
  };

  Client client{config("\"log_level\":3")};
};

TEST_F(ReceiversTest, ARequestOnAChannelWithoutAReceiverIsAnsweredThatNobodyIsThere) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x", 20000, 777).error, lunet::kErrNoTarget);
  EXPECT_EQ(caller.call(server.guid(), "x").error, lunet::kOk);
}

TEST_F(ReceiversTest, AOnewayMessageOnAChannelWithoutAReceiverIsDropped) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.send(server.guid(), "x", 777), lunet::kOk);
  EXPECT_EQ(caller.call(server.guid(), "y").data, "y");
  EXPECT_EQ(server.count(), 1u);
}

TEST_F(ReceiversTest, ASecondReceiverReplacesTheFirst) {
  Counter first;
  Counter second;
  int marker = 0;
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  server->RegisterReceiver(5, &first, nullptr);
  server->RegisterReceiver(5, &second, &marker);
  caller.send(server.guid(), "x", 5);
  EXPECT_TRUE(waitFor([&] { return second.count == 1; }));
  EXPECT_EQ(second.context, &marker);
  EXPECT_EQ(first.count, 0);
  server->UnregisterReceiver(5);
}

TEST_F(ReceiversTest, AnUnregisteredReceiverIsNotCalledAnyMore) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(server->UnregisterReceiver(lunet::kOnewayChannel), lunet::kOk);
  caller.send(server.guid(), "x");
  caller.call(server.guid(), "y");
  EXPECT_EQ(server.count(), 1u);
  EXPECT_EQ(server->UnregisterReceiver(lunet::kOnewayChannel), lunet::kErrNoTarget);
}

TEST_F(ReceiversTest, UnregisteringWaitsForTheRunningCallbackOfThatChannel) {
  Gate gate;
  std::atomic<bool> finished{false};
  Endpoint server(client, newGuid(), [&](Endpoint&, const Message&) {
    gate.wait();
    finished = true;
  });
  Endpoint caller(client, newGuid());
  caller.send(server.guid(), "x");
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(server->UnregisterReceiver(lunet::kRequestChannel), lunet::kOk);  // another channel: no wait
  EXPECT_FALSE(finished);
  std::thread opener([&] { gate.open(); });
  server->UnregisterReceiver(lunet::kOnewayChannel);
  EXPECT_TRUE(finished);
  opener.join();
}

TEST_F(ReceiversTest, ACallbackMayUnregisterItself) {
  std::atomic<std::uint32_t> result{99};
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message&) {
    result = self->UnregisterReceiver(lunet::kOnewayChannel);
  });
  Endpoint caller(client, newGuid());
  caller.send(server.guid(), "x");
  EXPECT_TRUE(waitFor([&] { return result != 99; }));
  EXPECT_EQ(result, lunet::kOk);
}

TEST_F(ReceiversTest, CallbacksOfOneEndpointNeverRunAtTheSameTime) {
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  Endpoint server(client, newGuid(), [&](Endpoint& self, const Message& message) {
    overlapped = overlapped || ++running > 1;
    echo(self, message);
    --running;
  });
  std::vector<std::unique_ptr<Endpoint>> callers;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    callers.push_back(std::make_unique<Endpoint>(client, newGuid()));
    threads.emplace_back([&, &caller = *callers.back()] {
      for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(caller.call(server.guid(), "x").error, lunet::kOk);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(overlapped);
}

TEST_F(ReceiversTest, AReceiverThatThrowsHarmsNobody) {
  Endpoint server(client, newGuid(), [](Endpoint& self, const Message& message) {
    if (message.data == "throw") {
      throw std::runtime_error("thrown by a test");
    }
    if (message.data == "throw a number") {
      throw 5;
    }
    echo(self, message);
  });
  Endpoint caller(client, newGuid());
  caller.send(server.guid(), "throw");
  caller.send(server.guid(), "throw a number");
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
}

TEST_F(ReceiversTest, ARequestWhoseReceiverThrowsIsRefusedAtOnce) {
  Endpoint server(client, newGuid(),
                  [](Endpoint&, const Message&) { throw std::runtime_error("thrown by a test"); });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").error, lunet::kErrSystem);
}

TEST_F(ReceiversTest, ARequestThatWasAnsweredBeforeItsReceiverThrewKeepsItsAnswer) {
  Endpoint server(client, newGuid(), [](Endpoint& self, const Message& message) {
    echo(self, message);
    throw std::runtime_error("thrown by a test");
  });
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
  EXPECT_EQ(caller.call(server.guid(), "y").data, "y");
}

TEST(ReceiversList, ACallThatThrowsLeavesNoMarkOfARunningCall) {
  lunet::Receivers receivers;
  receivers.add(5, {});
  EXPECT_THROW(receivers.with(5, [](const auto&) { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_FALSE(receivers.callsHere());
}

TEST_F(ReceiversTest, AReceiverMayBeRegisteredBeforeOpening) {
  Endpoint server(client, echo);
  const lunet::Guid guid = newGuid();
  ASSERT_EQ(server->Open(guid), lunet::kOk);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(guid, "x").data, "x");
}
