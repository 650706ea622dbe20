#pragma once

#include <cstdint>
#include <string>

#include "jsonrpchelper/JsonRpcCpp.h"
#include "lunet/Lunet.h"

namespace jsonrpchelper {

/// Carries JSON-RPC calls to one endpoint of the bus; AgentStub calls through this class. A send throws
/// jsonrpc::JsonRpcException and nothing else, whatever the other end answers: any other exception would end
/// the process inside the library. One thread at a time.
class IJsonRpcClientHelper : public jsonrpc::IClientConnector, public jsonrpc::Client {
 public:
  /// target: GUID text. timeoutMs: for each call, monotonic clock. The endpoint may be null and must
  /// otherwise outlive this object.
  IJsonRpcClientHelper(lunet::IEndpoint* endpoint, std::string target, std::uint32_t requestChannel,
                       std::uint32_t onewayChannel, std::uint32_t timeoutMs);

  /// Two-way: sends a request and gives its answer. Throws ERROR_CLIENT_INVALID_RESPONSE for an answer to
  /// another request, and for an answer that the library cannot take. Without an endpoint the result is
  /// empty. A message without an "id" is a notification and takes the one-way send.
  void SendRPCMessage(const std::string& message, std::string& result) override;
  /// One-way: never waits for an answer.
  void SendRPCMessage(const std::string& message);

  /// The bus's error number (lunet::Error) of the last send; lunet::kOk when the bus carried it.
  std::uint32_t lastBusError() const { return lastBusError_; }

 private:
  void exchange(const std::string& message, const Json::Value& id, std::string& result);

  lunet::IEndpoint* endpoint_;
  std::string target_;
  std::uint32_t requestChannel_;
  std::uint32_t onewayChannel_;
  std::uint32_t timeoutMs_;
  std::uint32_t lastBusError_ = lunet::kOk;
};

}  // namespace jsonrpchelper

using jsonrpchelper::IJsonRpcClientHelper;
