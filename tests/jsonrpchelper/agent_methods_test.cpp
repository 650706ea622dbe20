// The table of methods, row by row, and the stubs made of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <utility>

#include "ByName.h"
#include "Recorders.h"
#include "json/Values.h"
#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/BusServer.h"
#include "jsonrpchelper/Holders.h"
#include "support/FakeEndpoint.h"
#include "support/TempDir.h"

namespace rpctest {
namespace {

using enum JsonKind;

/// A row as tests/data shows it: "name(key: kind, …) -> kind, who may call it".
std::string textOf(const MethodRow& row) {
  const std::map<JsonKind, std::string> kinds = {
      {kNone, "no answer"},  {kAny, "any"},       {kString, "string"}, {kInteger, "integer"},
      {kBoolean, "boolean"}, {kObject, "object"}, {kArray, "array"}};
  std::string text = rowName(row) + "(";
  for (const ParameterRow& parameter : row.parameters) {
    text += (text.back() == '(' ? "" : ", ") + std::string(parameter.name) + ": " + kinds.at(parameter.kind);
  }
  text += ") -> " + kinds.at(row.result);
  if (row.access) {
    const std::map<Access, std::string> callers = {{Access::kEverybody, ", everybody"},
                                                   {Access::kMembers, ", members"},
                                                   {Access::kAdministrators, ", administrators"}};
    text += callers.at(*row.access);
  }
  return text + "\n";
}

std::string tableText(const std::vector<MethodRow>& rows) {
  std::string text;
  for (const MethodRow& row : rows) {
    text += textOf(row);
  }
  return text;
}

// The agreed rows.
const std::string kAgreedMethods = testsupport::readFile(TAV_SOURCE_DIR "/tests/data/agent_methods.txt");
const std::string kAgreedNotifications =
    testsupport::readFile(TAV_SOURCE_DIR "/tests/data/console_notifications.txt");

std::string caseName(const testing::TestParamInfo<MethodRow>& testCase) {
  return rowName(testCase.param);
}

class MethodTable : public testing::TestWithParam<MethodRow> {};
TEST_P(MethodTable, RowIsAsAgreed) {
  EXPECT_THAT("\n" + kAgreedMethods, testing::HasSubstr("\n" + textOf(GetParam())));
}
INSTANTIATE_TEST_SUITE_P(AgentMethods, MethodTable, testing::ValuesIn(agentMethods()), caseName);

TEST_P(MethodTable, RowIsDescribedToTheLibrary) {
  const MethodRow& row = GetParam();
  const jsonrpc::Procedure procedure = procedureOf(row);
  const std::map<JsonKind, jsonrpc::jsontype_t> kinds = {{kString, jsonrpc::JSON_STRING},
                                                         {kInteger, jsonrpc::JSON_INTEGER},
                                                         {kBoolean, jsonrpc::JSON_BOOLEAN},
                                                         {kObject, jsonrpc::JSON_OBJECT},
                                                         {kArray, jsonrpc::JSON_ARRAY}};
  jsonrpc::parameterNameList_t parameters;
  for (const ParameterRow& parameter : row.parameters) {
    if (parameter.kind != kAny) {  // the library has no such kind
      parameters[std::string(parameter.name)] = kinds.at(parameter.kind);
    }
  }
  EXPECT_EQ(procedure.GetParameters(), parameters);
  EXPECT_EQ(procedure.GetParameterDeclarationType(), jsonrpc::PARAMS_BY_NAME);
  if (row.result != kNone) {
    EXPECT_EQ(procedure.GetReturnType(), kinds.at(row.result));
  }
}

class NotificationTable : public testing::TestWithParam<MethodRow> {};
TEST_P(NotificationTable, RowIsAsAgreed) {
  EXPECT_THAT("\n" + kAgreedNotifications, testing::HasSubstr("\n" + textOf(GetParam())));
}
INSTANTIATE_TEST_SUITE_P(ConsoleNotifications, NotificationTable, testing::ValuesIn(consoleNotifications()),
                         caseName);

TEST(MethodTables, HoldTheAgreedRowsAndNoOthers) {
  EXPECT_EQ(tableText(agentMethods()), kAgreedMethods);
  EXPECT_EQ(tableText(consoleNotifications()), kAgreedNotifications);
}

TEST(MethodTables, AMemberIsSentUnderItsOwnName) {
  const std::pair<Json::Value, const char*> rows[] = {
      {parametersOf(StartScanTask{
           .ctx = "ctx", .desc = "desc", .params = "params", .source = 1, .token_id = "token_id"}),
       R"({"ctx":"ctx","desc":"desc","params":"params","source":1,"token_id":"token_id"})"},
      {parametersOf(CtlBus{.action = 1,
                           .detail = "detail",
                           .mark = 2,
                           .payload = "payload",
                           .source = 3,
                           .token_id = "token_id"}),
       R"({"action":1,"detail":"detail","mark":2,"payload":"payload","source":3,"token_id":"token_id"})"},
      {parametersOf(GetBusList{}), "null"},
      {parametersOf(GetAVConfig{.config_type = 1, .request_source = 2}),
       R"({"config_type":1,"request_source":2})"},
      {parametersOf(SetAVConfig{.config_str = "config_str", .config_type = 1, .request_source = 2}),
       R"({"config_str":"config_str","config_type":1,"request_source":2})"},
      {parametersOf(StartDeIsolate{
           .ctx = "ctx", .desc = "desc", .params = "params", .source = 1, .token_id = "token_id"}),
       R"({"ctx":"ctx","desc":"desc","params":"params","source":1,"token_id":"token_id"})"},
      {parametersOf(GetIsolationInfo{}), "null"},
      {parametersOf(CtlRegion{.desc = "desc", .items = "items", .region_type = 1, .source = 2}),
       R"({"desc":"desc","items":"items","region_type":1,"source":2})"},
      {parametersOf(GetRegionInfo{.domain = 1, .item_type = 2, .region_type = 3}),
       R"({"domain":1,"item_type":2,"region_type":3})"},
      {parametersOf(CleanScanCache{}), "null"},
      {parametersOf(GetScanCacheDetail{}), "null"},
      {parametersOf(ReportRiskInfo{.business_type = 1,
                                   .fix_method = 2,
                                   .risk_info = jsonOf(R"({"a":1})"),
                                   .risk_info_type = 3,
                                   .token_id = "token_id"}),
       R"({"business_type":1,"fix_method":2,"risk_info":{"a":1},"risk_info_type":3,"token_id":"token_id"})"},
      {parametersOf(ReportRiskFixInfo{.business_type = 1,
                                      .fix_method = 2,
                                      .risk_info = jsonOf(R"({"a":1})"),
                                      .risk_info_type = 3,
                                      .risk_repair_result = jsonOf(R"({"b":1})"),
                                      .token_id = "token_id"}),
       R"({"business_type":1,"fix_method":2,"risk_info":{"a":1},"risk_info_type":3,
           "risk_repair_result":{"b":1},"token_id":"token_id"})"},
      {parametersOf(ReportScanBusOverView{.overview = jsonOf(R"({"a":1})"), .token_id = "token_id"}),
       R"({"overview":{"a":1},"token_id":"token_id"})"},
      {parametersOf(ReportScanBusStage{.datail = "datail", .stage = 1, .token_id = "token_id"}),
       R"({"datail":"datail","stage":1,"token_id":"token_id"})"},
      {parametersOf(
           ReportScanAttributeInfo{.payload = jsonOf(R"({"a":1})"), .source = 1, .token_id = "token_id"}),
       R"({"payload":{"a":1},"source":1,"token_id":"token_id"})"},
      {parametersOf(ReportBusStatus{.ctx = jsonOf(R"({"a":1})"),
                                    .detail = "detail",
                                    .params = jsonOf(R"({"b":1})"),
                                    .source = 1,
                                    .state = 2,
                                    .token_id = "token_id",
                                    .type = 3}),
       R"({"ctx":{"a":1},"detail":"detail","params":{"b":1},"source":1,"state":2,"token_id":"token_id",
           "type":3})"},
      {parametersOf(ReportBusProgress{.progress = 1, .token_id = "token_id"}),
       R"({"progress":1,"token_id":"token_id"})"},
  };
  EXPECT_EQ(std::size(rows), agentMethods().size() + consoleNotifications().size());
  for (const auto& [parameters, text] : rows) {
    EXPECT_EQ(parameters, jsonOf(text));
  }
}

