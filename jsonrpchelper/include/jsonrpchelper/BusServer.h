#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <type_traits>

#include "jsonrpchelper/HandlerList.h"
#include "jsonrpchelper/IJsonRpcServerHelper.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "jsonrpchelper/MethodTable.h"
#include "jsonrpchelper/Parameters.h"

namespace jsonrpchelper {

/// The library's description of a method, made without the library's variadic constructors.
jsonrpc::Procedure procedureOf(const MethodRow& row);

/// Runs an operation of a server. The library makes answers of JsonRpcException only, so any other exception
/// is logged and becomes one (ERROR_RPC_INTERNAL_ERROR).
void runOperation(const std::function<void()>& operation);

/// The method that an operation of a server serves.
template <class Server, class Result, class Method>
Method methodServedBy(Result (Server::*)(const Method&));

/// Base of the servers on a helper; `Server` is the derived class, whose constructor calls bindAll. Messages
/// are delivered between StartListening and StopListening only. The owner calls StartListening when the most
/// derived object is whole, and StopListening before the object is destroyed. An exception of an operation
/// becomes the error answer of a call, and a line in the log for a notification.
template <class Server>
class BusServer : public jsonrpc::AbstractServer<Server> {
 public:
  /// From here on messages are delivered, on the bus's thread.
  bool StartListening() {
    handlers_->add(*handler_, procedures_);
    return true;
  }
  /// Returns when no operation runs any more, unless called from an operation.
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
    helper.SetHandler(nullptr);  // the library's place for one server stays unused
  }
  ~BusServer() override { handlers_->remove(*handler_); }

  /// Binds one operation to each method of the table. Does not compile when a method is left out or when an
  /// operation's result is not the declared one.
  template <class Table, auto... kOperations>
  void bindAll() {
    static_assert(std::is_same_v<Table, MethodList<decltype(methodServedBy(kOperations))...>>,
                  "one operation for each method, in the table's order");
    (bind<decltype(methodServedBy(kOperations)), kOperations>(), ...);
  }

 private:
  template <class Method, typename Method::Result (Server::*kOperation)(const Method&)>
  void bind() {
    if constexpr (std::is_void_v<typename Method::Result>) {
      this->bindAndAddNotification(procedureOf(rowOf<Method>()),
                                   &BusServer::template onNotification<Method, kOperation>);
    } else {
      this->bindAndAddMethod(procedureOf(rowOf<Method>()), &BusServer::template onCall<Method, kOperation>);
    }
    procedures_.insert(Method::kName);
  }
  template <class Method, auto kOperation>
  void onCall(const Json::Value& in, Json::Value& out) {
    Server& server = static_cast<Server&>(*this);
    const Method request = requestOf<Method>(in);
    if constexpr (requires { Method::kAccess; }) {
      if (const std::optional<Json::Value> refusal = server.refusal(Method::kAccess, Method::kName)) {
        out = *refusal;
        return;
      }
    }
    if constexpr (std::is_void_v<typename Method::Result>) {
      (server.*kOperation)(request);
    } else {
      out = (server.*kOperation)(request);
    }
  }
  template <class Method, auto kOperation>
  void onNotification(const Json::Value& in) {
    Json::Value noAnswer;
    onCall<Method, kOperation>(in, noAnswer);
  }

  std::shared_ptr<HandlerList> handlers_;
  jsonrpc::IClientConnectionHandler* handler_;
  std::set<std::string> procedures_;
};

}  // namespace jsonrpchelper
