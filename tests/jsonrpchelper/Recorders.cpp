#include "Recorders.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "json/CppJson.h"

namespace rpctest {

using jsonrpchelper::JsonKind;
using jsonrpchelper::MethodRow;

void RecordingScan::reportRiskInfo(int business_type, int fix_method, const Json::Value& risk_info,
                                   int risk_info_type, const std::string& token_id) {
  before();
  log.add("reportRiskInfo", business_type, fix_method, risk_info, risk_info_type, token_id);
}
void RecordingScan::reportRiskFixInfo(int business_type, int fix_method, const Json::Value& risk_info,
                                      int risk_info_type, const Json::Value& risk_repair_result,
                                      const std::string& token_id) {
  before();
  log.add("reportRiskFixInfo", business_type, fix_method, risk_info, risk_info_type, risk_repair_result,
          token_id);
}
void RecordingScan::reportScanBusOverView(const Json::Value& overview, const std::string& token_id) {
  before();
  log.add("reportScanBusOverView", overview, token_id);
}
void RecordingScan::reportScanBusStage(const std::string& datail, int stage, const std::string& token_id) {
  before();
  log.add("reportScanBusStage", datail, stage, token_id);
}
void RecordingScan::reportScanAttributeInfo(const Json::Value& payload, int source,
                                            const std::string& token_id) {
  before();
  log.add("reportScanAttributeInfo", payload, source, token_id);
}

void RecordingBusiness::reportBusStatus(const Json::Value& ctx, const std::string& detail,
                                        const Json::Value& params, int source, int state,
                                        const std::string& token_id, int type) {
  before();
  log.add("reportBusStatus", ctx, detail, params, source, state, token_id, type);
}
void RecordingBusiness::reportBusProgress(int progress, const std::string& token_id) {
  before();
  log.add("reportBusProgress", progress, token_id);
}

Json::Value RecordingAgent::startScanTask(const Json::Value& ctx, const std::string& desc,
                                          const Json::Value& params, int source,
                                          const std::string& token_id) {
  before();
  log.add("startScanTask", ctx, desc, params, source, token_id);
  return object;
}
bool RecordingAgent::ctlBus(int action, const std::string& detail, int mark, const Json::Value& payload,
                            int source, const std::string& token_id) {
  before();
  log.add("ctlBus", action, detail, mark, payload, source, token_id);
  return flag;
}
Json::Value RecordingAgent::getBusList() {
  before();
  log.add("getBusList");
  return array;
}
std::string RecordingAgent::getAVConfig(int config_type, int request_source) {
  before();
  log.add("getAVConfig", config_type, request_source);
  return text;
}
bool RecordingAgent::setAVConfig(const std::string& config_str, int config_type, int request_source) {
  before();
  log.add("setAVConfig", config_str, config_type, request_source);
  return flag;
}
Json::Value RecordingAgent::startDeIsolate(const Json::Value& ctx, const std::string& desc,
                                           const Json::Value& params, int source,
                                           const std::string& token_id) {
  before();
  log.add("startDeIsolate", ctx, desc, params, source, token_id);
  return object;
}
Json::Value RecordingAgent::getIsolationInfo() {
  before();
  log.add("getIsolationInfo");
  return array;
}
bool RecordingAgent::ctlRegion(const std::string& desc, const Json::Value& items, int region_type,
                               int source) {
  before();
  log.add("ctlRegion", desc, items, region_type, source);
  return flag;
}
Json::Value RecordingAgent::getRegionInfo(int domain, int item_type, int region_type) {
  before();
  log.add("getRegionInfo", domain, item_type, region_type);
  return array;
}
void RecordingAgent::cleanScanCache() {
  before();
  log.add("cleanScanCache");
}
int RecordingAgent::getScanCacheDetail() {
  before();
  log.add("getScanCacheDetail");
  return number;
}

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

namespace {
std::string written(const Json::Value& value) {
  std::string text;
  CppJson::WriteJsonToString(value, text, 1);
  return text;
}
}  // namespace

std::string requestText(const std::string& method, const Json::Value& params, const Json::Value& id) {
  Json::Value request;
  request["jsonrpc"] = "2.0";
  request["method"] = method;
  request["id"] = id;
  if (!params.isNull()) {
    request["params"] = params;
  }
  return written(request);
}

std::string notificationText(const std::string& method, const Json::Value& params) {
  Json::Value request;
  request["jsonrpc"] = "2.0";
  request["method"] = method;
  request["params"] = params;
  return written(request);
}

Json::Value parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(CppJson::LoadJsonString(text, value)) << text;
  return value;
}

const MethodRow& rowNamed(const std::vector<MethodRow>& rows, const std::string& name) {
  for (const MethodRow& row : rows) {
    if (row.name == name) {
      return row;
    }
  }
  throw std::invalid_argument(name);
}

std::string rowName(const MethodRow& row) {
  return std::string(row.name);
}

}  // namespace rpctest
