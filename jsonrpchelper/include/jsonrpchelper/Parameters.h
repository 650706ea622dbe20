#pragma once

#include <json/value.h>

#include <string>
#include <type_traits>

#include "jsonrpchelper/MethodTable.h"

/// Between a method's struct and its parameters on the wire, for both sides of the bus.
namespace jsonrpchelper {

bool isOfKind(const Json::Value& value, JsonKind kind);

/// value: of T's kind.
template <class T>
T valueAs(const Json::Value& value) {
  if constexpr (std::is_same_v<T, std::string>) {
    return value.asString();
  } else if constexpr (std::is_same_v<T, std::int32_t>) {
    return value.asInt();
  } else if constexpr (std::is_same_v<T, bool>) {
    return value.asBool();
  } else {
    return T(value);
  }
}

inline Json::Value jsonOf(const JsonObject& object) {
  return object.isObject() ? object : JsonObject();
}
template <class T>
Json::Value jsonOf(const T& value) {
  return Json::Value(value);
}

/// The parameters by name; null when the method has none.
template <class Method>
Json::Value parametersOf(const Method& request) {
  Json::Value parameters;
  const auto write = [&parameters](const char* name, const auto& member) {
    parameters[name] = jsonOf(member);
  };
  Method::members(request, write);
  return parameters;
}

/// One parameter; JsonRpcException (ERROR_RPC_INVALID_PARAMS) when it is missing or of another kind. The
/// library's own check is not enough: the library takes fractions and large numbers for integers.
const Json::Value& requiredParameter(const Json::Value& parameters, const char* name, JsonKind kind);

/// The request that the parameters make. Throws as requiredParameter.
template <class Method>
Method requestOf(const Json::Value& parameters) {
  Method request{};
  const auto read = [&parameters]<class T>(const char* name, T& member) {
    member = valueAs<T>(requiredParameter(parameters, name, KindOf<T>::value));
  };
  Method::members(request, read);
  return request;
}

}  // namespace jsonrpchelper