/// A stub over a fake endpoint whose other end answers with `result`.
class Stub : public testing::TestWithParam<MethodRow> {
 protected:
  Stub()
      : client(&endpoint, lunet::kAgentGuid, lunet::kRequestChannel, lunet::kOnewayChannel,
               jsonrpchelper::kSyncTimeoutMs),
        stub(client) {
    endpoint.answer = [this](const std::string& request) {
      Json::Value answer;
      answer["jsonrpc"] = "2.0";
      answer["id"] = jsonOf(request)["id"];
      answer["result"] = result;
      return jsonText(answer);
    };
  }
  bool isNotification() const { return GetParam().result == kNone; }

  testsupport::FakeEndpoint endpoint;
  jsonrpchelper::IJsonRpcClientHelper client;
  AgentStub stub;
  Json::Value result;
};

TEST_P(Stub, SendsItsParametersByNameAndGivesTheResult) {
  result = sampleOf(GetParam().result, 3);
  const Json::Value parameters = sampleParameters(GetParam());
  EXPECT_EQ(callStub(stub, rowName(GetParam()), parameters), result);

  ASSERT_EQ(endpoint.sent.size(), 1u);
  EXPECT_EQ(endpoint.last().target, lunet::parseGuid(lunet::kAgentGuid));
  const Json::Value request = jsonOf(endpoint.last().text);
  EXPECT_EQ(request["jsonrpc"], "2.0");
  EXPECT_EQ(request["method"], rowName(GetParam()));
  EXPECT_EQ(request["params"], parameters);
  EXPECT_EQ(request.isMember("id"), !isNotification());
}

