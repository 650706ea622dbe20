#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

/// The vocabulary of the two tables, AgentMethods.h and ConsoleNotifications.h. A method is a struct:
///
///   struct GetAVConfig {
///     static constexpr const char* kName = "getAVConfig";     // on the wire
///     static constexpr Access kAccess = Access::kEverybody;   // methods of the agent only
///     using Result = std::string;                             // void: a notification, no answer
///     std::int32_t config_type;                               // the parameters, in the agreed order
///     std::int32_t request_source;
///     JSON_MEMBERS(config_type, request_source);              // the same names, in the same order
///   };
///
/// A method without parameters derives from NoParameters.
/// Parameters have no initialisers: a designated initialiser that leaves one out is an error with g++.
namespace jsonrpchelper {

/// The callers that a method of the agent admits.
enum class Access {
  kEverybody,      ///< every user that the bus admits
  kMembers,        ///< root, the agent's own user and members of the configured group
  kAdministrators  ///< root and the agent's own user
};

enum class JsonKind {
  kNone,  ///< as a result: a notification, no answer
  kAny,   ///< any JSON value, null included
  kString,
  kInteger,  ///< signed, 32 bits
  kBoolean,
  kObject,
  kArray
};

/// A value that the table declares to be an object. A value of another kind is sent as {}.
class JsonObject : public Json::Value {
 public:
  JsonObject() : Json::Value(Json::objectValue) {}
  JsonObject(Json::Value value) : Json::Value(std::move(value)) {}
};

/// A value that the table declares to be an array.
class JsonArray : public Json::Value {
 public:
  JsonArray() : Json::Value(Json::arrayValue) {}
  JsonArray(Json::Value value) : Json::Value(std::move(value)) {}
};

struct NoParameters {
  static void members(auto& /*self*/, auto& /*visit*/) {}
};

/// The JSON kind of a C++ type. No other types may be parameters or results.
template <class T>
struct KindOf;
template <>
struct KindOf<void> : std::integral_constant<JsonKind, JsonKind::kNone> {};
template <>
struct KindOf<Json::Value> : std::integral_constant<JsonKind, JsonKind::kAny> {};
template <>
struct KindOf<std::string> : std::integral_constant<JsonKind, JsonKind::kString> {};
template <>
struct KindOf<std::int32_t> : std::integral_constant<JsonKind, JsonKind::kInteger> {};
template <>
struct KindOf<bool> : std::integral_constant<JsonKind, JsonKind::kBoolean> {};
template <>
struct KindOf<JsonObject> : std::integral_constant<JsonKind, JsonKind::kObject> {};
template <>
struct KindOf<JsonArray> : std::integral_constant<JsonKind, JsonKind::kArray> {};

/// A method as data.
struct ParameterRow {
  std::string_view name;
  JsonKind kind;
  friend bool operator==(const ParameterRow&, const ParameterRow&) = default;
};
struct MethodRow {
  std::string_view name;
  std::vector<ParameterRow> parameters;
  JsonKind result;
  std::optional<Access> access;  ///< none for a notification of the console
  friend bool operator==(const MethodRow&, const MethodRow&) = default;
};

template <class Method>
MethodRow rowOf() {
  MethodRow row{Method::kName, {}, KindOf<typename Method::Result>::value, std::nullopt};
  if constexpr (requires { Method::kAccess; }) {
    row.access = Method::kAccess;
  }
  const auto visit = [&row]<class T>(const char* name, const T&) {
    row.parameters.push_back({name, KindOf<T>::value});
  };
  const Method method{};
  Method::members(method, visit);
  return row;
}

/// A table: its methods, in order.
template <class... Methods>
struct MethodList {};

template <class... Methods>
std::vector<MethodRow> rowsOf(MethodList<Methods...>) {
  return {rowOf<Methods>()...};
}

template <class... First, class... Second>
MethodList<First..., Second...> operator+(MethodList<First...>, MethodList<Second...>) {
  return {};
}

template <class Method, class List>
inline constexpr bool kContains = false;
template <class Method, class... Methods>
inline constexpr bool kContains<Method, MethodList<Methods...>> = (std::is_same_v<Method, Methods> || ...);

}  // namespace jsonrpchelper
