// Console and agent on the real bus of a private tree, both in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <thread>

#include "ByName.h"
#include "Recorders.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "jsonrpchelper/Holders.h"
#include "lunet/BusClient.h"
#include "support/ConsoleLink.h"
#include "support/ScriptedAgent.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace rpctest {
namespace {

using enum JsonKind;
using testing::HasSubstr;
using testsupport::waitFor;

/// An endpoint at the agent's address or at another, with a server helper and a recording server.
class Agent {
 public:
  explicit Agent(const std::string& runtimePath, const char* guid = lunet::kAgentGuid) {
    const std::string config = R"({"runtime_path":")" + runtimePath + R"(","log_level":-1})";
    EXPECT_TRUE(bus_.load(TAV_LIB_DIR "/libLunetClientMgr.so"));
    EXPECT_EQ(bus_.init(config, "agent"), lunet::kOk);
    EXPECT_TRUE(bus_.createEndpoint());
    EXPECT_EQ(helper_.registerOn(endpoint()), lunet::kOk);
    server.StartListening();
    EXPECT_EQ(bus_.open(lunet::parseGuid(guid)), lunet::kOk);
  }
  ~Agent() { helper_.unregisterFrom(endpoint()); }
  lunet::IEndpoint& endpoint() { return *bus_.endpoint(); }

 private:
  lunet::BusClient bus_;
  IJsonRpcServerHelper helper_;

 public:
  RecordingAgent server{helper_};
};

/// A console that calls, its receivers, and the agent that is called.
class OverTheBus : public testing::TestWithParam<MethodRow> {
 protected:
  OverTheBus() {
    scan.emplace(*jsonrpchelper::serverHelper());
    business.emplace(*jsonrpchelper::serverHelper());
    scan->StartListening();
    business->StartListening();
  }
  ~OverTheBus() override {
    scan->StopListening();
    business->StopListening();
  }

  static IJsonRpcClientHelper& client() {
    return *jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid);
  }
  /// The caller of one call, as the agent sees the caller.
  jsonrpchelper::Caller greet() {
    jsonrpchelper::Caller caller;
    agent.server.before = [&] { caller = jsonrpchelper::currentCaller(); };
    AgentStub(client()).call(GetBusList{});
    agent.server.before = [] {};
    return caller;
  }
  std::string name() const { return rowName(GetParam()); }

  testsupport::TempDir tree;
  Agent agent{tree.path()};
  testsupport::ConsoleLink console{tree.path()};
  std::optional<RecordingScan> scan;
  std::optional<RecordingBusiness> business;
};

class MethodOverTheBus : public OverTheBus {};

TEST_P(MethodOverTheBus, MakesItsRoundTrip) {
  agent.server.object = sampleOf(kObject, 1);
  agent.server.array = sampleOf(kArray, 2);
  agent.server.text = sampleOf(kString, 3).asString();
  agent.server.number = -5;
  AgentStub stub(client());
  const Json::Value parameters = sampleParameters(GetParam());
  const std::map<JsonKind, Json::Value> results = {
      {kObject, agent.server.object}, {kArray, agent.server.array},    {kString, agent.server.text},
      {kBoolean, agent.server.flag},  {kInteger, agent.server.number}, {kNone, Json::Value()}};
  EXPECT_EQ(callStub(stub, name(), parameters), results.at(GetParam().result));
  ASSERT_TRUE(waitFor([&] { return agent.server.log.size() == 1; }));
  EXPECT_EQ(agent.server.log.calls()[0], recordedCall(GetParam(), parameters));
}

INSTANTIATE_TEST_SUITE_P(AgentMethods, MethodOverTheBus, testing::ValuesIn(agentMethods()),
                         [](const auto& testCase) { return rowName(testCase.param); });

class NotificationOverTheBus : public OverTheBus {};

TEST_P(NotificationOverTheBus, ReachesTheReceiverOfTheProcessThatAsked) {
  const jsonrpchelper::Caller caller = greet();
  ConsoleNotifier notifier(agent.endpoint(), caller.guid, caller.process);
  const Json::Value parameters = sampleParameters(GetParam());
  ASSERT_EQ(notify(notifier, name(), parameters), lunet::kOk);
  ASSERT_TRUE(waitFor([&] { return scan->log.size() + business->log.size() == 1; }));
  const auto& log = scan->log.size() == 1 ? scan->log : business->log;
  EXPECT_EQ(log.calls()[0], recordedCall(GetParam(), parameters));
}

TEST_P(NotificationOverTheBus, ReachesNobodyWhenAnotherProcessHasTheAddress) {
  jsonrpchelper::Caller caller = greet();
  caller.process.startTicks += 1;
  ConsoleNotifier notifier(agent.endpoint(), caller.guid, caller.process);
  EXPECT_EQ(notify(notifier, name(), sampleParameters(GetParam())), lunet::kErrNotSame);
}