TEST_P(Stub, GoesByTheChannelOfItsKind) {
  result = sampleOf(GetParam().result, 3);
  callStub(stub, rowName(GetParam()), sampleParameters(GetParam()));
  EXPECT_EQ(endpoint.last().operation, isNotification() ? "OnewaySend" : "SyncSend");
  EXPECT_EQ(endpoint.last().channel, isNotification() ? 20991u : 10990u);
  EXPECT_EQ(endpoint.last().timeoutMs, isNotification() ? 0u : 30000u);
}

TEST_P(Stub, RefusesAResultOfAnotherKindWithItsStyledText) {
  if (isNotification()) {
    return;
  }
  for (const Json::Value& wrong : valuesOfOtherKinds(GetParam().result)) {
    result = wrong;
    try {
      callStub(stub, rowName(GetParam()), sampleParameters(GetParam()));
      FAIL() << wrong.toStyledString();
    } catch (const jsonrpchelper::ResultOfAnotherKind& e) {
      EXPECT_EQ(e.GetCode(), jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE);
      EXPECT_NE(e.GetMessage().find(wrong.toStyledString()), std::string::npos) << e.GetMessage();
    }
  }
  EXPECT_EQ(endpoint.buffersOut, 0);
}

TEST_P(Stub, PassesTheAgentsErrorOn) {
  endpoint.answer = [](const std::string&) {
    return R"({"jsonrpc":"2.0","id":1,"error":{"code":-7,"message":"no"}})";
  };
  if (isNotification()) {
    return;
  }
  try {
    callStub(stub, rowName(GetParam()), sampleParameters(GetParam()));
    FAIL();
  } catch (const jsonrpc::JsonRpcException& e) {
    EXPECT_EQ(e.GetCode(), -7);
    EXPECT_EQ(e.GetMessage(), "no");
  }
}

INSTANTIATE_TEST_SUITE_P(AgentMethods, Stub, testing::ValuesIn(agentMethods()), caseName);

