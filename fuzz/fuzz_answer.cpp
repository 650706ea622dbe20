// Any bytes as the agent's answer to each method of the table. The call gives a result or throws
// jsonrpc::JsonRpcException, and gives every buffer back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "support/FakeEndpoint.h"

namespace {

using jsonrpchelper::AgentMethods;
using jsonrpchelper::AgentStub;
using jsonrpchelper::MethodList;

template <class... Methods>
void callMethod(MethodList<Methods...>, AgentStub& agent, std::size_t which) {
  which %= sizeof...(Methods);
  std::size_t index = 0;
  ((index++ == which ? static_cast<void>(agent.call(Methods{})) : void()), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  testsupport::FakeEndpoint endpoint;
  // Half of the inputs stand in for the result or the error of a valid answer.
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
    callMethod(AgentMethods(), agent, data[0]);
  } catch (const jsonrpc::JsonRpcException&) {
  }
  if (endpoint.buffersOut != 0) {
    std::abort();
  }
  return 0;
}
