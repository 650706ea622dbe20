#include "jsonrpchelper/BusServer.h"

#include "platform/CLog.h"

namespace jsonrpchelper {
namespace {

/// The library has no kind for "any": procedureOf leaves such a parameter out, and requestOf checks it.
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
    CLog::emit(CLogLevel::kError, "ReceiveCallback: Caught exception:\n %s", e.what());
    throw jsonrpc::JsonRpcException(jsonrpc::Errors::ERROR_RPC_INTERNAL_ERROR, e.what());
  }
}

}  // namespace jsonrpchelper
