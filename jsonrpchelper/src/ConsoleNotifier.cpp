#include "jsonrpchelper/ConsoleNotifier.h"

#include <algorithm>
#include <limits>

#include "Parameters.h"
#include "json/CppJson.h"
#include "jsonrpchelper/AgentMethods.h"

namespace jsonrpchelper {

std::uint32_t ConsoleNotifier::send(const char* name, Json::Value parameters) {
  Json::Value message;
  message["jsonrpc"] = "2.0";
  message["method"] = name;
  message["params"] = std::move(parameters);
  std::string text;
  if (!CppJson::WriteJsonToString(message, text, 1)) {
    return lunet::kErrArgument;
  }
  if (text.size() > lunet::kMaxMessageBytes) {
    return lunet::kErrTooLarge;
  }
  return endpoint_.SendToProcess(target_, process_, lunet::kOnewayChannel, text.data(),
                                 static_cast<std::uint32_t>(text.size()));
}

std::uint32_t ConsoleNotifier::reportRiskInfo(int business_type, int fix_method, const Json::Value& risk_info,
                                              int risk_info_type, const std::string& token_id) {
  return send(kReportRiskInfo.name,
              parametersOf(kReportRiskInfo, business_type, fix_method, risk_info, risk_info_type, token_id));
}

std::uint32_t ConsoleNotifier::reportRiskFixInfo(int business_type, int fix_method,
                                                 const Json::Value& risk_info, int risk_info_type,
                                                 const Json::Value& risk_repair_result,
                                                 const std::string& token_id) {
  return send(kReportRiskFixInfo.name, parametersOf(kReportRiskFixInfo, business_type, fix_method, risk_info,
                                                    risk_info_type, risk_repair_result, token_id));
}

std::uint32_t ConsoleNotifier::reportScanBusOverView(const Json::Value& overview,
                                                     const std::string& token_id) {
  return send(kReportScanBusOverView.name, parametersOf(kReportScanBusOverView, overview, token_id));
}

std::uint32_t ConsoleNotifier::reportScanBusStage(const std::string& datail, int stage,
                                                  const std::string& token_id) {
  return send(kReportScanBusStage.name, parametersOf(kReportScanBusStage, datail, stage, token_id));
}

std::uint32_t ConsoleNotifier::reportScanAttributeInfo(const Json::Value& payload, int source,
                                                       const std::string& token_id) {
  return send(kReportScanAttributeInfo.name,
              parametersOf(kReportScanAttributeInfo, payload, source, token_id));
}

std::uint32_t ConsoleNotifier::reportBusStatus(const Json::Value& ctx, const std::string& detail,
                                               const Json::Value& params, int source, int state,
                                               const std::string& token_id, int type) {
  return send(kReportBusStatus.name,
              parametersOf(kReportBusStatus, ctx, detail, params, source, state, token_id, type));
}

std::uint32_t ConsoleNotifier::reportBusProgress(int progress, const std::string& token_id) {
  return send(kReportBusProgress.name, parametersOf(kReportBusProgress, progress, token_id));
}

}  // namespace jsonrpchelper
