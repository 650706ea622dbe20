#include "service/AgentService.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/Values.h"
#include "platform/Text.h"
#include "service/Callers.h"
#include "service/ServiceLimits.h"
#include "store/AuditLog.h"
#include "task/AgentLog.h"

namespace agent {

namespace {

using namespace jsonrpchelper;

/// The names of methods in the log and in the audit record.
constexpr std::pair<std::string_view, const char*> kActions[] = {
    {CtlBus::kName, "control scan"},
    {SetAVConfig::kName, "change settings"},
    {StartDeIsolate::kName, "restore"},
    {CtlRegion::kName, "change region"},
    {CleanScanCache::kName, "clean scan cache"},
};

std::string actionOf(std::string_view method) {
  const auto* const row = std::find_if(std::begin(kActions), std::end(kActions),
                                       [method](const auto& action) { return action.first == method; });
  return row != std::end(kActions) ? row->second : std::string(method);
}

CallerId currentCallerId() {
  return callerIdOf(currentCaller().process);
}

std::string compact(const Json::Value& value) {
  std::string text;
  CppJson::WriteJsonToString(value, text, 1);
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

std::string noSettings(int configType) {
  return "there are no settings of type " + std::to_string(configType);
}

/// The answer to a restore, without refused items.
Json::Value restoreAnswer() {
  Json::Value answer(Json::objectValue);
  answer["status"] = false;
  answer["token_id"] = CUuid::generate();
  answer["detail"] = Json::Value(Json::arrayValue);
  return answer;
}

void addRefusedItem(Json::Value& answer, const std::string& uuid, const std::string& reason) {
  Json::Value entry(Json::objectValue);
  entry["uuid"] = uuid;
  entry["reason"] = reason;
  answer["detail"].append(entry);
}

}  // namespace

AgentService::AgentService(IJsonRpcServerHelper& helper, Store& store, TaskManager& tasks,
                           std::optional<gid_t> group)
    : IAgentAbstract(helper), store_(store), tasks_(tasks), group_(group) {
  helper.limitTo(requestLimitsOf);
}

std::optional<Json::Value> AgentService::refusal(Access access, const std::string& method) {
  if (access == Access::kEverybody) {
    return std::nullopt;
  }
  const CallerId caller = currentCallerId();
  if (access == Access::kMembers ? isMember(caller, group_) : isAdministrator(caller)) {
    return std::nullopt;
  }
  const std::string action = actionOf(method);
  AGENT_LOG_OF(caller.uid, LogLevel::kError, "%s refused to user %u (process %d)", action.c_str(), caller.uid,
               caller.pid);
  store_.auditRefusal(caller, action, "", "refused: not allowed");
  if (method != StartDeIsolate::kName) {
    return Json::Value(false);
  }
  Json::Value answer = restoreAnswer();
  addRefusedItem(answer, "", "not allowed: only root, the agent's user and members of the group may restore");
  return answer;
}

bool AgentService::changed(const CallerId& caller, const char* method, const std::string& object,
                           const platform::Expected<void>& outcome) {
  const std::string action = actionOf(method);
  AGENT_LOG_OF(caller.uid, outcome ? LogLevel::kInfo : LogLevel::kError, "%s by user %u (process %d): %s: %s",
               action.c_str(), caller.uid, caller.pid, store::cutField(object).c_str(),
               outcome ? "done" : store::cutField(outcome.error()).c_str());
  if (outcome) {
    store_.audit(caller, action, object, "done");
  } else {
    store_.auditRefusal(caller, action, object, "refused: " + outcome.error());
  }
  return outcome.has_value();
}

JsonObject AgentService::startScanTask(const StartScanTask& request) {
  const Caller from = currentCaller();
  const TaskManager::Started started = tasks_.start(
      {request.ctx, request.params, request.source, {from.guid, from.process}, callerIdOf(from.process)});
  Json::Value answer(Json::objectValue);
  answer["status"] = started.outcome.has_value();
  answer["token_id"] = started.token;
  answer["detail"] = started.outcome ? "" : platform::visibleText(started.outcome.error());
  return answer;
}

bool AgentService::ctlBus(const CtlBus& request) {
  const CallerId caller = currentCallerId();
  return changed(caller, request.kName, request.token_id + " action " + std::to_string(request.action),
                 tasks_.control(request.action, request.token_id, request.detail, caller));
}

JsonArray AgentService::getBusList(const GetBusList& /*request*/) {
  return tasks_.list(currentCallerId());
}

std::string AgentService::getAVConfig(const GetAVConfig& request) {
  const auto known = json::fromNumber<json::ConfigType>(request.config_type);
  if (!known) {
    throw std::runtime_error(noSettings(request.config_type));
  }
  return compact(store_.settings().document(*known));
}

bool AgentService::setAVConfig(const SetAVConfig& request) {
  const auto known = json::fromNumber<json::ConfigType>(request.config_type);
  const platform::Expected<void> done = known ? store_.settings().change(*known, request.config_str)
                                              : platform::failure(noSettings(request.config_type));
  return changed(currentCallerId(), request.kName,
                 "type " + std::to_string(request.config_type) + " " + request.config_str, done);
}

JsonObject AgentService::startDeIsolate(const StartDeIsolate& request) {
  const CallerId caller = currentCallerId();
  Json::Value answer = restoreAnswer();
  JsonReflect::DeIsolateParams params;
  const bool readable = request.params.isObject() && params.FromValue(request.params);
  const auto action = json::fromNumber<json::RestoreAction>(params.action);
  if (!readable || !action || (params.items.empty() && !params.is_all)) {
    const std::string reason = "the request names no action (1 restore, 2 restore and trust) or no item";
    changed(caller, request.kName, "", platform::failure(reason));
    addRefusedItem(answer, "", reason);
    return answer;
  }
  const bool trust = *action == json::RestoreAction::kRestoreAndTrust;
  if (trust && !isAdministrator(caller)) {
    const std::string reason = "not allowed: only root and the agent's user may add to the trust list";
    changed(caller, request.kName, "with trust", platform::failure(reason));
    addRefusedItem(answer, "", reason);
    return answer;
  }
  const auto outcomes = store_.quarantine().restore(params.items, params.is_all, trust,
                                                    json::decodePath(params.custom_path), caller);
  bool all = true;
  for (const store::Quarantine::RestoreOutcome& outcome : outcomes) {
    if (!changed(caller, request.kName, outcome.uuid, outcome.result.map([](const Remark&) {}))) {
      all = false;
      addRefusedItem(answer, outcome.uuid, outcome.result.error());
    }
  }
  answer["status"] = all;
  return answer;
}

JsonArray AgentService::getIsolationInfo(const GetIsolationInfo& /*request*/) {
  const CallerId caller = currentCallerId();
  return store_.quarantine().list(isAdministrator(caller) ? std::nullopt : std::optional<uid_t>(caller.uid));
}

bool AgentService::ctlRegion(const CtlRegion& request) {
  const CallerId caller = currentCallerId();
  const auto region = json::fromNumber<json::Region>(request.region_type);
  const platform::Expected<void> done =
      region ? store_.regions().change(*region, request.items, caller)
             : platform::failure("there is no region " + std::to_string(request.region_type));
  return changed(
      caller, request.kName,
      "type " + std::to_string(request.region_type) + " " + compact(request.items) + " " + request.desc,
      done);
}

JsonArray AgentService::getRegionInfo(const GetRegionInfo& request) {
  const auto domain = json::fromNumber<json::RegionDomain>(request.domain);
  const auto type = json::fromNumber<json::RegionItemType>(request.item_type);
  const auto region = json::fromNumber<json::Region>(request.region_type);
  return domain && type && region
             ? store_.regions().list(*domain, *type, *region, isAdministrator(currentCallerId()))
             : Json::Value(Json::arrayValue);
}

void AgentService::cleanScanCache(const CleanScanCache& request) {
  store_.cache().clear();
  changed(currentCallerId(), request.kName, "", {});
}

std::int32_t AgentService::getScanCacheDetail(const GetScanCacheDetail& /*request*/) {
  return static_cast<std::int32_t>(std::min<std::int64_t>(store_.cache().count(), INT32_MAX));
}

}  // namespace agent
