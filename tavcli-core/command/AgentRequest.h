#pragma once

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/Holders.h"
#include "lunet/Lunet.h"
#include "platform/CLogDebug.h"

namespace command {

/// Where a request stands, for the debug log.
struct RequestPlace {
  const char* source;
  const char* function;
  int line;
};

/// What the RPC layer says went wrong, as an error record of the debug log.
inline void logCaught(const RequestPlace& place, const jsonrpc::JsonRpcException& exception) {
  CLogDebug::LogPrintV(4, place.source, place.function, place.line, "Caught exception:\n %s",
                       exception.what());
}

/// Runs one request: body gets the agent's stub, its result is the request's. 0 when there is no way to the
/// agent; a JsonRpcException of the body is logged and gives afterException. Main thread.
template <class Body>
int askAgent(const RequestPlace& place, int afterException, Body body) {
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
    return afterException;
  }
}

}  // namespace command
