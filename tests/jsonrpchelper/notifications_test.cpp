// The agent's notifications, from the notifier's call to the console's receivers.
#include <gtest/gtest.h>

#include <random>

#include "ByName.h"
#include "Recorders.h"
#include "jsonrpchelper/ConsoleNotifier.h"
#include "support/FakeEndpoint.h"

namespace rpctest {
namespace {

using enum JsonKind;

class Notification : public testing::TestWithParam<MethodRow> {
 protected:
  Notification() {
    helper.registerOn(console);
    scan.StartListening();
    business.StartListening();
  }
  ~Notification() override { helper.unregisterFrom(console); }

  std::string name() const { return rowName(GetParam()); }
  void arrive(const Json::Value& parameters) {
    const auto delivery = console.deliver(lunet::kOnewayChannel, notificationText(name(), parameters), false);
    EXPECT_FALSE(delivery.replied);
  }
  /// The calls that reached a receiver.
  std::vector<Json::Value> received() const {
    std::vector<Json::Value> calls = scan.log.calls();
    for (const Json::Value& call : business.log.calls()) {
      calls.push_back(call);
    }
    return calls;
  }

  testsupport::FakeEndpoint console;
  jsonrpchelper::IJsonRpcServerHelper helper;
  RecordingScan scan{helper};
  RecordingBusiness business{helper};

  testsupport::FakeEndpoint agent;
  const lunet::Guid target = lunet::parseGuid(lunet::kConsoleGuid);
  const lunet::PeerIdentity process{42, 0, 0, 4711};
  ConsoleNotifier notifier{agent, target, process};
};

TEST_P(Notification, ReachesItsReceiverWithTheArgumentsInTheTablesOrder) {
  const Json::Value parameters = sampleParameters(GetParam());
  ASSERT_EQ(notify(notifier, name(), parameters), lunet::kOk);
  console.deliver(lunet::kOnewayChannel, agent.last().text, false);
  ASSERT_EQ(received().size(), 1u);
  EXPECT_EQ(received()[0], recordedCall(GetParam(), parameters));
}

TEST_P(Notification, GoesToOneProcessOnTheOneWayChannel) {
  const Json::Value parameters = sampleParameters(GetParam());
  ASSERT_EQ(notify(notifier, name(), parameters), lunet::kOk);
  ASSERT_EQ(agent.sent.size(), 1u);
  EXPECT_EQ(agent.last().operation, "SendToProcess");
  EXPECT_EQ(agent.last().channel, 20991u);
  EXPECT_EQ(agent.last().target, target);
  EXPECT_EQ(agent.last().process, process);
  const Json::Value message = jsonOf(agent.last().text);
  EXPECT_EQ(message["jsonrpc"], "2.0");
  EXPECT_EQ(message["method"], name());
  EXPECT_EQ(message["params"], parameters);
  EXPECT_FALSE(message.isMember("id"));
}

TEST_P(Notification, ThatCannotBeSentGivesTheBussError) {
  agent.onewayResult = lunet::kErrNotSame;
  EXPECT_EQ(notify(notifier, name(), sampleParameters(GetParam())), lunet::kErrNotSame);
}

TEST_P(Notification, SendsAnEmptyObjectForAnotherValue) {
  Json::Value parameters = sampleParameters(GetParam());
  for (const auto& parameter : GetParam().parameters) {
    if (parameter.kind == kObject) {
      parameters[std::string(parameter.name)] = Json::Value();
    }
  }
  notify(notifier, name(), parameters);
  const Json::Value message = jsonOf(agent.last().text);
  for (const auto& parameter : GetParam().parameters) {
    if (parameter.kind == kObject) {
      EXPECT_EQ(message["params"][std::string(parameter.name)], Json::Value(Json::objectValue));
    }
  }
}

TEST_P(Notification, WithAMissingParameterNeverReachesTheReceiver) {
  for (const auto& parameter : GetParam().parameters) {
    Json::Value parameters = sampleParameters(GetParam());
    parameters.removeMember(std::string(parameter.name));
    arrive(parameters);
  }
  arrive(Json::Value());
  arrive(Json::Value(Json::arrayValue));
  EXPECT_TRUE(received().empty());
}

TEST_P(Notification, WithAParameterOfAnotherKindNeverReachesTheReceiver) {
  for (const auto& parameter : GetParam().parameters) {
    for (const Json::Value& wrong : valuesOfOtherKinds(parameter.kind)) {
      Json::Value parameters = sampleParameters(GetParam());
      parameters[std::string(parameter.name)] = wrong;
      arrive(parameters);
    }
  }
  EXPECT_TRUE(received().empty());
}

TEST_P(Notification, WithAnExtraParameterReachesTheReceiver) {
  Json::Value parameters = sampleParameters(GetParam());
  parameters["of a later agent"] = true;
  arrive(parameters);
  EXPECT_EQ(received().size(), 1u);
}

TEST_P(Notification, WhoseReceiverThrowsIsLostAlone) {
  const auto fail = [] { throw std::runtime_error("the report is full"); };
  scan.before = fail;
  business.before = fail;
  arrive(sampleParameters(GetParam()));
  scan.before = [] { throw 5; };
  business.before = scan.before;
  arrive(sampleParameters(GetParam()));
  scan.before = business.before = [] {};
  arrive(sampleParameters(GetParam()));
  EXPECT_EQ(received().size(), 1u);
}

TEST_P(Notification, RoundTripsRandomValues) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  for (unsigned round = 0; round < 50; ++round) {
    Json::Value parameters = sampleParameters(GetParam());
    int next = static_cast<int>((seed + round) % 100000);
    for (const auto& parameter : GetParam().parameters) {
      parameters[std::string(parameter.name)] = sampleOf(parameter.kind, next++);
    }
    notify(notifier, name(), parameters);
    console.deliver(lunet::kOnewayChannel, agent.last().text, false);
    ASSERT_EQ(received().size(), round + 1);
    EXPECT_EQ(received().back(), recordedCall(GetParam(), parameters));
  }
}

INSTANTIATE_TEST_SUITE_P(ConsoleNotifications, Notification, testing::ValuesIn(consoleNotifications()),
                         [](const auto& testCase) { return rowName(testCase.param); });

}  // namespace
}  // namespace rpctest
