#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "jsonrpchelper/Declarations.h"
#include "jsonrpchelper/HandlerList.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "jsonrpchelper/JsonRpcCpp.h"

namespace jsonrpchelper {

bool isOfKind(const Json::Value& value, JsonKind kind);

/// One parameter of a request; JsonRpcException (ERROR_RPC_INVALID_PARAMS) when it is missing or of another
/// kind. What the library has checked already is checked again: it takes numbers for integers that are none.
const Json::Value& requiredParameter(const Json::Value& parameters, const char* name, JsonKind kind);
template <JsonKind kKind>
TypeOf<kKind> readParameter(const Json::Value& parameters, const char* name) {
  const Json::Value& value = requiredParameter(parameters, name, kKind);
  if constexpr (kKind == JsonKind::kString) {
    return value.asString();
  } else if constexpr (kKind == JsonKind::kInteger) {
    return value.asInt();
  } else if constexpr (kKind == JsonKind::kBoolean) {
    return value.asBool();
  } else {
    return value;
  }
}

/// The library's description of a declaration, made without its variadic constructors.
jsonrpc::Procedure procedureOf(const MethodRow& row);
template <JsonKind kResult, JsonKind... kKinds>
MethodRow rowOf(const Declaration<kResult, kKinds...>& declaration) {
  MethodRow row{declaration.name, {}, kResult};
  std::size_t i = 0;
  (row.parameters.push_back({declaration.parameters[i++], kKinds}), ...);
  return row;
}

/// Calls the operation with the parameters in the declaration's order.
template <class Server, class Operation, JsonKind kResult, JsonKind... kKinds, std::size_t... kIndexes>
decltype(auto) invoke(Server& server, Operation operation, const Declaration<kResult, kKinds...>& declaration,
                      [[maybe_unused]] const Json::Value& in, std::index_sequence<kIndexes...>) {
  return (server.*operation)(readParameter<kKinds>(in, declaration.parameters[kIndexes])...);
}

/// Runs an operation of a server. The library makes answers of JsonRpcException only, so any other exception
/// is logged and becomes one (ERROR_RPC_INTERNAL_ERROR).
void runOperation(const std::function<void()>& operation);

/// Base of the servers on a helper. Its constructor binds (in the derived class); nothing is delivered before
/// StartListening and nothing after StopListening, which the owner calls when the most derived object is
/// whole, and before it goes. What an operation throws becomes the error answer of a call, and a line in the
/// log for a notification.
template <class Server>
class BusServer : public jsonrpc::AbstractServer<Server> {
 public:
  /// From here on messages are delivered, on the bus's thread.
  bool StartListening() {
    handlers_->add(*handler_, procedures_);
    return true;
  }
  /// Returns when no operation runs any more, unless called from one.
  bool StopListening() {
    handlers_->remove(*handler_);
    return true;
  }

  void HandleMethodCall(jsonrpc::Procedure& procedure, const Json::Value& input,
                        Json::Value& output) override {
    runOperation([&] { jsonrpc::AbstractServer<Server>::HandleMethodCall(procedure, input, output); });
  }
  void HandleNotificationCall(jsonrpc::Procedure& procedure, const Json::Value& input) override {
    runOperation([&] { jsonrpc::AbstractServer<Server>::HandleNotificationCall(procedure, input); });
  }

 protected:
  explicit BusServer(IJsonRpcServerHelper& helper)
      : jsonrpc::AbstractServer<Server>(helper, jsonrpc::JSONRPC_SERVER_V2),
        handlers_(helper.handlers()),
        handler_(helper.GetHandler()) {
    helper.SetHandler(nullptr);  // its single place is not used; the list is
  }
  ~BusServer() override { handlers_->remove(*handler_); }

  template <const auto& kDeclaration, auto kOperation>
  void bindMethod() {
    this->bindAndAddMethod(procedureOf(rowOf(kDeclaration)),
                           &BusServer::template onCall<kDeclaration, kOperation>);
    procedures_.insert(kDeclaration.name);
  }
  template <const auto& kDeclaration, auto kOperation>
  void bindNotification() {
    this->bindAndAddNotification(procedureOf(rowOf(kDeclaration)),
                                 &BusServer::template onNotification<kDeclaration, kOperation>);
    procedures_.insert(kDeclaration.name);
  }

 private:
  template <const auto& kDeclaration, auto kOperation>
  void onCall(const Json::Value& in, Json::Value& out) {
    out = invoke(static_cast<Server&>(*this), kOperation, kDeclaration, in,
                 std::make_index_sequence<kDeclaration.kCount>());
  }
  template <const auto& kDeclaration, auto kOperation>
  void onNotification(const Json::Value& in) {
    invoke(static_cast<Server&>(*this), kOperation, kDeclaration, in,
           std::make_index_sequence<kDeclaration.kCount>());
  }

  std::shared_ptr<HandlerList> handlers_;
  jsonrpc::IClientConnectionHandler* handler_;
  std::set<std::string> procedures_;
};

}  // namespace jsonrpchelper
