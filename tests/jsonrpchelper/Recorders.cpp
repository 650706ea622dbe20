#include "Recorders.h"

namespace rpctest {

Json::Value sampleOf(JsonKind kind, int seed) {
  Json::Value object(Json::objectValue);
  object["seed"] = seed;
  object["文"] = "件\n\"";
  Json::Value array(Json::arrayValue);
  array.append(object);
  switch (kind) {
    case JsonKind::kString:
      return "text " + std::to_string(seed) + " 文\x01\"\\";
    case JsonKind::kInteger:
      return -2147483647 + seed;
    case JsonKind::kBoolean:
      return seed % 2 == 0;
    case JsonKind::kArray:
      return array;
    case JsonKind::kAny:
    case JsonKind::kObject:
      return object;
    case JsonKind::kNone:
      break;
  }
  return {};
}

Json::Value sampleParameters(const MethodRow& row) {
  Json::Value parameters;
  int seed = 0;
  for (const auto& parameter : row.parameters) {
    parameters[std::string(parameter.name)] = sampleOf(parameter.kind, seed++);
  }
  return parameters;
}

Json::Value recordedCall(const MethodRow& row, const Json::Value& parameters) {
  Json::Value call(Json::arrayValue);
  call.append(std::string(row.name));
  for (const auto& parameter : row.parameters) {
    call.append(parameters[std::string(parameter.name)]);
  }
  return call;
}

std::vector<Json::Value> valuesOfOtherKinds(JsonKind kind) {
  const std::vector<std::pair<JsonKind, Json::Value>> all = {
      {JsonKind::kNone, Json::Value()},
      {JsonKind::kString, "1"},
      {JsonKind::kInteger, 1},
      {JsonKind::kBoolean, true},
      {JsonKind::kObject, Json::Value(Json::objectValue)},
      {JsonKind::kArray, Json::Value(Json::arrayValue)},
      {JsonKind::kNone, 1.5},
      {JsonKind::kNone, Json::Int64{2147483648}}};
  std::vector<Json::Value> others;
  for (const auto& [of, value] : all) {
    if (of != kind) {
      others.push_back(value);
    }
  }
  return others;
}

std::string requestText(const std::string& method, const Json::Value& params, const Json::Value& id) {
  Json::Value request;
  request["jsonrpc"] = "2.0";
  request["method"] = method;
  request["id"] = id;
  if (!params.isNull()) {
    request["params"] = params;
  }
  return jsonText(request);
}

std::string notificationText(const std::string& method, const Json::Value& params) {
  Json::Value request;
  request["jsonrpc"] = "2.0";
  request["method"] = method;
  request["params"] = params;
  return jsonText(request);
}

std::string rowName(const MethodRow& row) {
  return std::string(row.name);
}

}  // namespace rpctest
