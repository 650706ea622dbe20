#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/ConsoleNotifier.h"

namespace rpctest {

/// Calls a method of the stub with parameters given by name; the result as JSON, null for none.
Json::Value callStub(jsonrpchelper::AgentStub& stub, const std::string& name, const Json::Value& p);
/// The same for a notification; the bus's error number.
std::uint32_t notify(jsonrpchelper::ConsoleNotifier& to, const std::string& name, const Json::Value& p);

}  // namespace rpctest