INSTANTIATE_TEST_SUITE_P(ConsoleNotifications, NotificationOverTheBus,
                         testing::ValuesIn(consoleNotifications()),
                         [](const auto& testCase) { return rowName(testCase.param); });

using LinkOverTheBus = OverTheBus;

TEST_F(LinkOverTheBus, TheCallerIsKnownByAddressAndProcess) {
  const jsonrpchelper::Caller caller = greet();
  EXPECT_EQ(caller.guid, lunet::parseGuid(lunet::kConsoleGuid));
  EXPECT_EQ(caller.process.pid, getpid());
  EXPECT_EQ(caller.process.uid, getuid());
  EXPECT_NE(caller.process.startTicks, 0u);
}

TEST_F(LinkOverTheBus, NotificationsOfBothReceiversArriveInTheOrderSent) {
  const jsonrpchelper::Caller caller = greet();
  ConsoleNotifier notifier(agent.endpoint(), caller.guid, caller.process);
  std::vector<int> seen;
  scan->before = [&] { seen.push_back(-1); };
  business->before = [&] { seen.push_back(1); };
  constexpr int kCount = 500;
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(notifier.send(ReportBusProgress{.progress = i, .token_id = "t"}), lunet::kOk);
    ASSERT_EQ(notifier.send(ReportScanBusStage{.datail = "", .stage = i, .token_id = "t"}), lunet::kOk);
  }
  ASSERT_TRUE(waitFor([&] { return scan->log.size() == kCount; }));
  scan->StopListening();
  business->StopListening();
  ASSERT_EQ(seen.size(), 2u * kCount);
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(seen[static_cast<std::size_t>(2 * i)], 1);
    EXPECT_EQ(seen[static_cast<std::size_t>(2 * i + 1)], -1);
    EXPECT_EQ(business->log.calls()[static_cast<std::size_t>(i)][1], i);
  }
}

TEST_F(LinkOverTheBus, AReceiverMayCallTheAgentWhileItHandlesANotification) {
  const jsonrpchelper::Caller caller = greet();
  ConsoleNotifier notifier(agent.endpoint(), caller.guid, caller.process);
  std::atomic<int> answer = 0;
  agent.server.number = 17;
  business->before = [&] { answer = AgentStub(client()).call(GetScanCacheDetail{}); };
  ASSERT_EQ(notifier.send(ReportBusProgress{.progress = 1, .token_id = "t"}), lunet::kOk);
  EXPECT_TRUE(waitFor([&] { return answer == 17; }));
}

TEST_F(LinkOverTheBus, AHandlerOfTheAgentMayNotifyItsCallerBeforeItAnswers) {
  agent.server.before = [&] {
    const jsonrpchelper::Caller caller = jsonrpchelper::currentCaller();
    ConsoleNotifier notifier(agent.endpoint(), caller.guid, caller.process);
    EXPECT_EQ(notifier.send(ReportBusProgress{.progress = 5, .token_id = "t"}), lunet::kOk);
  };
  AgentStub(client()).call(GetBusList{});
  EXPECT_TRUE(waitFor([&] { return business->log.size() == 1; }));
}

TEST_F(LinkOverTheBus, AProcessOfTheSameUserReachesTheConsoleFromAnotherAddress) {
  Agent other(tree.path(), "5D1C9F0E-3B1B-4B0A-9C55-0C6E0C0A7D11");
  const lunet::Guid target = lunet::parseGuid(lunet::kConsoleGuid);
  const std::string notice =
      notificationText("reportBusProgress", jsonOf(R"({"progress":7,"token_id":"t"})"));
  ASSERT_EQ(other.endpoint().OnewaySend(target, lunet::kOnewayChannel, notice.data(),
                                        static_cast<std::uint32_t>(notice.size())),
            lunet::kOk);
  EXPECT_TRUE(waitFor([&] { return business->log.size() == 1; }));
  IJsonRpcClientHelper asking(&other.endpoint(), lunet::kConsoleGuid, lunet::kRequestChannel,
                              lunet::kOnewayChannel, 20000);
  try {
    asking.CallMethod("getBusList", Json::Value());
    FAIL();
  } catch (const jsonrpc::JsonRpcException& e) {
    EXPECT_EQ(e.GetCode(), jsonrpc::Errors::ERROR_RPC_METHOD_NOT_FOUND);
  }
}

TEST_F(LinkOverTheBus, ANotificationOfNineMebibytesReachesItsReceiver) {
  const jsonrpchelper::Caller caller = greet();
  ConsoleNotifier notifier(agent.endpoint(), caller.guid, caller.process);
  const std::string detail(9u << 20, 'd');
  ASSERT_EQ(notifier.send(ReportBusStatus{.ctx = {},
                                          .detail = detail,
                                          .params = {},
                                          .source = json::toNumber(json::RequestSource::kConsole),
                                          .state = json::toNumber(json::TaskState::kStarted),
                                          .token_id = "t",
                                          .type = json::toNumber(json::BusinessType::kScan)}),
            lunet::kOk);
  ASSERT_TRUE(waitFor([&] { return business->log.size() == 1; }));
  EXPECT_EQ(business->log.calls()[0][2].asString().size(), detail.size());
}

