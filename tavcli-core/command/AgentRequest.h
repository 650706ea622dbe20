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

/// The place of a request in the code, for the debug log.
struct RequestPlace {
  const char* source;
  const char* function;
  int line;
};

/// Writes the exception of the RPC layer to the debug log, as an error.
void logCaught(const RequestPlace& place, const jsonrpc::JsonRpcException& exception);

/// Runs one request: calls the body with the agent's stub and returns the body's result. Returns 0 without a
/// link to the agent. A JsonRpcException of the body is logged and passed to `failed`; the result is then
/// afterException. Main thread.
int askAgent(const RequestPlace& place, int afterException,
             const std::function<int(jsonrpchelper::AgentStub& agent)>& body,
             const std::function<void(const std::string& why)>& failed = nullptr);

}  // namespace command
