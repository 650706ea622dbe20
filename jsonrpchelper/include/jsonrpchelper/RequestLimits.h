#pragma once

#include <json/forwards.h>

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "json/Outline.h"

namespace jsonrpchelper {

/// The most that a server takes in one message for a method.
struct MethodLimit {
  std::string_view method;  ///< empty: every method that has no row before this one
  std::size_t bytes;
  std::size_t depth = std::numeric_limits<std::size_t>::max();   ///< of lists and objects in each other
  std::size_t values = std::numeric_limits<std::size_t>::max();  ///< as json::Outline counts them
};

/// The most bytes of one parameter, in every method that has a parameter of that name.
struct ParameterLimit {
  std::string_view name;
  std::size_t bytes;  ///< as written in the message
};

/// A message over a limit is not handled. Bytes, depth and values are checked before anything is built from
/// the message.
struct RequestLimits {
  std::vector<MethodLimit> methods;  ///< the last row has no name
  std::vector<ParameterLimit> parameters;
  std::size_t batch = 0;  ///< requests in one batch; 0: no batches
};

/// A refusal of a message.
struct Refusal {
  int code;         ///< of jsonrpc::Errors
  std::string why;  ///< one line
};

/// Checks the bytes of a message. outline: filled as far as it was counted.
std::optional<Refusal> checkText(const RequestLimits& limits, std::string_view text, json::Outline& outline);

/// Checks a parsed request: its parameters, and its method, which checkText may not have seen.
std::optional<Refusal> checkRequest(const RequestLimits& limits, const Json::Value& request,
                                    const json::Outline& outline, std::size_t bytes);

}  // namespace jsonrpchelper
