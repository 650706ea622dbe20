#include "ByName.h"

#include <gtest/gtest.h>

namespace rpctest {

using jsonrpchelper::AgentStub;
using jsonrpchelper::ConsoleNotifier;

Json::Value callStub(AgentStub& stub, const std::string& name, const Json::Value& p) {
  const auto text = [&](const char* key) { return p[key].asString(); };
  const auto number = [&](const char* key) { return p[key].asInt(); };
  if (name == "startScanTask") {
    return stub.startScanTask(p["ctx"], text("desc"), p["params"], number("source"), text("token_id"));
  }
  if (name == "ctlBus") {
    return stub.ctlBus(number("action"), text("detail"), number("mark"), p["payload"], number("source"),
                       text("token_id"));
  }
  if (name == "getBusList") {
    return stub.getBusList();
  }
  if (name == "getAVConfig") {
    return stub.getAVConfig(number("config_type"), number("request_source"));
  }
  if (name == "setAVConfig") {
    return stub.setAVConfig(text("config_str"), number("config_type"), number("request_source"));
  }
  if (name == "startDeIsolate") {
    return stub.startDeIsolate(p["ctx"], text("desc"), p["params"], number("source"), text("token_id"));
  }
  if (name == "getIsolationInfo") {
    return stub.getIsolationInfo();
  }
  if (name == "ctlRegion") {
    return stub.ctlRegion(text("desc"), p["items"], number("region_type"), number("source"));
  }
  if (name == "getRegionInfo") {
    return stub.getRegionInfo(number("domain"), number("item_type"), number("region_type"));
  }
  if (name == "getScanCacheDetail") {
    return stub.getScanCacheDetail();
  }
  EXPECT_EQ(name, "cleanScanCache");
  stub.cleanScanCache();
  return {};
}

std::uint32_t notify(ConsoleNotifier& to, const std::string& name, const Json::Value& p) {
  const auto text = [&](const char* key) { return p[key].asString(); };
  const auto number = [&](const char* key) { return p[key].asInt(); };
  if (name == "reportRiskInfo") {
    return to.reportRiskInfo(number("business_type"), number("fix_method"), p["risk_info"],
                             number("risk_info_type"), text("token_id"));
  }
  if (name == "reportRiskFixInfo") {
    return to.reportRiskFixInfo(number("business_type"), number("fix_method"), p["risk_info"],
                                number("risk_info_type"), p["risk_repair_result"], text("token_id"));
  }
  if (name == "reportScanBusOverView") {
    return to.reportScanBusOverView(p["overview"], text("token_id"));
  }
  if (name == "reportScanBusStage") {
    return to.reportScanBusStage(text("datail"), number("stage"), text("token_id"));
  }
  if (name == "reportScanAttributeInfo") {
    return to.reportScanAttributeInfo(p["payload"], number("source"), text("token_id"));
  }
  if (name == "reportBusStatus") {
    return to.reportBusStatus(p["ctx"], text("detail"), p["params"], number("source"), number("state"),
                              text("token_id"), number("type"));
  }
  EXPECT_EQ(name, "reportBusProgress");
  return to.reportBusProgress(number("progress"), text("token_id"));
}

}  // namespace rpctest
