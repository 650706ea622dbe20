#include "jsonrpchelper/RequestLimits.h"

#include <algorithm>

#include "json/CppJson.h"
#include "jsonrpchelper/JsonRpcCpp.h"

namespace jsonrpchelper {
namespace {

using jsonrpc::Errors;

std::string overLimit(const std::string& what, std::size_t size, std::size_t limit) {
  return what + " of " + std::to_string(size) + " is over the limit of " + std::to_string(limit);
}

const MethodLimit& limitOf(const RequestLimits& limits, std::string_view method) {
  const auto row = std::find_if(limits.methods.begin(), limits.methods.end() - 1,
                                [method](const MethodLimit& one) { return one.method == method; });
  return *row;
}

std::optional<Refusal> checkBytes(std::size_t bytes, std::size_t limit) {
  if (bytes <= limit) {
    return std::nullopt;
  }
  return Refusal{Errors::ERROR_RPC_INVALID_REQUEST, overLimit("a message in bytes", bytes, limit)};
}

std::optional<Refusal> checkOutline(const json::Outline& outline, const MethodLimit& limit) {
  if (outline.depth > limit.depth) {
    return Refusal{Errors::ERROR_RPC_JSON_PARSE_ERROR,
                   "it is nested deeper than the limit of " + std::to_string(limit.depth)};
  }
  if (outline.values > limit.values) {
    return Refusal{Errors::ERROR_RPC_INVALID_REQUEST,
                   "it has more values than the limit of " + std::to_string(limit.values)};
  }
  return std::nullopt;
}

/// The widest of the limits, for a message whose method is not known yet.
MethodLimit widest(const RequestLimits& limits) {
  MethodLimit most{"", 0, 0, 0};
  for (const MethodLimit& row : limits.methods) {
    most.bytes = std::max(most.bytes, row.bytes);
    most.depth = std::max(most.depth, row.depth);
    most.values = std::max(most.values, row.values);
  }
  return most;
}

std::size_t writtenBytes(const Json::Value& value) {
  return static_cast<std::size_t>(value.getOffsetLimit() - value.getOffsetStart());
}

}  // namespace

std::optional<Refusal> checkText(const RequestLimits& limits, std::string_view text, json::Outline& outline) {
  const MethodLimit most = widest(limits);
  if (auto refusal = checkBytes(text.size(), most.bytes)) {
    return refusal;
  }
  outline = json::outlineOf(text, most.depth, most.values);
  if (outline.comment) {
    return Refusal{Errors::ERROR_RPC_JSON_PARSE_ERROR, "it is no JSON: a slash outside of texts"};
  }
  if (outline.list && limits.batch == 0) {
    return Refusal{Errors::ERROR_RPC_INVALID_REQUEST, "batches are not served"};
  }
  const MethodLimit& limit = limitOf(limits, outline.method);
  if (auto refusal = checkBytes(text.size(), limit.bytes)) {
    return refusal;
  }
  return checkOutline(outline, limit);
}

std::optional<Refusal> checkRequest(const RequestLimits& limits, const Json::Value& request,
                                    const json::Outline& outline, std::size_t bytes) {
  const Json::Value* const method = CppJson::findMember(request, "method");
  const MethodLimit& limit =
      limitOf(limits, method != nullptr && method->isString() ? method->asString() : "");
  if (auto refusal = checkBytes(bytes, limit.bytes)) {
    return refusal;
  }
  if (auto refusal = checkOutline(outline, limit)) {
    return refusal;
  }
  const Json::Value* const parameters = CppJson::findMember(request, "params");
  for (const ParameterLimit& row : limits.parameters) {
    const Json::Value* const value =
        parameters != nullptr ? CppJson::findMember(*parameters, row.name) : nullptr;
    if (value != nullptr && writtenBytes(*value) > row.bytes) {
      return Refusal{
          Errors::ERROR_RPC_INVALID_PARAMS,
          overLimit("the parameter " + std::string(row.name) + " in bytes", writtenBytes(*value), row.bytes)};
    }
  }
  return std::nullopt;
}

}  // namespace jsonrpchelper
