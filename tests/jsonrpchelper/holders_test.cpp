#include "jsonrpchelper/Holders.h"

#include <gtest/gtest.h>

#include <thread>

#include "Recorders.h"
#include "support/FakeEndpoint.h"

namespace {

using jsonrpchelper::ClientRegistry;
using Steps = std::vector<std::string>;

constexpr const char* kRequest = R"({"jsonrpc":"2.0","id":1,"method":"getBusList"})";

class Holders : public testing::Test {
 protected:
  ~Holders() override {
    jsonrpchelper::stopJsonRpc();
    jsonrpchelper::setEndpoint(nullptr);
  }
  void start() {
    jsonrpchelper::setEndpoint(&endpoint);
    jsonrpchelper::initJsonRpc();
  }
  testsupport::FakeEndpoint endpoint;
};

TEST_F(Holders, ACallBeforeInitFindsNoClient) {
  jsonrpchelper::setEndpoint(&endpoint);
  EXPECT_EQ(ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
}

TEST_F(Holders, InitWithoutAnEndpointLeavesTheRegistryWithoutClients) {
  jsonrpchelper::initJsonRpc();
  EXPECT_EQ(ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
  EXPECT_NE(jsonrpchelper::serverHelper(), nullptr);
}

TEST_F(Holders, AnEmptyTargetHasNoClient) {
  start();
  EXPECT_EQ(ClientRegistry::instance().getClient(""), nullptr);
}

TEST_F(Holders, TheSameTargetHasTheSameClientAndAnotherAnother) {
  start();
  IJsonRpcClientHelper* const agent = ClientRegistry::instance().getClient(lunet::kAgentGuid);
  ASSERT_NE(agent, nullptr);
  EXPECT_EQ(ClientRegistry::instance().getClient(lunet::kAgentGuid), agent);
  EXPECT_NE(ClientRegistry::instance().getClient(lunet::kConsoleGuid), agent);
  std::string result;
  agent->SendRPCMessage(kRequest, result);
  EXPECT_EQ(endpoint.last().target, lunet::parseGuid(lunet::kAgentGuid));
  EXPECT_EQ(endpoint.last().timeoutMs, 30000u);
}

TEST_F(Holders, InitRegistersOneServerHelperOnBothChannels) {
  EXPECT_EQ(jsonrpchelper::serverHelper(), nullptr);
  start();
  EXPECT_EQ(endpoint.registrations, (Steps{"+10990", "+20991"}));
  IJsonRpcServerHelper* const helper = jsonrpchelper::serverHelper();
  ASSERT_NE(helper, nullptr);
  jsonrpchelper::initJsonRpc();
  EXPECT_EQ(jsonrpchelper::serverHelper(), helper) << "there is one a process";
}

TEST_F(Holders, TheServerHelperHandlesOnlyTrustedSendersAtAnyAddress) {
  start();
  rpctest::RecordingBusiness business(*jsonrpchelper::serverHelper());
  business.StartListening();
  struct Sender {
    const char* what;
    const char* guid;
    bool trusted;
    std::size_t handled;
  };
  const Sender senders[] = {
      {"a member at another address", lunet::kConsoleGuid, false, 0},
      {"a member at the agent's address", lunet::kAgentGuid, false, 0},
      {"one who is trusted at another address", lunet::kConsoleGuid, true, 1},
      {"the agent", lunet::kAgentGuid, true, 2},
  };
  for (const Sender& sender : senders) {
    endpoint.peer = lunet::parseGuid(sender.guid);
    endpoint.peerProcess.trusted = sender.trusted;
    Json::Value parameters;
    parameters["progress"] = 1;
    parameters["token_id"] = "t";
    endpoint.deliver(lunet::kOnewayChannel, rpctest::notificationText("reportBusProgress", parameters),
                     false);
    EXPECT_EQ(business.log.size(), sender.handled) << sender.what;
  }
}

TEST_F(Holders, ARequestOfATrustedSenderIsAnsweredAndAGroupMembersIsNotRead) {
  start();
  rpctest::RecordingBusiness business(*jsonrpchelper::serverHelper());
  business.StartListening();
  endpoint.peer = lunet::parseGuid(lunet::kConsoleGuid);
  const struct {
    std::string request;
    bool trusted;
    int code;
  } rows[] = {
      {"{", true, jsonrpc::Errors::ERROR_RPC_JSON_PARSE_ERROR},
      {"{", false, jsonrpc::Errors::ERROR_RPC_INVALID_REQUEST},
      {rpctest::requestText("getBusList", Json::Value(), 1), true,
       jsonrpc::Errors::ERROR_RPC_METHOD_NOT_FOUND},
      {rpctest::requestText("getBusList", Json::Value(), 1), false,
       jsonrpc::Errors::ERROR_RPC_INVALID_REQUEST},
  };
  for (const auto& row : rows) {
    endpoint.peerProcess.trusted = row.trusted;
    const auto delivery = endpoint.deliver(lunet::kRequestChannel, row.request, true);
    EXPECT_EQ(rpctest::jsonOf(delivery.reply)["error"]["code"], row.code) << row.request << row.trusted;
  }
}

TEST_F(Holders, StopUnregistersTheOneWayChannelFirstAndDestroysTheHelper) {
  start();
  endpoint.registrations.clear();
  jsonrpchelper::stopJsonRpc();
  EXPECT_EQ(endpoint.registrations, (Steps{"-20991", "-10990"}));
  EXPECT_EQ(jsonrpchelper::serverHelper(), nullptr);
  EXPECT_EQ(ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
}

TEST_F(Holders, StopMayBeCalledTwiceAndBeforeInit) {
  jsonrpchelper::stopJsonRpc();
  start();
  jsonrpchelper::stopJsonRpc();
  jsonrpchelper::stopJsonRpc();
}

TEST_F(Holders, AfterStopTheLinkCanBeInitialisedAgain) {
  start();
  jsonrpchelper::stopJsonRpc();
  jsonrpchelper::initJsonRpc();
  EXPECT_NE(ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
}

TEST_F(Holders, RegisteringWithoutAnEndpointGivesErrNoEndpoint) {
  EXPECT_EQ(jsonrpchelper::registerReceiver(10990, nullptr), 0xE0010000u);
  jsonrpchelper::unregisterReceiver(10990);
}

TEST_F(Holders, RegisteringForwardsToTheEndpointWithTheEndpointAsContext) {
  jsonrpchelper::setEndpoint(&endpoint);
  endpoint.registerResult = 3;
  IJsonRpcServerHelper helper;
  EXPECT_EQ(jsonrpchelper::registerReceiver(10990, &helper), 3u);
  endpoint.registerResult = 0;
  EXPECT_EQ(jsonrpchelper::registerReceiver(10990, &helper), 0u);
  EXPECT_TRUE(endpoint.deliver(10990, "{}", true).replied) << "the context is the endpoint to reply by";
  jsonrpchelper::unregisterReceiver(10990);
  EXPECT_FALSE(endpoint.isRegistered(10990));
}

TEST_F(Holders, TheEndpointHolderGivesWhatWasSet) {
  EXPECT_EQ(jsonrpchelper::endpoint(), nullptr);
  jsonrpchelper::setEndpoint(&endpoint);
  EXPECT_EQ(jsonrpchelper::endpoint(), &endpoint);
}

TEST_F(Holders, TheRegistryServesSeveralThreads) {
  start();
  std::vector<IJsonRpcClientHelper*> found(4);
  std::vector<std::thread> threads;
  for (auto& place : found) {
    threads.emplace_back([&place] { place = ClientRegistry::instance().getClient(lunet::kAgentGuid); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const auto* client : found) {
    EXPECT_EQ(client, found[0]);
  }
}

TEST_F(Holders, TheClientsHaveTheTimeOutOfTheRegistry) {
  ClientRegistry::instance().initialise(&endpoint, 1234);
  std::string result;
  ClientRegistry::instance().getClient(lunet::kAgentGuid)->SendRPCMessage(kRequest, result);
  EXPECT_EQ(endpoint.last().timeoutMs, 1234u);
}

TEST_F(Holders, AClientOfAnEarlierEndpointIsReplaced) {
  start();
  ASSERT_NE(ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
  testsupport::FakeEndpoint later;
  ClientRegistry::instance().initialise(&later, 1000);
  ClientRegistry::instance().getClient(lunet::kAgentGuid)->SendRPCMessage("{}");
  EXPECT_EQ(later.sent.size(), 1u);
  EXPECT_TRUE(endpoint.sent.empty());
}

}  // namespace