/// The stub against the agent's own server, without a bus between.
class AgentServer : public testing::TestWithParam<MethodRow> {
 protected:
  AgentServer()
      : client(&endpoint, lunet::kAgentGuid, lunet::kRequestChannel, lunet::kOnewayChannel,
               jsonrpchelper::kSyncTimeoutMs),
        stub(client),
        agent(helper) {
    helper.registerOn(endpoint);
    agent.StartListening();
    endpoint.answer = [this](const std::string& request) {
      return endpoint.deliver(lunet::kRequestChannel, request, true).reply;
    };
  }
  ~AgentServer() override { helper.unregisterFrom(endpoint); }

  /// The agent's answer to a request with these parameters.
  Json::Value ask(const Json::Value& parameters) {
    return jsonOf(
        endpoint.deliver(lunet::kRequestChannel, requestText(rowName(GetParam()), parameters, 5), true)
            .reply);
  }

  testsupport::FakeEndpoint endpoint;
  jsonrpchelper::IJsonRpcServerHelper helper;
  jsonrpchelper::IJsonRpcClientHelper client;
  AgentStub stub;
  RecordingAgent agent;
};

TEST_P(AgentServer, GetsTheArgumentsInTheTablesOrderAndItsResultComesBack) {
  agent.object = sampleOf(kObject, 1);
  agent.array = sampleOf(kArray, 2);
  agent.text = sampleOf(kString, 3).asString();
  agent.number = 2147483647;
  const std::map<JsonKind, Json::Value> results = {{kObject, agent.object},  {kArray, agent.array},
                                                   {kString, agent.text},    {kBoolean, agent.flag},
                                                   {kInteger, agent.number}, {kNone, Json::Value()}};
  const Json::Value parameters = sampleParameters(GetParam());
  EXPECT_EQ(callStub(stub, rowName(GetParam()), parameters), results.at(GetParam().result));
  if (GetParam().result == kNone) {
    EXPECT_FALSE(endpoint.deliver(lunet::kOnewayChannel, endpoint.last().text, false).replied);
  }
  ASSERT_EQ(agent.log.size(), 1u);
  EXPECT_EQ(agent.log.calls()[0], recordedCall(GetParam(), parameters));
}

TEST_P(AgentServer, RefusesAParameterThatIsMissingOrOfAnotherKind) {
  for (const auto& parameter : GetParam().parameters) {
    Json::Value parameters = sampleParameters(GetParam());
    parameters.removeMember(std::string(parameter.name));
    EXPECT_EQ(ask(parameters)["error"]["code"], jsonrpc::Errors::ERROR_RPC_INVALID_PARAMS) << parameter.name;
    if (parameter.kind == kAny) {
      continue;
    }
    for (const Json::Value& wrong : valuesOfOtherKinds(parameter.kind)) {
      parameters[std::string(parameter.name)] = wrong;
      EXPECT_EQ(ask(parameters)["error"]["code"], jsonrpc::Errors::ERROR_RPC_INVALID_PARAMS)
          << parameter.name << " " << wrong.toStyledString();
    }
  }
  EXPECT_EQ(agent.log.size(), 0u);
}

TEST_P(AgentServer, AcceptsNullForAParameterOfAnyKind) {
  Json::Value parameters = sampleParameters(GetParam());
  bool some = false;
  for (const auto& parameter : GetParam().parameters) {
    if (parameter.kind == kAny) {
      parameters[std::string(parameter.name)] = Json::Value();
      some = true;
    }
  }
  if (some) {
    EXPECT_TRUE(ask(parameters).isMember("result"));
    EXPECT_EQ(agent.log.calls().at(0), recordedCall(GetParam(), parameters));
  }
}

