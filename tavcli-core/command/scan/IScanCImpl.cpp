#include "command/scan/IScanCImpl.h"

#include "command/scan/BatchReport.h"
#include "command/scan/ScanDisplay.h"
#include "command/scan/ScanRunState.h"
#include "json/ScanRecords.h"
#include "lineeditor/Notices.h"
#include "platform/Text.h"

namespace {

constexpr int kBusinessScan = 0;
constexpr int kRiskOfFile = 5;
constexpr int kRiskOfProcess = 3;

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

void IScanCImpl::reportRiskInfo(int business_type, int /*fix_method*/, const Json::Value& risk_info,
                                int risk_info_type, const std::string& /*token_id*/) {
  JsonReflect::VirusInfo risk;
  if (!unattended() && business_type == kBusinessScan && risk_info_type == kRiskOfFile &&
      risk.FromValue(risk_info)) {
    lineeditor::printNotice(scandisplay::riskLines(risk));
  }
}

void IScanCImpl::reportRiskFixInfo(int business_type, int /*fix_method*/, const Json::Value& risk_info,
                                   int risk_info_type, const Json::Value& risk_repair_result,
                                   const std::string& /*token_id*/) {
  if (business_type != kBusinessScan) {
    return;
  }
  if (risk_info_type == kRiskOfFile) {
    showFileRepair(risk_info, risk_repair_result);
  } else if (risk_info_type == kRiskOfProcess) {
    showProcessRepair(risk_info, risk_repair_result);
  }
}

void IScanCImpl::reportScanBusOverView(const Json::Value& overview, const std::string& /*token_id*/) {
  JsonReflect::ScanBusOverView counters;
  if (!counters.FromValue(overview)) {
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

void IScanCImpl::reportScanBusStage(const std::string& /*datail*/, int stage,
                                    const std::string& /*token_id*/) {
  if (const std::string lines = scandisplay::stageLines(stage); !unattended() && !lines.empty()) {
    lineeditor::printNotice(lines);
  }
}

void IScanCImpl::reportScanAttributeInfo(const Json::Value& /*payload*/, int /*source*/,
                                         const std::string& /*token_id*/) {}
