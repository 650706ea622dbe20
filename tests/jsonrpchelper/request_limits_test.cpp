// A server with limits of its own: what it refuses, with which error.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Recorders.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "support/FakeEndpoint.h"

namespace rpctest {
namespace {

using jsonrpc::Errors;
using testing::HasSubstr;

class ServerLimits : public testing::Test {
 protected:
  ServerLimits() {
    helper.limitTo([this](const jsonrpchelper::Caller& caller) -> const jsonrpchelper::RequestLimits& {
      return caller.process.trusted ? wide : narrow;
    });
    helper.registerOn(endpoint);
    agent.StartListening();
    agent.text = "ok";
  }
  ~ServerLimits() override { helper.unregisterFrom(endpoint); }

  Json::Value ask(const std::string& text) {
    const auto delivery = endpoint.deliver(lunet::kRequestChannel, text, true);
    EXPECT_TRUE(delivery.replied);
    return jsonOf(delivery.reply);
  }
  void expectError(const std::string& text, int code, const std::string& why) {
    const std::size_t before = agent.log.size();
    const Json::Value answer = ask(text);
    EXPECT_EQ(answer["error"]["code"].asInt(), code) << text.substr(0, 200);
    EXPECT_THAT(answer["error"]["message"].asString(), HasSubstr(why)) << text.substr(0, 200);
    EXPECT_EQ(agent.log.size(), before);
  }
  /// A request with a further parameter, which the method does not read.
  static std::string request(const std::string& method, const Json::Value& more = {}) {
    Json::Value parameters = jsonOf(R"({"config_type":0,"request_source":1})");
    parameters["more"] = more;
    return requestText(method, parameters, 7);
  }
  static Json::Value list(std::size_t values) {
    Json::Value numbers(Json::arrayValue);
    while (numbers.size() < values) {
      numbers.append(0);
    }
    return numbers;
  }

  const jsonrpchelper::RequestLimits narrow{
      .methods = {{.method = "getBusList", .bytes = 2000, .depth = 10, .values = 100},
                  {.method = "", .bytes = 1000, .depth = 5, .values = 20}},
      .parameters = {{.name = "more", .bytes = 200}},
      .batch = 0};
  const jsonrpchelper::RequestLimits wide{
      .methods = {{.method = "", .bytes = 4000}}, .parameters = {}, .batch = 2};
  testsupport::FakeEndpoint endpoint;
  IJsonRpcServerHelper helper;
  RecordingAgent agent{helper};
};

TEST_F(ServerLimits, LetARequestBelowThemThrough) {
  EXPECT_EQ(ask(request("getAVConfig", list(5)))["result"], "ok");
}

TEST_F(ServerLimits, RefuseABatchOfAnySize) {
  const std::string one = request("getAVConfig");
  expectError("[" + one + "]", Errors::ERROR_RPC_INVALID_REQUEST, "batches are not served");
  expectError("[" + one + "," + one + "]", Errors::ERROR_RPC_INVALID_REQUEST, "batches are not served");
  expectError("[[0,0]]", Errors::ERROR_RPC_INVALID_REQUEST, "batches are not served");
}

TEST_F(ServerLimits, RefuseAMessageByItsBytesItsDepthAndItsValues) {
  expectError(request("getAVConfig", std::string(1000, 'x')), Errors::ERROR_RPC_INVALID_REQUEST,
              "is over the limit of 1000");
  expectError(request("getAVConfig", jsonOf("[[[[0]]]]")), Errors::ERROR_RPC_JSON_PARSE_ERROR,
              "deeper than the limit of 5");
  expectError(request("getAVConfig", list(20)), Errors::ERROR_RPC_INVALID_REQUEST,
              "more values than the limit of 20");
}

TEST_F(ServerLimits, RefuseALongParameterWithTheIdOfTheRequest) {
  const std::string text = request("getAVConfig", std::string(200, 'x'));
  expectError(text, Errors::ERROR_RPC_INVALID_PARAMS,
              "the parameter more in bytes of 202 is over the limit of 200");
  EXPECT_EQ(ask(text)["id"], 7);
}

TEST_F(ServerLimits, OfOneMethodAreForNoOther) {
  EXPECT_TRUE(ask(request("getBusList", list(80)))["result"].isArray());
  const std::string wanted = R"("method":"getAVConfig")";
  std::string text = request("getAVConfig", list(80));
  text.replace(text.find(wanted), wanted.size(), R"("method":"getBusList","\u006dethod":"getAVConfig")");
  expectError(text, Errors::ERROR_RPC_INVALID_REQUEST, "more values than the limit of 20");
}

TEST_F(ServerLimits, CannotBeHiddenByAComment) {
  std::string text = request("getAVConfig", list(80));
  text = "/*\"*/" + text + "/*\"*/";
  expectError(text, Errors::ERROR_RPC_JSON_PARSE_ERROR, "a slash outside of texts");
}

TEST_F(ServerLimits, AreThoseOfTheSender) {
  endpoint.peerProcess.trusted = true;
  EXPECT_EQ(ask(request("getAVConfig", list(200)))["result"], "ok");
  const std::string one = request("getAVConfig");
  EXPECT_EQ(ask("[" + one + "," + one + "]").size(), 2u);
}

TEST_F(ServerLimits, ABatchInABatchIsOneInvalidRequest) {
  endpoint.peerProcess.trusted = true;
  const Json::Value answer = ask("[[0,0,0,0],[]]");
  ASSERT_EQ(answer.size(), 2u);
  EXPECT_EQ(answer[0]["error"]["code"].asInt(), Errors::ERROR_RPC_INVALID_REQUEST);
  EXPECT_EQ(answer[1]["error"]["code"].asInt(), Errors::ERROR_RPC_INVALID_REQUEST);
}

}  // namespace
}  // namespace rpctest
