#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Recorders.h"
#include "jsonrpchelper/HandlerList.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "platform/CLog.h"
#include "support/FakeEndpoint.h"
#include "support/Wait.h"

namespace rpctest {
namespace {

using jsonrpc::Errors;
using testing::HasSubstr;

std::vector<std::string>& logged() {
  static std::vector<std::string> lines;
  return lines;
}

class ServerHelper : public testing::Test {
 protected:
  ServerHelper() {
    helper.registerOn(endpoint);
    logged().clear();
    CLog::set_log_level(CLogLevel::kDebug);
    CLog::set_log_callback(
        [](int level, const char* text) { logged().push_back(std::to_string(level) + text); });
  }
  ~ServerHelper() override {
    CLog::set_log_callback(nullptr);
    helper.unregisterFrom(endpoint);
  }

  Json::Value ask(const std::string& text) {
    const auto delivery = endpoint.deliver(lunet::kRequestChannel, text, true);
    EXPECT_TRUE(delivery.replied);
    return jsonOf(delivery.reply);
  }
  void send(const std::string& text) {
    EXPECT_FALSE(endpoint.deliver(lunet::kOnewayChannel, text, false).replied);
  }
  static std::string progress(int percent) {
    Json::Value parameters;
    parameters["progress"] = percent;
    parameters["token_id"] = "t";
    return notificationText("reportBusProgress", parameters);
  }
  static std::string stage(const char* detailKey) {
    Json::Value parameters;
    parameters[detailKey] = "d";
    parameters["stage"] = 1;
    parameters["token_id"] = "t";
    return notificationText("reportScanBusStage", parameters);
  }

