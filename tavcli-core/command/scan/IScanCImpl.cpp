#include "command/scan/IScanCImpl.h"

#include <optional>

#include "command/scan/BatchReport.h"
#include "command/scan/ScanDisplay.h"
#include "command/scan/ScanRunState.h"
#include "json/ScanRecords.h"
#include "json/Values.h"
#include "lineeditor/Notices.h"
#include "platform/Text.h"

namespace {

/// Nothing for a notification of another business than scans.
std::optional<json::RiskInfoType> riskTypeOf(int businessType, int riskInfoType) {
  return json::fromNumber<json::BusinessType>(businessType) == json::BusinessType::kScan
             ? json::fromNumber<json::RiskInfoType>(riskInfoType)
             : std::nullopt;
}

bool unattended() {
  return ScanRunState::instance().batch_mode() == 1;
}

void showFileRepair(const Json::Value& riskInfo, const Json::Value& repairResult) {
  JsonReflect::VirusInfo risk;
  JsonReflect::RiskRepairResult repair;
  if (!risk.FromValue(riskInfo) || !repair.FromValue(repairResult)) {
    return;
  }
  if (unattended()) {
    ScanRunState::instance().updateResult(
        [&](Json::Value& document) { batchreport::addDetection(document, risk, repair); });
  } else {
    lineeditor::printNotice(scandisplay::fileRepairLines(risk, repair));
  }
}

void showProcessRepair(const Json::Value& riskInfo, const Json::Value& repairResult) {
  JsonReflect::MemoryRiskInfo risk;
  JsonReflect::RiskRepairResult repair;
  if (risk.FromValue(riskInfo) && repair.FromValue(repairResult) && !unattended()) {
    lineeditor::printNotice(scandisplay::processRepairLines(risk, repair));
  }
}

}  // namespace

void IScanCImpl::reportRiskInfo(const jsonrpchelper::ReportRiskInfo& report) {
  JsonReflect::VirusInfo risk;
  if (!unattended() && riskTypeOf(report.business_type, report.risk_info_type) == json::RiskInfoType::kFile &&
      risk.FromValue(report.risk_info)) {
    lineeditor::printNotice(scandisplay::riskLines(risk));
  }
}

void IScanCImpl::reportRiskFixInfo(const jsonrpchelper::ReportRiskFixInfo& report) {
  const auto type = riskTypeOf(report.business_type, report.risk_info_type);
  if (type == json::RiskInfoType::kFile) {
    showFileRepair(report.risk_info, report.risk_repair_result);
  } else if (type == json::RiskInfoType::kProcess) {
    showProcessRepair(report.risk_info, report.risk_repair_result);
  }
}

void IScanCImpl::reportScanBusOverView(const jsonrpchelper::ReportScanBusOverView& report) {
  JsonReflect::ScanBusOverView counters;
  if (!counters.FromValue(report.overview)) {
    return;
  }
  if (unattended()) {
    ScanRunState::instance().updateResult(
        [&](Json::Value& document) { batchreport::addOverview(document, counters, CDateTime::now()); });
    ScanRunState::instance().set_failed_items(counters.failed_item_count);
  } else {
    lineeditor::printNotice(scandisplay::overviewLines(counters));
  }
}

void IScanCImpl::reportScanBusStage(const jsonrpchelper::ReportScanBusStage& report) {
  if (const std::string lines = scandisplay::stageLines(report.stage); !unattended() && !lines.empty()) {
    lineeditor::printNotice(lines);
  }
}

void IScanCImpl::reportScanAttributeInfo(const jsonrpchelper::ReportScanAttributeInfo& /*report*/) {}
