#pragma once

#include <functional>
#include <string>

#include "json/Values.h"
#include "jsonrpchelper/AgentStub.h"

namespace jsonrpc {
class JsonRpcException;
}

namespace command {

/// "source" and "request_source" of every request.
inline constexpr std::int32_t kFromConsole = json::toNumber(json::RequestSource::kConsole);

/// Where a request stands, for the debug log.
struct RequestPlace {
  const char* source;
  const char* function;
  int line;
};

/// What the RPC layer says went wrong, as an error record of the debug log.
void logCaught(const RequestPlace& place, const jsonrpc::JsonRpcException& exception);

/// Runs one request: the body gets the agent's stub, and its result is the request's. 0 when there is no way
/// to the agent; a JsonRpcException of the body is logged, told to `failed` and gives afterException. Main
/// thread.
int askAgent(const RequestPlace& place, int afterException,
             const std::function<int(jsonrpchelper::AgentStub& agent)>& body,
             const std::function<void(const std::string& why)>& failed = nullptr);

}  // namespace command
