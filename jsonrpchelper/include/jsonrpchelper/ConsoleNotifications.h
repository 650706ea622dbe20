#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "json/Members.h"
#include "jsonrpchelper/MethodTable.h"

/// The wire protocol from agent to console: every notification is declared here and nowhere else. The agent
/// sends through ConsoleNotifier; the console receives through IScanCAbstract and IBusinessCAbstract.
/// MethodTable.h explains the form. token_id names the task.
namespace jsonrpchelper {

/// A risk was found. risk_info: JsonReflect::VirusInfo or MemoryRiskInfo.
struct ReportRiskInfo {
  static constexpr const char* kName = "reportRiskInfo";
  using Result = void;

  std::int32_t business_type;
  std::int32_t fix_method;
  JsonObject risk_info;
  std::int32_t risk_info_type;
  std::string token_id;

  JSON_MEMBERS(business_type, fix_method, risk_info, risk_info_type, token_id);
};

/// A risk was handled. risk_repair_result: JsonReflect::RiskRepairResult.
struct ReportRiskFixInfo {
  static constexpr const char* kName = "reportRiskFixInfo";
  using Result = void;

  std::int32_t business_type;
  std::int32_t fix_method;
  JsonObject risk_info;
  std::int32_t risk_info_type;
  JsonObject risk_repair_result;
  std::string token_id;

  JSON_MEMBERS(business_type, fix_method, risk_info, risk_info_type, risk_repair_result, token_id);
};

/// The counters of a scan: JsonReflect::ScanBusOverView.
struct ReportScanBusOverView {
  static constexpr const char* kName = "reportScanBusOverView";
  using Result = void;

  JsonObject overview;
  std::string token_id;

  JSON_MEMBERS(overview, token_id);
};

/// A scan begins a stage. "datail" is the protocol's own spelling.
struct ReportScanBusStage {
  static constexpr const char* kName = "reportScanBusStage";
  using Result = void;

  std::string datail;
  std::int32_t stage;
  std::string token_id;

  JSON_MEMBERS(datail, stage, token_id);
};

/// The attributes of a scan.
struct ReportScanAttributeInfo {
  static constexpr const char* kName = "reportScanAttributeInfo";
  using Result = void;

  JsonObject payload;
  std::int32_t source;
  std::string token_id;

  JSON_MEMBERS(payload, source, token_id);
};

/// A task has another state. ctx and source: those of the request that started the task.
struct ReportBusStatus {
  static constexpr const char* kName = "reportBusStatus";
  using Result = void;

  JsonObject ctx;
  std::string detail;
  JsonObject params;
  std::int32_t source;
  std::int32_t state;
  std::string token_id;
  std::int32_t type;

  JSON_MEMBERS(ctx, detail, params, source, state, token_id, type);
};

/// How far a task is, in percent.
struct ReportBusProgress {
  static constexpr const char* kName = "reportBusProgress";
  using Result = void;

  std::int32_t progress;
  std::string token_id;

  JSON_MEMBERS(progress, token_id);
};

using ScanNotifications = MethodList<ReportRiskInfo, ReportRiskFixInfo, ReportScanBusOverView,
                                     ReportScanBusStage, ReportScanAttributeInfo>;
using BusinessNotifications = MethodList<ReportBusStatus, ReportBusProgress>;
using ConsoleNotifications = decltype(ScanNotifications() + BusinessNotifications());

/// The same table as data, in its order.
const std::vector<MethodRow>& consoleNotifications();

}  // namespace jsonrpchelper