TEST_F(LinkOverTheBus, AnAnswerOfSixteenMebibytesPasses) {
  agent.server.text.assign(16u << 20, 'x');
  EXPECT_EQ(
      AgentStub(client()).call(GetAVConfig{.config_type = json::toNumber(json::ConfigType::kScan),
                                           .request_source = json::toNumber(json::RequestSource::kConsole)}),
      agent.server.text);
}

TEST_F(LinkOverTheBus, PathsOfAnyBytesPassBothWays) {
  std::string path = "/";
  for (int byte = 1; byte < 256; ++byte) {
    path.push_back(static_cast<char>(byte));
  }
  agent.server.text = json::encodePath(path);
  EXPECT_EQ(json::decodePath(AgentStub(client()).call(
                GetAVConfig{.config_type = json::toNumber(json::ConfigType::kScan),
                            .request_source = json::toNumber(json::RequestSource::kConsole)})),
            path);
  AgentStub(client()).call(SetAVConfig{.config_str = json::encodePath(path),
                                       .config_type = json::toNumber(json::ConfigType::kScan),
                                       .request_source = json::toNumber(json::RequestSource::kConsole)});
  EXPECT_EQ(json::decodePath(agent.server.log.calls().at(1)[1].asString()), path);
}

TEST_F(LinkOverTheBus, AnErrorOfTheAgentIsThrownWithItsCodeAndMessage) {
  agent.server.before = [] { throw jsonrpc::JsonRpcException(-3, "refused"); };
  try {
    AgentStub(client()).call(GetBusList{});
    FAIL();
  } catch (const jsonrpc::JsonRpcException& e) {
    EXPECT_EQ(e.GetCode(), -3);
    EXPECT_EQ(e.GetMessage(), "refused");
  }
}

/// A console with a scripted agent.
class OddAgent : public testing::Test {
 protected:
  static AgentStub stub() {
    return AgentStub(*jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid));
  }
  /// The error that a call ends with.
  static std::string failure() {
    try {
      stub().call(GetBusList{});
    } catch (const jsonrpc::JsonRpcException& e) {
      return std::to_string(e.GetCode()) + " " + e.GetMessage();
    }
    return "none";
  }
  static std::string number(std::uint32_t error) { return std::to_string(static_cast<int>(error)); }

  testsupport::TempDir tree;
  testsupport::ScriptedAgent agent{tree.path()};
  testsupport::ConsoleLink console{tree.path(), 300};
};

TEST_F(OddAgent, ThatAnswersNonsenseIsAnInvalidResponseAndTheNextCallWorks) {
  for (const std::string& nonsense : {std::string("not json"), std::string("[]"), std::string(3000, '['),
                                      std::string(R"({"jsonrpc":"2.0","id":9,"result":[]})")}) {
    agent.answerText("getBusList", nonsense);
    EXPECT_THAT(failure(), HasSubstr(std::to_string(jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE)));
  }
  agent.answer("getBusList", Json::Value(Json::arrayValue));
  EXPECT_EQ(failure(), "none");
}

TEST_F(OddAgent, ThatNeverAnswersEndsTheCallByTheTimeOut) {
  agent.neverAnswer("getBusList");
  EXPECT_THAT(failure(), HasSubstr("lunet SyncSend error ret[" + number(lunet::kErrTimeout) + "]"));
}

TEST_F(OddAgent, ThatDiesDuringACallEndsTheCallAndWorksAgainWhenItIsBack) {
  agent.dieAt("getBusList");
  EXPECT_THAT(failure(), HasSubstr("lunet SyncSend error ret["));
  ASSERT_TRUE(waitFor([&] { return !agent.present(); }));
  EXPECT_THAT(failure(), HasSubstr("lunet SyncSend error ret[" + number(lunet::kErrNoTarget) + "]"));
  agent.join();
  agent.answer("getBusList", Json::Value(Json::arrayValue));
  EXPECT_EQ(failure(), "none");
}

TEST_F(OddAgent, ThatIsGoneMakesANotificationFailAtOnce) {
  agent.leave();
  try {
    stub().call(CleanScanCache{});
    FAIL();
  } catch (const jsonrpc::JsonRpcException& e) {
    EXPECT_THAT(e.GetMessage(), HasSubstr("lunet OnewaySend error ret[" + number(lunet::kErrNoTarget) + "]"));
  }
}

TEST_F(OddAgent, ThatAnswersNothingDoesNotDelayCleanScanCache) {
  agent.neverAnswer("cleanScanCache");
  stub().call(CleanScanCache{});
  ASSERT_TRUE(agent.waitForCall("cleanScanCache"));
  EXPECT_EQ(agent.calls("cleanScanCache")[0].channel, 20991u);
  EXPECT_FALSE(agent.calls("cleanScanCache")[0].wantsReply);
}

}  // namespace
}  // namespace rpctest
