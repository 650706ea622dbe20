#include "jsonrpchelper/BusServer.h"

#include "json/CppJson.h"
#include "platform/CLog.h"

namespace jsonrpchelper {
namespace {

constexpr int kLogError = 3;

/// The library has no kind for "any": such a parameter is left out of its check, and checked on reading.
jsonrpc::jsontype_t libraryKind(JsonKind kind) {
  switch (kind) {
    case JsonKind::kString:
      return jsonrpc::JSON_STRING;
    case JsonKind::kInteger:
      return jsonrpc::JSON_INTEGER;
    case JsonKind::kBoolean:
      return jsonrpc::JSON_BOOLEAN;
    case JsonKind::kArray:
      return jsonrpc::JSON_ARRAY;
    default:
      return jsonrpc::JSON_OBJECT;
  }
}

}  // namespace

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

jsonrpc::Procedure procedureOf(const MethodRow& row) {
  jsonrpc::Procedure procedure;
  procedure.SetProcedureName(std::string(row.name));
  procedure.SetProcedureType(row.result == JsonKind::kNone ? jsonrpc::RPC_NOTIFICATION : jsonrpc::RPC_METHOD);
  procedure.SetParameterDeclarationType(jsonrpc::PARAMS_BY_NAME);
  procedure.SetReturnType(libraryKind(row.result));
  for (const ParameterRow& parameter : row.parameters) {
    if (parameter.kind != JsonKind::kAny) {
      procedure.AddParameter(std::string(parameter.name), libraryKind(parameter.kind));
    }
  }
  return procedure;
}

void runOperation(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const jsonrpc::JsonRpcException&) {
    throw;
  } catch (const std::exception& e) {
    CLog::emit(kLogError, "ReceiveCallback: Caught exception:\n %s", e.what());
    throw jsonrpc::JsonRpcException(jsonrpc::Errors::ERROR_RPC_INTERNAL_ERROR, e.what());
  }
}

}  // namespace jsonrpchelper
