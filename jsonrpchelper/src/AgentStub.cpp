#include "jsonrpchelper/AgentStub.h"

namespace jsonrpchelper {

ResultOfAnotherKind::ResultOfAnotherKind(const Json::Value& result)
    : JsonRpcException(jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE, result.toStyledString()) {}

Json::Value AgentStub::resultOf(const char* name, const Json::Value& parameters, JsonKind kind) {
  Json::Value result = client_.CallMethod(name, parameters);
  if (!isOfKind(result, kind)) {
    throw ResultOfAnotherKind(result);
  }
  return result;
}

}  // namespace jsonrpchelper
