#pragma once

#include <string>

#include "json/Values.h"
#include "support/InstallTree.h"
#include "support/LunetctlPeer.h"

namespace testsupport {

/// The agent of an install tree, played by hand. Needs the lunetctl target built.
class LunetctlAgent : public LunetctlPeer {
 public:
  explicit LunetctlAgent(const InstallTree& tree, const char* address = kAgentAddress)
      : LunetctlPeer(std::string(TAV_BIN_DIR) + "/lunetctl", tree.path(), address) {}

  /// Sends a notification to the console; the bus's error number.
  Json::Value::UInt notify(const std::string& method, const Json::Value& params) {
    return LunetctlPeer::notify(kConsoleAddress, method, params);
  }

  // The notifications of a scan task.
  void state(json::TaskState state, const std::string& detail = "", const std::string& token = "token",
             json::BusinessType type = json::BusinessType::kScan) {
    Json::Value params;
    params["ctx"] = Json::objectValue;
    params["detail"] = detail;
    params["params"] = Json::objectValue;
    params["source"] = json::toNumber(json::RequestSource::kConsole);
    params["state"] = json::toNumber(state);
    params["token_id"] = token;
    params["type"] = json::toNumber(type);
    notify("reportBusStatus", params);
  }
  void progress(int percent) {
    Json::Value params;
    params["progress"] = percent;
    params["token_id"] = "token";
    notify("reportBusProgress", params);
  }
  void overview(int checked, int found, const std::string& current = "", int failed = 0) {
    Json::Value params;
    params["overview"]["failed_item_count"] = failed;
    params["overview"]["checked_item_count"] = checked;
    params["overview"]["checkout_risk_count"] = found;
    params["overview"]["cur_item"] = current;
    params["token_id"] = "token";
    notify("reportScanBusOverView", params);
  }
  void repair(const std::string& item, const std::string& name, int size, json::HandleResult result) {
    Json::Value params;
    params["business_type"] = json::toNumber(json::BusinessType::kScan);
    params["fix_method"] = json::toFixMethod(json::Handling::kReportOnly);
    params["risk_info"]["item"] = item;
    params["risk_info"]["risk_name"] = name;
    params["risk_info"]["filesize_src"] = size;
    params["risk_info_type"] = json::toNumber(json::RiskInfoType::kFile);
    params["risk_repair_result"]["handle_result"] = json::toNumber(result);
    params["token_id"] = "token";
    notify("reportRiskFixInfo", params);
  }

  /// Serves the start of an unattended scan; returns the scan's request record.
  Json::Value acceptScan(int fixMethod = json::toFixMethod(json::Handling::kReportOnly)) {
    Json::Value settings;
    settings["Common"]["FixMethod"] = fixMethod;
    answer(waitForCall("getAVConfig"), jsonText(settings));
    const Message start = waitForCall("startScanTask");
    Json::Value result;
    result["status"] = true;
    answer(start, result);
    return start.params["params"];
  }
};

}  // namespace testsupport
