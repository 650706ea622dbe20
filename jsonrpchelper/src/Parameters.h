#pragma once

#include <json/value.h>

#include <cstddef>
#include <utility>

#include "jsonrpchelper/Declarations.h"

namespace jsonrpchelper {

/// How a C++ value of the kind stands in a request. An object that is none travels as {}.
template <JsonKind kKind>
Json::Value toJson(const TypeOf<kKind>& value) {
  if constexpr (kKind == JsonKind::kObject) {
    return value.isObject() ? value : Json::Value(Json::objectValue);
  } else {
    return Json::Value(value);
  }
}

/// The parameters by name; null when the declaration has none.
template <JsonKind kResult, JsonKind... kKinds>
Json::Value parametersOf([[maybe_unused]] const Declaration<kResult, kKinds...>& declaration,
                         const TypeOf<kKinds>&... values) {
  Json::Value parameters;
  [[maybe_unused]] std::size_t i = 0;
  ((parameters[declaration.parameters[i++]] = toJson<kKinds>(values)), ...);
  return parameters;
}

}  // namespace jsonrpchelper
