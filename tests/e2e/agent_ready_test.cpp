// The agent's address from its first moment on.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "e2e/AgentTree.h"
#include "lunet/BusClient.h"
#include "lunet/ListenerAt.h"

namespace {

using testsupport::AgentTree;

/// Without a pause, to be there first. False at the limit.
bool waitForListener(const AgentTree& tree, const lunet::Guid& address) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!lunet::listenerAt(tree.at("run/lunet"), address)) {
    if (std::chrono::steady_clock::now() > limit) {
      return false;
    }
  }
  return true;
}

TEST(AgentAddress, AnswersTheFirstRequestThatReachesIt) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  lunet::BusClient bus;
  ASSERT_TRUE(bus.load(tree.at("lib/modules/libLunetClientMgr.so")));
  ASSERT_EQ(lunet::kOk, bus.init("{\"runtime_path\":\"" + tree.path() + "\"}", "test"));
  ASSERT_TRUE(bus.createEndpoint());
  lunet::IEndpoint* const endpoint = bus.endpoint();
  ASSERT_EQ(lunet::kOk, bus.open(lunet::parseGuid(lunet::kConsoleGuid)));
  const lunet::Guid agentAddress = lunet::parseGuid(lunet::kAgentGuid);
  const std::string request = R"({"jsonrpc":"2.0","id":1,"method":"getBusList"})";
  for (int round = 0; round < 10; ++round) {
    const auto agent = tree.run({});
    ASSERT_TRUE(waitForListener(tree, agentAddress)) << agent->err();
    std::uint32_t error = 0;
    char* reply = nullptr;
    std::uint32_t length = 0;
    EXPECT_EQ(lunet::kOk,
              endpoint->SyncSend(agentAddress, lunet::kRequestChannel, request.data(),
                                 static_cast<std::uint32_t>(request.size()), &error, &reply, &length, 20000));
    endpoint->FreeBuffer(reply);
    agent->kill(SIGTERM);
    EXPECT_EQ(0, agent->wait()) << agent->err();
  }
}

}  // namespace