  testsupport::FakeEndpoint endpoint;
  IJsonRpcServerHelper helper;
};

TEST_F(ServerHelper, BothReceiversGetTheirMessagesWhenTheScanReceiverIsBuiltFirst) {
  RecordingScan scan(helper);
  RecordingBusiness business(helper);
  scan.StartListening();
  business.StartListening();
  send(progress(1));
  send(stage("datail"));
  EXPECT_EQ(scan.log.size(), 1u);
  EXPECT_EQ(business.log.size(), 1u);
}

/// A notification, padded with blanks to that many bytes.
class ServerHelperLimits : public ServerHelper {
 protected:
  static std::string padded(std::string text, std::size_t size) {
    text.resize(size, ' ');
    return text;
  }
  RecordingBusiness business{helper};
};

TEST_F(ServerHelperLimits, AMessageAtTheLimitIsHandled) {
  business.StartListening();
  send(padded(progress(1), jsonrpchelper::kMaxRequestBytes));
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelperLimits, AnOnewayMessageOverTheLimitIsLoggedAndDropped) {
  business.StartListening();
  send(padded(progress(1), jsonrpchelper::kMaxRequestBytes + 1));
  EXPECT_EQ(business.log.size(), 0u);
  ASSERT_EQ(logged().size(), 1u);
  EXPECT_THAT(logged()[0], HasSubstr("8388609 is over the limit of 8388608"));
}

TEST_F(ServerHelperLimits, ANotificationOfATrustedSenderMayHaveTheLongestSizeOfTheBus) {
  business.StartListening();
  endpoint.peerProcess.trusted = true;
  send(padded(progress(1), jsonrpchelper::kMaxRequestBytes + 1));
  EXPECT_EQ(business.log.size(), 1u);
  EXPECT_THAT(logged(), testing::IsEmpty());
}

TEST_F(ServerHelperLimits, ARequestOfATrustedSenderHasTheCommonLimit) {
  endpoint.peerProcess.trusted = true;
  const Json::Value answer = ask(std::string(jsonrpchelper::kMaxRequestBytes + 1, '['));
  EXPECT_EQ(answer["error"]["code"].asInt(), Errors::ERROR_RPC_INVALID_REQUEST);
}

TEST_F(ServerHelperLimits, AnAnswerLargerThanTheBusCarriesBecomesAnErrorAnswer) {
  testsupport::FakeEndpoint::Delivery delivery;
  IJsonRpcServerHelper::ReplyTarget target{&endpoint, 7, &delivery};
  EXPECT_TRUE(helper.SendResponse(std::string(std::size_t{lunet::kMaxMessageBytes} + 1, 'x'), &target));
  ASSERT_LT(delivery.reply.size(), 1000u);
  const Json::Value answer = jsonOf(delivery.reply);
  EXPECT_EQ(answer["error"]["code"].asInt(), Errors::ERROR_RPC_INTERNAL_ERROR);
  EXPECT_THAT(delivery.reply, HasSubstr("larger than the bus carries"));
}

TEST_F(ServerHelperLimits, AMessageRefusedForItsSizeOrNestingIsLoggedOnceWithItsSender) {
  business.StartListening();
  endpoint.peer = lunet::parseGuid(lunet::kAgentGuid);
  endpoint.peerProcess = {42, 23456, 23456, 4711};
  std::string batch = "[0";
  for (std::size_t i = 0; i < jsonrpchelper::kMaxBatchRequests; ++i) {
    batch += ",0";
  }
  const struct {
    std::string text;
    const char* why;
  } rows[] = {
      {padded(progress(1), jsonrpchelper::kMaxRequestBytes + 1), "8388609 is over the limit of 8388608"},
      {std::string(2000, '[') + std::string(2000, ']'), "no JSON, or nested too deep"},
      {batch + "]", "1001 is over the limit of 1000"},
  };
  CLog::set_log_level(CLogLevel::kError);  // the console's default
  for (const auto& row : rows) {
    for (const std::uint32_t channel : {lunet::kOnewayChannel, lunet::kRequestChannel}) {
      logged().clear();
      endpoint.deliver(channel, row.text, channel == lunet::kRequestChannel);
      ASSERT_EQ(logged().size(), 1u) << row.why << channel;
      EXPECT_THAT(logged()[0], HasSubstr(row.why));
      EXPECT_THAT(logged()[0], HasSubstr(std::string(lunet::kAgentGuid) + " (pid 42, user 23456)"));
      EXPECT_THAT(logged()[0], HasSubstr(std::to_string(row.text.size()) + " bytes"));
    }
  }
  EXPECT_EQ(business.log.size(), 0u);
}

TEST_F(ServerHelperLimits, ARequestOverTheLimitIsAnsweredWithAnError) {
  const Json::Value answer = ask(std::string(jsonrpchelper::kMaxRequestBytes + 1, '['));
  EXPECT_EQ(answer["error"]["code"].asInt(), Errors::ERROR_RPC_INVALID_REQUEST);
  EXPECT_THAT(answer["error"]["message"].asString(), HasSubstr("8388609 is over the limit of 8388608"));
}

TEST_F(ServerHelperLimits, ABatchOfTheLargestSizeIsHandledOneByOne) {
  std::string batch = "[0";
  for (std::size_t i = 1; i < jsonrpchelper::kMaxBatchRequests; ++i) {
    batch += ",0";
  }
  const Json::Value answer = ask(batch + "]");
  ASSERT_TRUE(answer.isArray());
  EXPECT_EQ(answer.size(), jsonrpchelper::kMaxBatchRequests);
}

TEST_F(ServerHelperLimits, ABatchOfTooManyRequestsGetsOneError) {
  std::string batch = "[0";
  for (std::size_t i = 0; i < jsonrpchelper::kMaxBatchRequests; ++i) {
    batch += ",0";
  }
  const Json::Value answer = ask(batch + "]");
  ASSERT_TRUE(answer.isObject());
  EXPECT_EQ(answer["error"]["code"].asInt(), Errors::ERROR_RPC_INVALID_REQUEST);
  EXPECT_THAT(answer["error"]["message"].asString(), HasSubstr("1001 is over the limit of 1000"));
}

TEST_F(ServerHelper, BothReceiversGetTheirMessagesWhenTheBusinessReceiverIsBuiltFirst) {
  RecordingBusiness business(helper);
  RecordingScan scan(helper);
  business.StartListening();
  scan.StartListening();
  send(progress(1));
  send(stage("datail"));
  EXPECT_EQ(scan.log.size(), 1u);
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, AStageWithDetailInsteadOfDatailIsRejected) {
  RecordingScan scan(helper);
  scan.StartListening();
  send(stage("detail"));
  EXPECT_EQ(scan.log.size(), 0u);
  send(stage("datail"));
  EXPECT_EQ(scan.log.size(), 1u);
}

TEST_F(ServerHelper, AMessageOfARefusedSenderIsLoggedAndNotHandled) {
  RecordingBusiness business(helper);
  business.StartListening();
  helper.acceptOnly([](const jsonrpchelper::Caller& caller) { return caller.process.uid == 0; });
  endpoint.peer = lunet::parseGuid(lunet::kAgentGuid);
  endpoint.peerProcess = {42, 23456, 23456, 4711};
  send(progress(1));
  EXPECT_EQ(business.log.size(), 0u);
  EXPECT_EQ(logged(), (std::vector<std::string>{std::string("3ReceiveCallback: refused a message of ") +
                                                lunet::kAgentGuid + " (pid 42, user 23456)"}));
  endpoint.peerProcess = {43, 0, 0, 4712};
  send(progress(2));
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, ARequestOfARefusedSenderIsAnsweredWithAnError) {
  helper.acceptOnly([](const jsonrpchelper::Caller&) { return false; });
  const Json::Value answer = ask(progress(1));
  EXPECT_EQ(answer["error"]["code"].asInt(), Errors::ERROR_RPC_INVALID_REQUEST);
  EXPECT_EQ(answer["error"]["message"].asString(), "this endpoint does not serve the sender");
}

TEST_F(ServerHelper, MessagesAreDeliveredOnlyWhileTheServerListens) {
  RecordingBusiness business(helper);
  send(progress(1));
  EXPECT_EQ(business.log.size(), 0u);
  EXPECT_TRUE(business.StartListening());
  EXPECT_TRUE(business.StartListening());
  send(progress(2));
  EXPECT_EQ(business.log.size(), 1u) << "listening twice is listening once";
  EXPECT_TRUE(business.StopListening());
  send(progress(3));
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, AnEndpointGetsBothChannelsBack) {
  helper.unregisterFrom(endpoint);
  EXPECT_FALSE(endpoint.isRegistered(lunet::kRequestChannel));
  EXPECT_FALSE(endpoint.isRegistered(lunet::kOnewayChannel));
}

TEST_F(ServerHelper, ADestroyedReceiverLeavesTheList) {
  {
    RecordingBusiness business(helper);
    business.StartListening();
  }
  send(progress(1));
}

TEST_F(ServerHelper, AReceiverMayOutliveTheHelper) {
  auto own = std::make_unique<IJsonRpcServerHelper>();
  RecordingBusiness business(*own);
  business.StartListening();
  own.reset();
  business.StopListening();
}

TEST_F(ServerHelper, StoppingWaitsForARunningHandler) {
  RecordingBusiness business(helper);
  std::atomic<bool> inside = false;
  std::atomic<bool> release = false;
  std::atomic<bool> stopped = false;
  business.before = [&] {
    inside = true;
    testsupport::waitFor([&] { return release.load(); });
    EXPECT_FALSE(stopped);
  };
  business.StartListening();
  std::thread bus([&] { send(progress(1)); });
  ASSERT_TRUE(testsupport::waitFor([&] { return inside.load(); }));
  std::thread owner([&] {
    business.StopListening();
    stopped = true;
  });
  release = true;
  owner.join();
  bus.join();
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, AHandlerMayStopItsOwnListening) {
  RecordingBusiness business(helper);
  business.before = [&] { business.StopListening(); };
  business.StartListening();
  send(progress(1));
  send(progress(2));
  EXPECT_EQ(business.log.size(), 1u);
}

struct MalformedCase {
  const char* name;
  std::string text;
  int code;
};
void PrintTo(const MalformedCase& row, std::ostream* out) {
  *out << row.name;
}

class Malformed : public ServerHelper, public testing::WithParamInterface<MalformedCase> {};

TEST_P(Malformed, IsAnsweredWithAnErrorOnTheRequestChannel) {
  RecordingAgent agent(helper);
  agent.StartListening();
  const Json::Value answer = ask(GetParam().text);
  EXPECT_EQ(answer["jsonrpc"], "2.0");
  EXPECT_EQ(answer["error"]["code"], GetParam().code) << answer.toStyledString();
  EXPECT_TRUE(answer["error"]["message"].isString());
  EXPECT_TRUE(answer.isMember("id"));
  EXPECT_EQ(agent.log.size(), 0u);
}

TEST_P(Malformed, IsDroppedOnTheOneWayChannel) {
  RecordingAgent agent(helper);
  RecordingScan scan(helper);
  agent.StartListening();
  scan.StartListening();
  send(GetParam().text);
  EXPECT_TRUE(endpoint.sent.empty());
  EXPECT_EQ(agent.log.size() + scan.log.size(), 0u);
}

TEST_P(Malformed, IsAnsweredWithAnErrorWithoutAServer) {
  EXPECT_TRUE(ask(GetParam().text)["error"]["code"].isInt());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Malformed,
    testing::Values(
        MalformedCase{"Empty", "", -32700}, MalformedCase{"NoJson", "hello", -32700},
        MalformedCase{"HalfAnObject", R"({"jsonrpc":"2.0",)", -32700},
        MalformedCase{"Binary", std::string("\0\xff\xfe", 3), -32700},
        MalformedCase{"NestedTwoThousandDeep", std::string(2000, '[') + std::string(2000, ']'), -32700},
        MalformedCase{"NestedAMillionDeep", std::string(1000000, '['), -32700},
        MalformedCase{"Number", "5", -32600}, MalformedCase{"Null", "null", -32600},
        MalformedCase{"Text", "\"text\"", -32600}, MalformedCase{"EmptyArray", "[]", -32600},
        MalformedCase{"EmptyObject", "{}", -32600},
        MalformedCase{"MethodThatIsANumber", R"({"jsonrpc":"2.0","id":1,"method":5})", -32600},
        MalformedCase{"NoMethod", R"({"jsonrpc":"2.0","id":1})", -32600},
        MalformedCase{"OldVersion", R"({"jsonrpc":"1.0","id":1,"method":"getBusList"})", -32600},
        MalformedCase{"IdThatIsAnObject", R"({"jsonrpc":"2.0","id":{},"method":"getBusList"})", -32600},
        MalformedCase{"IdThatIsHuge", R"({"jsonrpc":"2.0","id":1e300,"method":"getBusList"})", -32600},
        MalformedCase{"ParamsThatAreANumber", R"({"jsonrpc":"2.0","id":1,"method":"ctlBus","params":5})",
                      -32600},
        MalformedCase{"UnknownMethod", R"({"jsonrpc":"2.0","id":1,"method":"getEverything"})", -32601},
        MalformedCase{"ParamsByPosition", R"({"jsonrpc":"2.0","id":1,"method":"getAVConfig","params":[0,1]})",
                      -32602},
        MalformedCase{"ParamsMissing", R"({"jsonrpc":"2.0","id":1,"method":"getAVConfig"})", -32602}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

TEST_F(ServerHelper, AMessageMayHoldZeroBytes) {
  RecordingAgent agent(helper);
  agent.StartListening();
  agent.text = "ok";
  std::string request = requestText("getAVConfig", jsonOf(R"({"config_type":0,"request_source":1})"), 1);
  EXPECT_EQ(ask(request)["result"], "ok") << "the bytes behind it are no part of it";
  request.insert(request.size() - 2, std::string(1, '\0'));
  EXPECT_EQ(ask(request)["error"]["code"], Errors::ERROR_RPC_JSON_PARSE_ERROR);
}

TEST_F(ServerHelper, AnEmptyMessageWithoutBytesIsAnswered) {
  testsupport::FakeEndpoint::Delivery delivery;
  helper.ReceiveCallback(lunet::kRequestChannel, 1, nullptr, 0, &delivery, &endpoint);
  EXPECT_EQ(jsonOf(delivery.reply)["error"]["code"], Errors::ERROR_RPC_JSON_PARSE_ERROR);
}

TEST_F(ServerHelper, WithoutARegistrationContextNothingIsSentBack) {
  RecordingBusiness business(helper);
  business.StartListening();
  const std::string text = progress(1);
  testsupport::FakeEndpoint::Delivery delivery;
  helper.ReceiveCallback(lunet::kRequestChannel, 1, text.data(), static_cast<std::uint32_t>(text.size()),
                         &delivery, nullptr);
  EXPECT_FALSE(delivery.replied);
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, ANotificationOnTheRequestChannelGetsAnEmptyReply) {
  RecordingBusiness business(helper);
  business.StartListening();
  const auto delivery = endpoint.deliver(lunet::kRequestChannel, progress(1), true);
  EXPECT_TRUE(delivery.replied);
  EXPECT_EQ(delivery.reply, "");
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, AOneWayMessageThatNoServerTakesIsLoggedWithTheReason) {
  const std::string text = notificationText("reportEverything", Json::objectValue);
  send(text);
  ask(text);
  ASSERT_EQ(logged().size(), 1u) << "the sender of a request knows from the answer";
  EXPECT_THAT(logged()[0], HasSubstr("dropped a one-way message"));
  EXPECT_THAT(logged()[0], HasSubstr("METHOD_NOT_FOUND"));
}

TEST_F(ServerHelper, AMessageThatCannotBeHandledIsLoggedAndNotAnswered) {
  helper.acceptOnly([](const jsonrpchelper::Caller&) -> bool { throw std::bad_alloc(); });
  EXPECT_FALSE(endpoint.deliver(lunet::kRequestChannel, "{}", true).replied);
  ASSERT_EQ(logged().size(), 1u);
  EXPECT_THAT(logged()[0], HasSubstr("lost a message of 2 bytes"));
}

TEST_F(ServerHelper, ABatchOfNotificationsGetsAnEmptyReply) {
  RecordingBusiness business(helper);
  business.StartListening();
  const auto delivery =
      endpoint.deliver(lunet::kRequestChannel, "[" + progress(1) + "," + progress(2) + "]", true);
  EXPECT_TRUE(delivery.replied);
  EXPECT_EQ(delivery.reply, "");
  EXPECT_EQ(business.log.size(), 2u);
}

TEST_F(ServerHelper, AResponseWithoutATargetIsNotSent) {
  testsupport::FakeEndpoint::Delivery delivery;
  IJsonRpcServerHelper::ReplyTarget noEndpoint{nullptr, 7, &delivery};
  IJsonRpcServerHelper::ReplyTarget noContext{&endpoint, 7, nullptr};
  EXPECT_FALSE(helper.SendResponse("x", nullptr));
  EXPECT_FALSE(helper.SendResponse("x", &noEndpoint));
  EXPECT_FALSE(helper.SendResponse("x", &noContext));
  EXPECT_FALSE(delivery.replied);
}

TEST_F(ServerHelper, AServerLeavesTheLibrarysPlaceForOneServerUnused) {
  RecordingBusiness business(helper);
  EXPECT_EQ(helper.GetHandler(), nullptr);
}

TEST_F(ServerHelper, TheConnectorsOwnListeningChangesNothing) {
  const auto registrations = endpoint.registrations;
  EXPECT_TRUE(helper.StartListening());
  EXPECT_TRUE(helper.StopListening());
  EXPECT_EQ(endpoint.registrations, registrations);
}

TEST_F(ServerHelper, ARequestOnTheOneWayChannelIsHandledWithoutAReply) {
  RecordingAgent agent(helper);
  agent.StartListening();
  send(requestText("getBusList", Json::Value(), 1));
  EXPECT_EQ(agent.log.size(), 1u);
}

TEST_F(ServerHelper, ARequestOfABatchGoesToItsOwnServer) {
  RecordingScan scan(helper);
  RecordingBusiness business(helper);
  RecordingAgent agent(helper);
  scan.StartListening();
  business.StartListening();
  agent.StartListening();
  const Json::Value answer =
      ask("[" + progress(1) + "," + requestText("getBusList", Json::Value(), "a") + "," + stage("datail") +
          ",5," + requestText("nobody", Json::Value(), "b") + "]");
  ASSERT_EQ(answer.size(), 3u);
  EXPECT_EQ(answer[0]["id"], "a");
  EXPECT_EQ(answer[0]["result"], Json::Value(Json::arrayValue));
  EXPECT_EQ(answer[1]["error"]["code"], Errors::ERROR_RPC_INVALID_REQUEST);
  EXPECT_EQ(answer[2]["error"]["code"], Errors::ERROR_RPC_METHOD_NOT_FOUND);
  EXPECT_EQ(scan.log.size(), 1u);
  EXPECT_EQ(business.log.size(), 1u);
}

TEST_F(ServerHelper, AReceiverThatThrowsIsLoggedAsAnError) {
  RecordingBusiness business(helper);
  business.before = [] { throw std::runtime_error("the report is full"); };
  business.StartListening();
  send(progress(1));
  ASSERT_FALSE(logged().empty());
  EXPECT_EQ(logged()[0], "3ReceiveCallback: Caught exception:\n the report is full");
}

/// A handler that runs `act`.
struct RawHandler : jsonrpc::IClientConnectionHandler {
  std::function<void(std::string&)> act;
  void HandleRequest(const std::string&, std::string& response) override { act(response); }
};

class RawHandlerOnTheHelper : public ServerHelper {
 protected:
  RawHandlerOnTheHelper() { helper.handlers()->add(handler, {"any"}); }
  RawHandler handler;
};

TEST_F(RawHandlerOnTheHelper, ARpcExceptionIsAnsweredWithItsMessageAndLoggedWithItsDescription) {
  handler.act = [](std::string&) { throw jsonrpc::JsonRpcException(-5, "not today"); };
  const auto delivery = endpoint.deliver(lunet::kRequestChannel, "{}", true);
  EXPECT_EQ(delivery.reply, "not today");
  ASSERT_EQ(logged().size(), 1u);
  EXPECT_EQ(logged()[0], std::string("3ReceiveCallback: Caught exception:\n ") +
                             jsonrpc::JsonRpcException(-5, "not today").what());
}

TEST_F(RawHandlerOnTheHelper, ARpcExceptionOfAOneWayMessageIsLoggedAndNotAnswered) {
  handler.act = [](std::string&) { throw jsonrpc::JsonRpcException(-5, "not today"); };
  EXPECT_FALSE(endpoint.deliver(lunet::kOnewayChannel, "{}", false).replied);
  ASSERT_FALSE(logged().empty());
  EXPECT_THAT(logged()[0], HasSubstr("not today"));
}

TEST_F(RawHandlerOnTheHelper, AnyOtherExceptionIsAnsweredWithAnInternalError) {
  handler.act = [](std::string&) { throw std::runtime_error("broken"); };
  EXPECT_EQ(ask("{}")["error"]["code"], Errors::ERROR_RPC_INTERNAL_ERROR);
  EXPECT_THAT(logged().at(0), HasSubstr("Caught exception:\n broken"));
}

TEST_F(RawHandlerOnTheHelper, AThrownNumberDoesNotLeaveTheCallback) {
  handler.act = [](std::string&) { throw 5; };
  EXPECT_EQ(ask("{}")["error"]["code"], Errors::ERROR_RPC_INTERNAL_ERROR);
  send("{}");
}

TEST_F(RawHandlerOnTheHelper, AReplyThatCannotBeSentIsIgnored) {
  handler.act = [](std::string& response) { response = "x"; };
  endpoint.failReplies = true;
  EXPECT_FALSE(endpoint.deliver(lunet::kRequestChannel, "{}", true).replied);
}

TEST_F(ServerHelper, AHandlerCanGetTheCaller) {
  RecordingAgent agent(helper);
  agent.StartListening();
  endpoint.peer = lunet::parseGuid(lunet::kConsoleGuid);
  endpoint.peerProcess = {123, 1000, 1000, 99};
  jsonrpchelper::Caller seen;
  agent.before = [&] { seen = jsonrpchelper::currentCaller(); };
  ask(requestText("getBusList", Json::Value(), 1));
  EXPECT_EQ(seen.guid, endpoint.peer);
  EXPECT_EQ(seen.process, endpoint.peerProcess);
  EXPECT_EQ(jsonrpchelper::currentCaller().process.pid, 0) << "outside of a handler there is nobody";
  EXPECT_EQ(jsonrpchelper::currentCaller().guid, lunet::Guid{});
}

TEST_F(ServerHelper, ANestedMessageHasItsOwnCaller) {
  RecordingAgent agent(helper);
  agent.StartListening();
  std::vector<pid_t> seen;
  endpoint.peerProcess.pid = 1;
  agent.before = [&] {
    if (seen.empty()) {
      seen.push_back(jsonrpchelper::currentCaller().process.pid);
      endpoint.peerProcess.pid = 2;
      ask(requestText("getBusList", Json::Value(), 2));
    }
    seen.push_back(jsonrpchelper::currentCaller().process.pid);
  };
  ask(requestText("getBusList", Json::Value(), 1));
  EXPECT_EQ(seen, (std::vector<pid_t>{1, 2, 1}));
}

TEST_F(ServerHelper, ARegistrationThatFailsGivesTheBussError) {
  testsupport::FakeEndpoint refusing;
  refusing.registerResult = lunet::kErrNotOpen;
  EXPECT_EQ(helper.registerOn(refusing), lunet::kErrNotOpen);
}

}  // namespace
}  // namespace rpctest
