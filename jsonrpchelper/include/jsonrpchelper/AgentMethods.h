#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "json/Members.h"
#include "jsonrpchelper/MethodTable.h"

/// The wire protocol from console to agent: every method of the agent is declared here and nowhere else. The
/// console calls through AgentStub; the agent serves through IAgentAbstract. MethodTable.h explains the form.
///
/// Several methods share these parameters. ctx is the caller's context object, which comes back in
/// reportBusStatus. desc and detail are free descriptions. source and request_source name the kind of caller.
/// token_id names a task.
namespace jsonrpchelper {

/// Starts a scan. params: JsonReflect::ScanParams.
struct StartScanTask {
  static constexpr const char* kName = "startScanTask";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = JsonObject;

  Json::Value ctx;
  std::string desc;
  Json::Value params;
  std::int32_t source;
  std::string token_id;

  JSON_MEMBERS(ctx, desc, params, source, token_id);
};

/// Stops, pauses or resumes a scan that the caller may see.
struct CtlBus {
  static constexpr const char* kName = "ctlBus";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = bool;

  std::int32_t action;
  std::string detail;
  std::int32_t mark;
  Json::Value payload;
  std::int32_t source;
  std::string token_id;

  JSON_MEMBERS(action, detail, mark, payload, source, token_id);
};

/// The scans that the caller may see.
struct GetBusList : NoParameters {
  static constexpr const char* kName = "getBusList";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = JsonArray;
};

/// A settings document, as JSON text.
struct GetAVConfig {
  static constexpr const char* kName = "getAVConfig";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = std::string;

  std::int32_t config_type;
  std::int32_t request_source;

  JSON_MEMBERS(config_type, request_source);
};

/// Changes settings. config_str: JSON text.
struct SetAVConfig {
  static constexpr const char* kName = "setAVConfig";
  static constexpr Access kAccess = Access::kAdministrators;
  using Result = bool;

  std::string config_str;
  std::int32_t config_type;
  std::int32_t request_source;

  JSON_MEMBERS(config_str, config_type, request_source);
};

/// Restores from the quarantine. params: JsonReflect::DeIsolateParams.
struct StartDeIsolate {
  static constexpr const char* kName = "startDeIsolate";
  static constexpr Access kAccess = Access::kMembers;
  using Result = JsonObject;

  Json::Value ctx;
  std::string desc;
  Json::Value params;
  std::int32_t source;
  std::string token_id;

  JSON_MEMBERS(ctx, desc, params, source, token_id);
};

/// The quarantined items that the caller may see: JsonReflect::IsolationItem.
struct GetIsolationInfo : NoParameters {
  static constexpr const char* kName = "getIsolationInfo";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = JsonArray;
};

/// Changes the trust or the reject list.
struct CtlRegion {
  static constexpr const char* kName = "ctlRegion";
  static constexpr Access kAccess = Access::kAdministrators;
  using Result = bool;

  std::string desc;
  Json::Value items;
  std::int32_t region_type;
  std::int32_t source;

  JSON_MEMBERS(desc, items, region_type, source);
};

/// Entries of the trust or the reject list: JsonReflect::FilterRegionItem.
struct GetRegionInfo {
  static constexpr const char* kName = "getRegionInfo";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = JsonArray;

  std::int32_t domain;
  std::int32_t item_type;
  std::int32_t region_type;

  JSON_MEMBERS(domain, item_type, region_type);
};

/// Empties the scan cache. The caller gets no answer.
struct CleanScanCache : NoParameters {
  static constexpr const char* kName = "cleanScanCache";
  static constexpr Access kAccess = Access::kAdministrators;
  using Result = void;
};

/// The number of entries in the scan cache.
struct GetScanCacheDetail : NoParameters {
  static constexpr const char* kName = "getScanCacheDetail";
  static constexpr Access kAccess = Access::kEverybody;
  using Result = std::int32_t;
};

using AgentMethods =
    MethodList<StartScanTask, CtlBus, GetBusList, GetAVConfig, SetAVConfig, StartDeIsolate, GetIsolationInfo,
               CtlRegion, GetRegionInfo, CleanScanCache, GetScanCacheDetail>;

/// The same table as data, in its order.
const std::vector<MethodRow>& agentMethods();

}  // namespace jsonrpchelper
