#include "command/AgentRequest.h"

#include "jsonrpchelper/Holders.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "platform/CLogDebug.h"

namespace command {

void logCaught(const RequestPlace& place, const jsonrpc::JsonRpcException& exception) {
  CLogDebug::LogPrintV(LogLevel::kError, place.source, place.function, place.line, "Caught exception:\n %s",
                       exception.what());
}

int askAgent(const RequestPlace& place, int afterException,
             const std::function<int(jsonrpchelper::AgentStub& agent)>& body,
             const std::function<void(const std::string& why)>& failed) {
  jsonrpchelper::IJsonRpcClientHelper* const client =
      jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid);
  if (client == nullptr) {
    return 0;
  }
  try {
    jsonrpchelper::AgentStub agent(*client);
    return body(agent);
  } catch (const jsonrpc::JsonRpcException& exception) {
    logCaught(place, exception);
    if (failed) {
      failed(exception.GetMessage());
    }
    return afterException;
  }
}

}  // namespace command
