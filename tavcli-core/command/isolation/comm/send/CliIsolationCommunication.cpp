#include "command/isolation/comm/send/CliIsolationCommunication.h"

#include "command/AgentRequest.h"
#include "command/ListText.h"
#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/Values.h"
#include "platform/Text.h"

namespace {

constexpr const char* kSource = "command/isolation/comm/send/CliIsolationCommunication";

std::string itemText(const JsonReflect::IsolationItem& item) {
  std::string text;
  command::appendField(text, "UID标识", json::visiblePath(item.uuid));
  command::appendField(text, "隔离时间", CDateTime::format(item.isolate_time));
  command::appendField(text, "文件路径", json::visiblePath(item.filepath_src));
  command::appendField(text, "文件大小", std::to_string(item.size) + "字节");
  command::appendField(text, "风险项名称", json::visiblePath(item.virus_name));
  command::appendField(text, "检出引擎", json::engineName(item.engine_type));
  command::appendField(text, "风险类型", json::visiblePath(item.risk_type_name));
  return text.append(command::kItemRule);
}

}  // namespace

int CliIsolationCommunication::action_isolationreport() {
  return command::askAgent({kSource, __func__, __LINE__}, 0, [](jsonrpchelper::AgentStub& agent) {
    const Json::Value items = agent.call(jsonrpchelper::GetIsolationInfo{});
    for (const Json::Value& element : items) {
      JsonReflect::IsolationItem item;
      if (element.isObject() && item.FromValue(element)) {
        command::printText(itemText(item));
      }
    }
    // Elements that were not printed count, too: they are in the quarantine.
    command::printText("\n隔离区当前存在 " + std::to_string(items.size()) + " 项\n");
    return 1;
  });
}

int CliIsolationCommunication::action_isolationrestore(const std::vector<std::string>& item_ids,
                                                       std::int32_t notrust) {
  return command::askAgent({kSource, __func__, __LINE__}, 0, [&](jsonrpchelper::AgentStub& agent) {
    JsonReflect::DeIsolateParams params;
    params.action =
        json::toNumber(notrust != 0 ? json::RestoreAction::kRestore : json::RestoreAction::kRestoreAndTrust);
    params.is_all = false;
    for (const std::string& id : item_ids) {
      params.items.push_back(json::encodePath(id));
    }
    Json::Value request;
    if (!params.ToValue(request)) {
      return 0;
    }
    const Json::Value answer = agent.call(jsonrpchelper::StartDeIsolate{
        .ctx = {}, .desc = "", .params = request, .source = command::kFromConsole, .token_id = ""});
    return CppJson::readBool(answer, "status", false) ? 1 : 0;
  });
}
