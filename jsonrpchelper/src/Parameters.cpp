#include "jsonrpchelper/Parameters.h"

#include "json/CppJson.h"
#include "jsonrpchelper/JsonRpcCpp.h"

namespace jsonrpchelper {

bool isOfKind(const Json::Value& value, JsonKind kind) {
  switch (kind) {
    case JsonKind::kNone:
      return value.isNull();
    case JsonKind::kAny:
      return true;
    case JsonKind::kString:
      return value.isString();
    case JsonKind::kInteger:
      return value.isInt();
    case JsonKind::kBoolean:
      return value.isBool();
    case JsonKind::kObject:
      return value.isObject();
    case JsonKind::kArray:
      return value.isArray();
  }
  return false;
}

const Json::Value& requiredParameter(const Json::Value& parameters, const char* name, JsonKind kind) {
  const Json::Value* value = CppJson::findMember(parameters, name);
  if (value == nullptr || !isOfKind(*value, kind)) {
    throw jsonrpc::JsonRpcException(jsonrpc::Errors::ERROR_RPC_INVALID_PARAMS, name);
  }
  return *value;
}

}  // namespace jsonrpchelper
