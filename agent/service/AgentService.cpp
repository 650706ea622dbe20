#include "service/AgentService.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "platform/Text.h"
#include "service/Callers.h"
#include "store/AuditLog.h"
#include "task/AgentLog.h"

namespace agent {

namespace {

CallerId whoAsks() {
  return callerIdOf(jsonrpchelper::currentCaller().process);
}

std::string compact(const Json::Value& value) {
  std::string text;
  CppJson::WriteJsonToString(value, text, 1);
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

std::string freshToken() {
  std::string token;
  CUuid::generate(token);
  return token;
}

}  // namespace

AgentService::AgentService(jsonrpchelper::IJsonRpcServerHelper& helper, Store& store, TaskManager& tasks,
                           std::optional<gid_t> group)
    : IAgentAbstract(helper), store_(store), tasks_(tasks), group_(group) {}

bool AgentService::allowed(const CallerId& caller, const char* action) {
  if (mayChange(caller, group_)) {
    return true;
  }
  AGENT_LOG(4, "%s refused to user %u (process %d)", action, caller.uid, caller.pid);
  store_.audit(caller, action, "", "refused: not allowed");
  return false;
}

bool AgentService::changed(const CallerId& caller, const char* action, const std::string& object, bool ok,
                           const std::string& why) {
  AGENT_LOG(ok ? 2 : 4, "%s by user %u (process %d): %s: %s", action, caller.uid, caller.pid,
            store::cutField(object).c_str(), ok ? "done" : store::cutField(why).c_str());
  store_.audit(caller, action, object, ok ? "done" : "refused: " + why);
  return ok;
}

Json::Value AgentService::startScanTask(const Json::Value& ctx, const std::string&, const Json::Value& params,
                                        int source, const std::string&) {
  const jsonrpchelper::Caller from = jsonrpchelper::currentCaller();
  const TaskManager::StartRequest request{
      ctx, params, source, {from.guid, from.process}, callerIdOf(from.process)};
  const TaskManager::Started started = tasks_.start(request);
  Json::Value answer(Json::objectValue);
  answer["status"] = started.ok;
  answer["token_id"] = started.token;
  answer["detail"] = platform::visibleText(started.detail);
  return answer;
}

bool AgentService::ctlBus(int action, const std::string& detail, int, const Json::Value&, int,
                          const std::string& token_id) {
  const CallerId caller = whoAsks();
  std::string why;
  const bool done = tasks_.control(action, token_id, detail, caller, &why);
  return changed(caller, "control scan", token_id + " action " + std::to_string(action), done, why);
}

Json::Value AgentService::getBusList() {
  return tasks_.list(whoAsks());
}

std::string AgentService::getAVConfig(int config_type, int) {
  const std::optional<Json::Value> document = store_.settings().document(config_type);
  if (!document) {
    throw std::runtime_error("there are no settings of type " + std::to_string(config_type));
  }
  return compact(*document);
}

bool AgentService::setAVConfig(const std::string& config_str, int config_type, int) {
  const CallerId caller = whoAsks();
  if (!allowed(caller, "change settings")) {
    return false;
  }
  std::string why;
  const bool done = store_.settings().change(config_type, config_str, &why);
  return changed(caller, "change settings", "type " + std::to_string(config_type) + " " + config_str, done,
                 why);
}

Json::Value AgentService::startDeIsolate(const Json::Value&, const std::string&, const Json::Value& params,
                                         int, const std::string&) {
  const CallerId caller = whoAsks();
  Json::Value answer(Json::objectValue);
  answer["status"] = false;
  answer["token_id"] = freshToken();
  answer["detail"] = Json::Value(Json::arrayValue);
  const auto refuse = [&](const std::string& uuid, const std::string& reason) {
    Json::Value entry(Json::objectValue);
    entry["uuid"] = uuid;
    entry["reason"] = platform::visibleText(reason);
    answer["detail"].append(entry);
  };
  JsonReflect::DeIsolateParams request;
  if (!allowed(caller, "restore")) {
    refuse("", "not allowed");
    return answer;
  }
  if (!params.isObject() || !request.FromValue(params) || request.action < 1 || request.action > 2 ||
      (request.items.empty() && !request.is_all)) {
    refuse("", "the request names no action (1 restore, 2 restore and trust) or no item");
    return answer;
  }
  const auto outcomes = store_.quarantine().restore(request.items, request.is_all, request.action == 2,
                                                    json::decodePath(request.custom_path), caller);
  bool all = true;
  for (const Quarantine::RestoreOutcome& outcome : outcomes) {
    changed(caller, "restore", outcome.uuid, outcome.result.ok, outcome.result.detail);
    if (!outcome.result.ok) {
      all = false;
      refuse(outcome.uuid, outcome.result.detail);
    }
  }
  answer["status"] = all;
  return answer;
}

Json::Value AgentService::getIsolationInfo() {
  const CallerId caller = whoAsks();
  return store_.quarantine().list(isAdministrator(caller) ? std::nullopt : std::optional<uid_t>(caller.uid));
}

bool AgentService::ctlRegion(const std::string& desc, const Json::Value& items, int region_type, int) {
  const CallerId caller = whoAsks();
  if (!allowed(caller, "change region")) {
    return false;
  }
  std::string why;
  const bool done = store_.regions().change(region_type, items, caller, &why);
  return changed(caller, "change region",
                 "type " + std::to_string(region_type) + " " + compact(items) + " " + desc, done, why);
}

Json::Value AgentService::getRegionInfo(int domain, int item_type, int region_type) {
  return store_.regions().list(domain, item_type, region_type);
}

void AgentService::cleanScanCache() {
  const CallerId caller = whoAsks();
  if (allowed(caller, "clean scan cache")) {
    store_.cache().clear();
    changed(caller, "clean scan cache", "", true, "");
  }
}

int AgentService::getScanCacheDetail() {
  return static_cast<int>(std::min<std::int64_t>(store_.cache().count(), INT32_MAX));
}

}  // namespace agent
