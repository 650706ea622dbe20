#include "command/trustregion/comm/send/CliTrustRegionCommunication.h"

#include "command/AgentRequest.h"
#include "command/ListText.h"
#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "platform/Text.h"

namespace {

constexpr const char* kSource = "command/trustregion/comm/send/CliTrustRegionCommunication";
constexpr const char* kUnknown = "未知";
constexpr int kFromConsole = 1;
constexpr int kEveryDomain = 4;
constexpr int kPersonalDomain = 0;

enum Region : std::int32_t { kTrust = 0, kReject = 1 };
constexpr const char* kBehaviours[] = {"信任", "否决"};

constexpr std::int32_t kItemTypeCount = 7;
constexpr const char* kItemTypes[kItemTypeCount] = {"文件路径", "文件夹",   "后缀名",    "文件MD5",
                                                    "文件名",   "文件SHA1", "文件SHA256"};

struct Query {
  Region region;
  std::int32_t itemType;
};
constexpr Query kQueries[] = {
    {kTrust, 0}, {kTrust, 1},  {kTrust, 2},  {kTrust, 3},  {kTrust, 6},  {kTrust, 4},
    {kTrust, 5}, {kReject, 3}, {kReject, 5}, {kReject, 6}, {kReject, 4},
};

const char* stateName(std::int32_t state) {
  return state == 0 ? "有效" : state == 1 ? "永久有效" : "无效";
}

const char* domainName(std::int32_t domain) {
  return domain == 0 ? "个人" : domain == 1 ? "全局" : kUnknown;
}

const char* itemTypeName(std::int32_t type) {
  return type >= 0 && type < kItemTypeCount ? kItemTypes[type] : kUnknown;
}

std::string itemText(const JsonReflect::FilterRegionItem& item, Region region) {
  std::string text;
  command::appendField(text, "时间", CDateTime::format(item.add_time));
  command::appendField(text, "项", json::visiblePath(item.item));
  command::appendField(text, "项大小", std::to_string(item.file_size) + "字节");
  command::appendField(text, "状态", stateName(item.valid_statue));
  command::appendField(text, "属性", domainName(item.domain));
  command::appendField(text, "类型", itemTypeName(item.item_type));
  command::appendField(text, "行为", kBehaviours[region]);
  return text.append(command::kItemRule);
}

void printItems(const Json::Value& items, Region region) {
  for (const Json::Value& element : items) {
    JsonReflect::FilterRegionItem item;
    if (element.isObject() && item.FromValue(element)) {
      command::printText(itemText(item, region));
    }
  }
}

/// An answer that is no list is logged and counts as an empty one; any other failure, the agent's own error
/// included, ends the report.
Json::Value askRegion(jsonrpchelper::AgentStub& agent, const Query& query,
                      const command::RequestPlace& place) {
  try {
    return agent.getRegionInfo(kEveryDomain, query.itemType, query.region);
  } catch (const jsonrpchelper::ResultOfAnotherKind& exception) {
    command::logCaught(place, exception);
    return Json::Value(Json::arrayValue);
  }
}

Json::Value changeOf(std::int32_t action, std::int32_t itemType, const std::vector<std::string>& items) {
  Json::Value change(Json::objectValue);
  if (action == 0 || action == 1) {
    change["action"] = action;
  }
  if (itemType >= 0 && itemType < kItemTypeCount) {
    change["type"] = itemType;
  }
  change["domain"] = kPersonalDomain;
  change["is_all"] = false;
  Json::Value& list = change["items"] = Json::Value(Json::arrayValue);
  for (const std::string& item : items) {
    list.append(json::encodePath(item));
  }
  return change;
}

}  // namespace

int CliTrustRegionCommunication::action_trustregionreport() {
  const command::RequestPlace place{kSource, __func__, __LINE__};
  return command::askAgent(place, 0, [&](jsonrpchelper::AgentStub& agent) {
    std::uint64_t totals[] = {0, 0};
    for (const Query& query : kQueries) {
      const Json::Value items = askRegion(agent, query, place);
      printItems(items, query.region);
      totals[query.region] += items.size();
    }
    command::printText("\n信任区当前存在 " + std::to_string(totals[kTrust]) + " 项\n");
    command::printText("\n否决区当前存在 " + std::to_string(totals[kReject]) + " 项\n");
    return 1;
  });
}

int CliTrustRegionCommunication::action_trustregionmodify(std::int32_t action, std::int32_t item_type,
                                                          const std::vector<std::string>& items) {
  const Json::Value change = changeOf(action, item_type, items);
  return command::askAgent({kSource, __func__, __LINE__}, 0, [&](jsonrpchelper::AgentStub& agent) {
    return agent.ctlRegion("命令行修改了本地信任区", change, kTrust, kFromConsole) ? 1 : 0;
  });
}
