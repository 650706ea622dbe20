#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/ConsoleNotifier.h"

namespace rpctest {

/// Calls a method of the table through the stub, with parameters given by name. Returns the result as JSON,
/// or null for a method without a result.
Json::Value callStub(jsonrpchelper::AgentStub& stub, const std::string& name, const Json::Value& parameters);
/// The same for a notification. Returns the bus's error number.
std::uint32_t notify(jsonrpchelper::ConsoleNotifier& notifier, const std::string& name,
                     const Json::Value& parameters);

}  // namespace rpctest
