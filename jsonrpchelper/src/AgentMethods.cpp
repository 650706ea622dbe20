#include "jsonrpchelper/AgentMethods.h"

#include "Parameters.h"
#include "jsonrpchelper/BusServer.h"

namespace jsonrpchelper {
namespace {

template <JsonKind kKind>
TypeOf<kKind> convert(Json::Value result) {
  if (!isOfKind(result, kKind)) {
    throw ResultOfAnotherKind(result);
  }
  if constexpr (kKind == JsonKind::kString) {
    return result.asString();
  } else if constexpr (kKind == JsonKind::kInteger) {
    return result.asInt();
  } else if constexpr (kKind == JsonKind::kBoolean) {
    return result.asBool();
  } else {
    return result;
  }
}

/// The client may throw what its own headers say, JsonRpcException; the arguments are checked against the
/// declaration when this is compiled.
template <JsonKind kResult, JsonKind... kKinds>
TypeOf<kResult> call(jsonrpc::Client& client, const Declaration<kResult, kKinds...>& declaration,
                     const TypeOf<kKinds>&... values) {
  const Json::Value parameters = parametersOf(declaration, values...);
  if constexpr (kResult == JsonKind::kNone) {
    client.CallNotification(declaration.name, parameters);
  } else {
    return convert<kResult>(client.CallMethod(declaration.name, parameters));
  }
}

}  // namespace

ResultOfAnotherKind::ResultOfAnotherKind(const Json::Value& result)
    : JsonRpcException(jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE, result.toStyledString()) {}

const std::vector<MethodRow>& agentMethods() {
  static const std::vector<MethodRow> kRows = {
      rowOf(kStartScanTask), rowOf(kCtlBus),         rowOf(kGetBusList),        rowOf(kGetAVConfig),
      rowOf(kSetAVConfig),   rowOf(kStartDeIsolate), rowOf(kGetIsolationInfo),  rowOf(kCtlRegion),
      rowOf(kGetRegionInfo), rowOf(kCleanScanCache), rowOf(kGetScanCacheDetail)};
  return kRows;
}

const std::vector<MethodRow>& consoleNotifications() {
  static const std::vector<MethodRow> kRows = {rowOf(kReportRiskInfo),          rowOf(kReportRiskFixInfo),
                                               rowOf(kReportScanBusOverView),   rowOf(kReportScanBusStage),
                                               rowOf(kReportScanAttributeInfo), rowOf(kReportBusStatus),
                                               rowOf(kReportBusProgress)};
  return kRows;
}

Json::Value AgentStub::startScanTask(const Json::Value& ctx, const std::string& desc,
                                     const Json::Value& params, int source, const std::string& token_id) {
  return call(client_, kStartScanTask, ctx, desc, params, source, token_id);
}

bool AgentStub::ctlBus(int action, const std::string& detail, int mark, const Json::Value& payload,
                       int source, const std::string& token_id) {
  return call(client_, kCtlBus, action, detail, mark, payload, source, token_id);
}

Json::Value AgentStub::getBusList() {
  return call(client_, kGetBusList);
}

std::string AgentStub::getAVConfig(int config_type, int request_source) {
  return call(client_, kGetAVConfig, config_type, request_source);
}

bool AgentStub::setAVConfig(const std::string& config_str, int config_type, int request_source) {
  return call(client_, kSetAVConfig, config_str, config_type, request_source);
}

Json::Value AgentStub::startDeIsolate(const Json::Value& ctx, const std::string& desc,
                                      const Json::Value& params, int source, const std::string& token_id) {
  return call(client_, kStartDeIsolate, ctx, desc, params, source, token_id);
}

Json::Value AgentStub::getIsolationInfo() {
  return call(client_, kGetIsolationInfo);
}

bool AgentStub::ctlRegion(const std::string& desc, const Json::Value& items, int region_type, int source) {
  return call(client_, kCtlRegion, desc, items, region_type, source);
}

Json::Value AgentStub::getRegionInfo(int domain, int item_type, int region_type) {
  return call(client_, kGetRegionInfo, domain, item_type, region_type);
}

void AgentStub::cleanScanCache() {
  call(client_, kCleanScanCache);
}

int AgentStub::getScanCacheDetail() {
  return call(client_, kGetScanCacheDetail);
}

}  // namespace jsonrpchelper
