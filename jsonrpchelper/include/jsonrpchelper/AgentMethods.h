#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "jsonrpchelper/Declarations.h"
#include "jsonrpchelper/JsonRpcCpp.h"

/// The wire protocol between console and agent: the one table of the agent's methods and of the notifications
/// it sends. Client stubs (AgentStub, ConsoleNotifier) and servers (AgentServer.h, ScanServers.h) of both
/// sides are made from it. The order of the parameters is that of the C++ arguments; on the wire they go by
/// name.
namespace jsonrpchelper {

// clang-format off

/// Console to agent.
inline constexpr auto kStartScanTask = method<JsonKind::kObject>("startScanTask",
    any("ctx"), string("desc"), any("params"), integer("source"), string("token_id"));
inline constexpr auto kCtlBus = method<JsonKind::kBoolean>("ctlBus",
    integer("action"), string("detail"), integer("mark"), any("payload"), integer("source"), string("token_id"));
inline constexpr auto kGetBusList = method<JsonKind::kArray>("getBusList");
inline constexpr auto kGetAVConfig = method<JsonKind::kString>("getAVConfig",
    integer("config_type"), integer("request_source"));
inline constexpr auto kSetAVConfig = method<JsonKind::kBoolean>("setAVConfig",
    string("config_str"), integer("config_type"), integer("request_source"));
inline constexpr auto kStartDeIsolate = method<JsonKind::kObject>("startDeIsolate",
    any("ctx"), string("desc"), any("params"), integer("source"), string("token_id"));
inline constexpr auto kGetIsolationInfo = method<JsonKind::kArray>("getIsolationInfo");
inline constexpr auto kCtlRegion = method<JsonKind::kBoolean>("ctlRegion",
    string("desc"), any("items"), integer("region_type"), integer("source"));
inline constexpr auto kGetRegionInfo = method<JsonKind::kArray>("getRegionInfo",
    integer("domain"), integer("item_type"), integer("region_type"));
inline constexpr auto kCleanScanCache = notification("cleanScanCache");
inline constexpr auto kGetScanCacheDetail = method<JsonKind::kInteger>("getScanCacheDetail");

/// Agent to console. "datail" is the protocol's own spelling.
inline constexpr auto kReportRiskInfo = notification("reportRiskInfo",
    integer("business_type"), integer("fix_method"), object("risk_info"), integer("risk_info_type"),
    string("token_id"));
inline constexpr auto kReportRiskFixInfo = notification("reportRiskFixInfo",
    integer("business_type"), integer("fix_method"), object("risk_info"), integer("risk_info_type"),
    object("risk_repair_result"), string("token_id"));
inline constexpr auto kReportScanBusOverView = notification("reportScanBusOverView",
    object("overview"), string("token_id"));
inline constexpr auto kReportScanBusStage = notification("reportScanBusStage",
    string("datail"), integer("stage"), string("token_id"));
inline constexpr auto kReportScanAttributeInfo = notification("reportScanAttributeInfo",
    object("payload"), integer("source"), string("token_id"));
inline constexpr auto kReportBusStatus = notification("reportBusStatus",
    object("ctx"), string("detail"), object("params"), integer("source"), integer("state"), string("token_id"),
    integer("type"));
inline constexpr auto kReportBusProgress = notification("reportBusProgress",
    integer("progress"), string("token_id"));

// clang-format on

/// The same tables as data, in their order.
const std::vector<MethodRow>& agentMethods();
const std::vector<MethodRow>& consoleNotifications();

/// What a stub throws for a result of another kind than declared: ERROR_CLIENT_INVALID_RESPONSE with the
/// result's indented text. The type tells it from an error answer of the agent and from a garbled answer,
/// which may carry the same number.
class ResultOfAnotherKind : public jsonrpc::JsonRpcException {
 public:
  explicit ResultOfAnotherKind(const Json::Value& result);
};

/// The agent's methods as the console calls them. Every operation throws jsonrpc::JsonRpcException and
/// nothing else: for a failure of the link, for the agent's error answer, and (ResultOfAnotherKind) for a
/// result of another kind than declared. Blocks up to the client's time-out, cleanScanCache not at all. As
/// thread-safe as the client.
class AgentStub {
 public:
  explicit AgentStub(jsonrpc::Client& client) : client_(client) {}

  Json::Value startScanTask(const Json::Value& ctx, const std::string& desc, const Json::Value& params,
                            int source, const std::string& token_id);
  bool ctlBus(int action, const std::string& detail, int mark, const Json::Value& payload, int source,
              const std::string& token_id);
  Json::Value getBusList();
  std::string getAVConfig(int config_type, int request_source);
  bool setAVConfig(const std::string& config_str, int config_type, int request_source);
  Json::Value startDeIsolate(const Json::Value& ctx, const std::string& desc, const Json::Value& params,
                             int source, const std::string& token_id);
  Json::Value getIsolationInfo();
  bool ctlRegion(const std::string& desc, const Json::Value& items, int region_type, int source);
  Json::Value getRegionInfo(int domain, int item_type, int region_type);
  void cleanScanCache();
  int getScanCacheDetail();

 private:
  jsonrpc::Client& client_;
};

}  // namespace jsonrpchelper
