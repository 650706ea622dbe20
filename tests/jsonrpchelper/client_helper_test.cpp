#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Recorders.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "support/FakeEndpoint.h"

namespace rpctest {
namespace {

using jsonrpc::Errors;
using jsonrpc::JsonRpcException;
using testing::HasSubstr;

class ClientHelper : public testing::Test {
 protected:
  testsupport::FakeEndpoint endpoint;
  IJsonRpcClientHelper client{&endpoint, lunet::kAgentGuid, 10990, 20991, 30000};
  const std::string request = requestText("getBusList", Json::Value(), 1);

  template <class Step>
  static JsonRpcException thrownBy(Step step) {
    try {
      step();
    } catch (const JsonRpcException& e) {
      return e;
    }
    ADD_FAILURE() << "nothing was thrown";
    return JsonRpcException(0);
  }
};

TEST_F(ClientHelper, SendsRequestsToItsTargetOnTheRequestChannelWithItsTimeOut) {
  endpoint.answer = [](const std::string&) { return R"({"jsonrpc":"2.0","id":1,"result":[]})"; };
  std::string result;
  client.SendRPCMessage(request, result);
  EXPECT_EQ(endpoint.last().operation, "SyncSend");
  EXPECT_EQ(endpoint.last().target, lunet::parseGuid("FBE54D8E-D8E6-41F8-BE05-A94CE5469587"));
  EXPECT_EQ(endpoint.last().channel, 10990u);
  EXPECT_EQ(endpoint.last().timeoutMs, 30000u);
  EXPECT_EQ(endpoint.last().text, request);
  EXPECT_EQ(result, R"({"jsonrpc":"2.0","id":1,"result":[]})");
  EXPECT_EQ(endpoint.buffersOut, 0);
}

TEST_F(ClientHelper, ASynchronousSendThatFailsWithNumberFiveThrowsThatNumber) {
  endpoint.syncResult = 5;
  endpoint.syncError = 5;
  std::string result;
  const JsonRpcException e = thrownBy([&] { client.SendRPCMessage(request, result); });
  EXPECT_EQ(e.GetCode(), Errors::ERROR_CLIENT_CONNECTOR);
  EXPECT_THAT(e.GetMessage(), HasSubstr("lunet SyncSend error ret[5]"));
  EXPECT_EQ(result, "");
}

TEST_F(ClientHelper, TheBusErrorOfTheLastSendIsAvailable) {
  endpoint.syncResult = 1;
  endpoint.syncError = lunet::kErrNoTarget;
  std::string result;
  thrownBy([&] { client.SendRPCMessage(request, result); });
  EXPECT_EQ(client.lastBusError(), lunet::kErrNoTarget);
  endpoint.syncResult = lunet::kOk;
  endpoint.syncError = 0;
  endpoint.answer = [](const std::string&) { return R"({"jsonrpc":"2.0","id":1,"result":[]})"; };
  client.SendRPCMessage(request, result);
  EXPECT_EQ(client.lastBusError(), static_cast<std::uint32_t>(lunet::kOk));
}

TEST_F(ClientHelper, AFailedSendThrowsTheErrorNumber) {
  endpoint.syncResult = 1;
  endpoint.syncError = 77;
  std::string result;
  EXPECT_THAT(thrownBy([&] { client.SendRPCMessage(request, result); }).GetMessage(),
              HasSubstr("lunet SyncSend error ret[77]"));
}

TEST_F(ClientHelper, AFailedSendGivesItsReplyBufferBack) {
  endpoint.syncResult = endpoint.syncError = lunet::kErrPeerLost;
  endpoint.bufferOnFailure = true;
  std::string result;
  thrownBy([&] { client.SendRPCMessage(request, result); });
  EXPECT_EQ(endpoint.buffersOut, 0);
}

TEST_F(ClientHelper, WithoutAReplyBufferTheResultIsUnchanged) {
  std::string result = "before";
  client.SendRPCMessage(request, result);
  EXPECT_EQ(result, "before");
}

TEST_F(ClientHelper, WithoutAnEndpointTheResultIsEmpty) {
  IJsonRpcClientHelper nowhere(nullptr, lunet::kAgentGuid, 10990, 20991, 30000);
  std::string result = "before";
  nowhere.SendRPCMessage(request, result);
  EXPECT_EQ(result, "");
}

TEST_F(ClientHelper, WithoutAnEndpointACallThrows) {
  IJsonRpcClientHelper nowhere(nullptr, lunet::kAgentGuid, 10990, 20991, 30000);
  EXPECT_THROW(nowhere.CallMethod("getBusList", Json::Value()), JsonRpcException);
}

TEST_F(ClientHelper, WithoutAnEndpointAOneWaySendThrows) {
  IJsonRpcClientHelper nowhere(nullptr, lunet::kAgentGuid, 10990, 20991, 30000);
  const JsonRpcException e = thrownBy([&] { nowhere.SendRPCMessage("{}"); });
  EXPECT_EQ(e.GetCode(), Errors::ERROR_CLIENT_CONNECTOR);
  EXPECT_THAT(e.GetMessage(), HasSubstr("lunet OnewaySend error LunetEndPoint invaild"));
}

TEST_F(ClientHelper, WithoutAnEndpointANotificationThrows) {
  IJsonRpcClientHelper nowhere(nullptr, lunet::kAgentGuid, 10990, 20991, 30000);
  const JsonRpcException e = thrownBy([&] { nowhere.CallNotification("cleanScanCache", Json::Value()); });
  EXPECT_EQ(e.GetCode(), Errors::ERROR_CLIENT_CONNECTOR);
  EXPECT_THAT(e.GetMessage(), HasSubstr("lunet OnewaySend error LunetEndPoint invaild"));
}

TEST_F(ClientHelper, SendsOneWayMessagesOnTheOneWayChannel) {
  client.SendRPCMessage("{\"any\":1}");
  EXPECT_EQ(endpoint.last().operation, "OnewaySend");
  EXPECT_EQ(endpoint.last().channel, 20991u);
  EXPECT_EQ(endpoint.last().text, "{\"any\":1}");
}

TEST_F(ClientHelper, AOneWaySendThatFailsThrowsItsNumber) {
  endpoint.onewayResult = 9;
  const JsonRpcException e = thrownBy([&] { client.SendRPCMessage("{}"); });
  EXPECT_EQ(e.GetCode(), Errors::ERROR_CLIENT_CONNECTOR);
  EXPECT_THAT(e.GetMessage(), HasSubstr("lunet OnewaySend error ret[9]"));
}

TEST_F(ClientHelper, ANotificationNeverWaitsForAnAnswer) {
  client.CallNotification("cleanScanCache", Json::Value());
  ASSERT_EQ(endpoint.sent.size(), 1u);
  EXPECT_EQ(endpoint.last().operation, "OnewaySend");
  EXPECT_EQ(endpoint.last().channel, 20991u);
}

TEST_F(ClientHelper, ANotificationThatCannotBeSentThrows) {
  endpoint.onewayResult = lunet::kErrNoTarget;
  const JsonRpcException e = thrownBy([&] { client.CallNotification("cleanScanCache", Json::Value()); });
  EXPECT_EQ(e.GetCode(), Errors::ERROR_CLIENT_CONNECTOR);
}

TEST_F(ClientHelper, OnlyASingleRequestIsSent) {
  for (const char* message : {"", "text", "[]", "[{\"id\":1}]", "5"}) {
    std::string result;
    EXPECT_EQ(thrownBy([&] { client.SendRPCMessage(message, result); }).GetCode(),
              Errors::ERROR_CLIENT_CONNECTOR);
  }
  EXPECT_TRUE(endpoint.sent.empty());
}

TEST_F(ClientHelper, AnEndpointThatThrowsDoesNotEndTheProcess) {
  endpoint.answer = [](const std::string&) -> std::optional<std::string> {
    throw std::runtime_error("out of descriptors");
  };
  const JsonRpcException e = thrownBy([&] { client.CallMethod("getBusList", Json::Value()); });
  EXPECT_EQ(e.GetCode(), Errors::ERROR_CLIENT_CONNECTOR);
  EXPECT_THAT(e.GetMessage(), HasSubstr("out of descriptors"));
}

TEST_F(ClientHelper, ATargetWithBracesIsTheSameTarget) {
  IJsonRpcClientHelper braced(&endpoint, "{FBE54D8E-D8E6-41F8-BE05-A94CE5469587}", 10990, 20991, 30000);
  braced.SendRPCMessage("{}");
  EXPECT_EQ(endpoint.last().target, lunet::parseGuid("FBE54D8E-D8E6-41F8-BE05-A94CE5469587"));
}

}  // namespace
}  // namespace rpctest