TEST_P(AgentServer, AsksForARefusalBeforeARestrictedMethod) {
  const bool forEverybody = GetParam().access == Access::kEverybody;
  const Json::Value parameters = sampleParameters(GetParam());
  const auto arrive = [&] {
    if (GetParam().result == kNone) {
      endpoint.deliver(lunet::kOnewayChannel, notificationText(rowName(GetParam()), parameters), false);
      return Json::Value();
    }
    return ask(parameters)["result"];
  };
  arrive();
  ASSERT_EQ(agent.log.size(), 1u);
  agent.refused = "not you";
  const Json::Value result = arrive();
  EXPECT_EQ(agent.log.size(), forEverybody ? 2u : 1u);
  if (!forEverybody && GetParam().result != kNone) {
    EXPECT_EQ(result, "not you");
  }
}

TEST_P(AgentServer, AnswersAnExceptionWithAnError) {
  if (GetParam().result == kNone) {
    return;
  }
  agent.before = [] { throw std::runtime_error("the disk is full"); };
  Json::Value answer = ask(sampleParameters(GetParam()));
  EXPECT_EQ(answer["id"], 5);
  EXPECT_EQ(answer["error"]["code"], jsonrpc::Errors::ERROR_RPC_INTERNAL_ERROR);
  EXPECT_NE(answer["error"]["message"].asString().find("the disk is full"), std::string::npos);

  agent.before = [] { throw jsonrpc::JsonRpcException(-12, "denied"); };
  answer = ask(sampleParameters(GetParam()));
  EXPECT_EQ(answer["error"]["code"], -12);
  EXPECT_EQ(answer["error"]["message"], "denied");
}

INSTANTIATE_TEST_SUITE_P(AgentMethods, AgentServer, testing::ValuesIn(agentMethods()), caseName);

TEST(Stubs, AnErrorOfTheAgentIsNeverAResultOfAnotherKind) {
  testsupport::FakeEndpoint endpoint;
  jsonrpchelper::IJsonRpcClientHelper client(&endpoint, lunet::kAgentGuid, 10990, 20991, 30000);
  for (const std::string& answer :
       {R"({"jsonrpc":"2.0","id":1,"error":{"code":)" +
            std::to_string(jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE) + R"(,"message":"no"}})",
        std::string("garbled")}) {
    endpoint.answer = [&](const std::string&) { return answer; };
    try {
      AgentStub(client).call(GetBusList{});
      FAIL() << answer;
    } catch (const jsonrpchelper::ResultOfAnotherKind&) {
      FAIL() << answer;
    } catch (const jsonrpc::JsonRpcException& e) {
      EXPECT_EQ(e.GetCode(), jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE) << answer;
    }
  }
}

TEST(Kinds, AreDistinguished) {
  const std::vector<std::pair<jsonrpchelper::JsonKind, Json::Value>> samples = {
      {kNone, Json::Value()},
      {kString, "5"},
      {kInteger, 5},
      {kBoolean, true},
      {kObject, Json::objectValue},
      {kArray, Json::arrayValue},
  };
  for (const auto& [kind, own] : samples) {
    EXPECT_TRUE(jsonrpchelper::isOfKind(own, kAny));
    for (const auto& [other, sample] : samples) {
      EXPECT_EQ(jsonrpchelper::isOfKind(sample, kind), kind == other)
          << static_cast<int>(kind) << " " << sample;
    }
  }
  EXPECT_FALSE(jsonrpchelper::isOfKind(Json::Value(Json::Int64{1} << 40), kInteger));
}

TEST(Stubs, ACtlBusReplyOfOneInsteadOfTrueIsAnInvalidResponse) {
  testsupport::FakeEndpoint endpoint;
  endpoint.answer = [](const std::string&) { return R"({"jsonrpc":"2.0","id":1,"result":1})"; };
  jsonrpchelper::IJsonRpcClientHelper client(&endpoint, lunet::kAgentGuid, 10990, 20991, 30000);
  try {
    AgentStub(client).call(CtlBus{.action = json::toNumber(json::ControlAction::kStop),
                                  .detail = "",
                                  .mark = 8,
                                  .payload = {},
                                  .source = json::toNumber(json::RequestSource::kConsole),
                                  .token_id = "token"});
    FAIL();
  } catch (const jsonrpc::JsonRpcException& e) {
    EXPECT_EQ(e.GetCode(), jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE);
  }
}

}  // namespace
}  // namespace rpctest
