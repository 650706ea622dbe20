#pragma once

#include <json/value.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// How a method or notification is declared: its name, its parameters with their kinds, and the kind of its
/// result. Client stubs and server bindings take everything from such a declaration; the tables that are made
/// of them stand in AgentMethods.h.
namespace jsonrpchelper {

enum class JsonKind {
  kNone,  ///< as a result: a notification, no answer
  kAny,   ///< any JSON value, null included
  kString,
  kInteger,  ///< signed, 32 bits
  kBoolean,
  kObject,
  kArray
};

/// What a kind is in C++.
template <JsonKind kKind>
struct KindOf {
  using Type = Json::Value;
};
template <>
struct KindOf<JsonKind::kNone> {
  using Type = void;
};
template <>
struct KindOf<JsonKind::kString> {
  using Type = std::string;
};
template <>
struct KindOf<JsonKind::kInteger> {
  using Type = int;
};
template <>
struct KindOf<JsonKind::kBoolean> {
  using Type = bool;
};
template <JsonKind kKind>
using TypeOf = typename KindOf<kKind>::Type;

template <JsonKind kKind>
struct Parameter {
  const char* name;
};
constexpr Parameter<JsonKind::kAny> any(const char* name) {
  return {name};
}
constexpr Parameter<JsonKind::kString> string(const char* name) {
  return {name};
}
constexpr Parameter<JsonKind::kInteger> integer(const char* name) {
  return {name};
}
constexpr Parameter<JsonKind::kBoolean> boolean(const char* name) {
  return {name};
}
constexpr Parameter<JsonKind::kObject> object(const char* name) {
  return {name};
}
constexpr Parameter<JsonKind::kArray> array(const char* name) {
  return {name};
}

template <JsonKind kResultKind, JsonKind... kKinds>
struct Declaration {
  static constexpr JsonKind kResult = kResultKind;
  static constexpr std::size_t kCount = sizeof...(kKinds);

  const char* name;
  std::array<const char*, kCount> parameters;
};

template <JsonKind kResult, JsonKind... kKinds>
constexpr Declaration<kResult, kKinds...> method(const char* name, Parameter<kKinds>... parameters) {
  return {name, {parameters.name...}};
}
template <JsonKind... kKinds>
constexpr Declaration<JsonKind::kNone, kKinds...> notification(const char* name,
                                                               Parameter<kKinds>... parameters) {
  return {name, {parameters.name...}};
}

/// A declaration as data, for those who list or compare.
struct ParameterRow {
  std::string_view name;
  JsonKind kind;
  friend bool operator==(const ParameterRow&, const ParameterRow&) = default;
};
struct MethodRow {
  std::string_view name;
  std::vector<ParameterRow> parameters;
  JsonKind result;
  friend bool operator==(const MethodRow&, const MethodRow&) = default;
};

}  // namespace jsonrpchelper
