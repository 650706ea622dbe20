// Any bytes as the agent's answer to any method: a result, or jsonrpc::JsonRpcException; nothing else.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "support/FakeEndpoint.h"

namespace {

using jsonrpchelper::AgentStub;

void callMethod(AgentStub& agent, std::size_t which) {
  switch (which % 9) {
    case 0:
      agent.startScanTask(Json::Value(), "", Json::Value(), 1, "");
      break;
    case 1:
      agent.ctlBus(1, "", 8, Json::Value(), 1, "t");
      break;
    case 2:
      agent.getBusList();
      break;
    case 3:
      agent.getAVConfig(0, 1);
      break;
    case 4:
      agent.setAVConfig("{}", 0, 1);
      break;
    case 5:
      agent.getIsolationInfo();
      break;
    case 6:
      agent.getRegionInfo(4, 0, 0);
      break;
    case 7:
      agent.cleanScanCache();
      break;
    default:
      agent.getScanCacheDetail();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  testsupport::FakeEndpoint endpoint;
  // Half of the inputs are put where the result or the error stands, so that the rest need not be guessed.
  endpoint.answer = [&](const std::string&) {
    const std::string head = R"({"jsonrpc":"2.0","id":1,)";
    return data[0] < 64    ? head + R"("result":)" + bytes + "}"
           : data[0] < 128 ? head + R"("error":)" + bytes + "}"
                           : bytes;
  };
  jsonrpchelper::IJsonRpcClientHelper client(&endpoint, lunet::kAgentGuid, lunet::kRequestChannel,
                                             lunet::kOnewayChannel, 1000);
  AgentStub agent(client);
  try {
    callMethod(agent, data[0]);
  } catch (const jsonrpc::JsonRpcException&) {
  }
  if (endpoint.buffersOut != 0) {
    std::abort();
  }
  return 0;
}
