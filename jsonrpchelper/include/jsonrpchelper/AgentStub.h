#pragma once

#include <json/value.h>

#include <type_traits>

#include "jsonrpchelper/AgentMethods.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "jsonrpchelper/Parameters.h"

namespace jsonrpchelper {

/// A result of another kind than declared: ERROR_CLIENT_INVALID_RESPONSE with the result's indented text. An
/// error answer of the agent and a garbled answer may carry the same number, but never have this type.
class ResultOfAnotherKind : public jsonrpc::JsonRpcException {
 public:
  explicit ResultOfAnotherKind(const Json::Value& result);
};

/// The agent's methods as the console calls them: agent.call(GetAVConfig{.config_type = …, …}).
class AgentStub {
 public:
  explicit AgentStub(jsonrpc::Client& client) : client_(client) {}

  /// Throws jsonrpc::JsonRpcException and nothing else: for a failure of the link and for the agent's error
  /// answer. A result of another kind than declared gives ResultOfAnotherKind. Blocks up to the client's
  /// time-out; a notification never blocks. As thread-safe as the client.
  template <class Method>
  typename Method::Result call(const Method& request) {
    static_assert(kContains<Method, AgentMethods>, "no method of the agent");
    using Result = typename Method::Result;
    if constexpr (std::is_void_v<Result>) {
      client_.CallNotification(Method::kName, parametersOf(request));
    } else {
      return valueAs<Result>(resultOf(Method::kName, parametersOf(request), KindOf<Result>::value));
    }
  }

 private:
  Json::Value resultOf(const char* name, const Json::Value& parameters, JsonKind kind);

  jsonrpc::Client& client_;
};

}  // namespace jsonrpchelper
