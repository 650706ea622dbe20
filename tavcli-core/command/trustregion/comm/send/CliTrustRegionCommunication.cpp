#include "command/trustregion/comm/send/CliTrustRegionCommunication.h"

#include "command/AgentRequest.h"
#include "command/ListText.h"
#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "json/Values.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "platform/Text.h"

namespace {

constexpr const char* kSource = "command/trustregion/comm/send/CliTrustRegionCommunication";
constexpr const char* kUnknown = "未知";
using json::Region;
using json::RegionDomain;
using ItemType = json::RegionItemType;

/// The index is the number of the region.
constexpr const char* kBehaviours[] = {"信任", "否决"};
/// The index is the number of the item type.
constexpr const char* kItemTypes[] = {"文件路径", "文件夹",   "后缀名",    "文件MD5",
                                      "文件名",   "文件SHA1", "文件SHA256"};

struct Query {
  Region region;
  ItemType itemType;
};
constexpr Query kQueries[] = {
    {Region::kTrust, ItemType::kFile},      {Region::kTrust, ItemType::kFolder},
    {Region::kTrust, ItemType::kExtension}, {Region::kTrust, ItemType::kMd5},
    {Region::kTrust, ItemType::kSha256},    {Region::kTrust, ItemType::kName},
    {Region::kTrust, ItemType::kSha1},      {Region::kReject, ItemType::kMd5},
    {Region::kReject, ItemType::kSha1},     {Region::kReject, ItemType::kSha256},
    {Region::kReject, ItemType::kName},
};

const char* stateName(std::int32_t state) {
  switch (json::fromNumber<json::RegionValidity>(state).value_or(json::RegionValidity::kExpired)) {
    case json::RegionValidity::kValid:
      return "有效";
    case json::RegionValidity::kForEver:
      return "永久有效";
    case json::RegionValidity::kExpired:
      break;
  }
  return "无效";
}

const char* domainName(std::int32_t domain) {
  switch (json::fromNumber<RegionDomain>(domain).value_or(RegionDomain::kEvery)) {
    case RegionDomain::kPersonal:
      return "个人";
    case RegionDomain::kGlobal:
      return "全局";
    case RegionDomain::kEvery:
      break;
  }
  return kUnknown;
}

const char* itemTypeName(std::int32_t type) {
  return json::fromNumber<ItemType>(type) ? kItemTypes[type] : kUnknown;
}

std::string itemText(const JsonReflect::FilterRegionItem& item, Region region) {
  std::string text;
  command::appendField(text, "时间", CDateTime::format(item.add_time));
  command::appendField(text, "项", json::visiblePath(item.item));
  command::appendField(text, "项大小", std::to_string(item.file_size) + "字节");
  command::appendField(text, "状态", stateName(item.valid_statue));
  command::appendField(text, "属性", domainName(item.domain));
  command::appendField(text, "类型", itemTypeName(item.item_type));
  command::appendField(text, "行为", kBehaviours[json::toNumber(region)]);
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

/// Requests one list. An answer that is no list is logged and counts as an empty list. Every other failure
/// ends the report.
Json::Value askRegion(jsonrpchelper::AgentStub& agent, const Query& query,
                      const command::RequestPlace& place) {
  try {
    return agent.call(jsonrpchelper::GetRegionInfo{.domain = json::toNumber(RegionDomain::kEvery),
                                                   .item_type = json::toNumber(query.itemType),
                                                   .region_type = json::toNumber(query.region)});
  } catch (const jsonrpchelper::ResultOfAnotherKind& exception) {
    command::logCaught(place, exception);
    return Json::Value(Json::arrayValue);
  }
}

Json::Value changeOf(std::int32_t action, std::int32_t itemType, const std::vector<std::string>& items) {
  Json::Value change(Json::objectValue);
  if (json::fromNumber<json::RegionAction>(action)) {
    change["action"] = action;
  }
  if (json::fromNumber<ItemType>(itemType)) {
    change["type"] = itemType;
  }
  change["domain"] = json::toNumber(RegionDomain::kPersonal);
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
      totals[json::toNumber(query.region)] += items.size();
    }
    command::printText("\n信任区当前存在 " + std::to_string(totals[json::toNumber(Region::kTrust)]) +
                       " 项\n");
    command::printText("\n否决区当前存在 " + std::to_string(totals[json::toNumber(Region::kReject)]) +
                       " 项\n");
    return 1;
  });
}

int CliTrustRegionCommunication::action_trustregionmodify(std::int32_t action, std::int32_t item_type,
                                                          const std::vector<std::string>& items) {
  const Json::Value change = changeOf(action, item_type, items);
  return command::askAgent({kSource, __func__, __LINE__}, 0, [&](jsonrpchelper::AgentStub& agent) {
    return agent.call(jsonrpchelper::CtlRegion{.desc = "命令行修改了本地信任区",
                                               .items = change,
                                               .region_type = json::toNumber(Region::kTrust),
                                               .source = command::kFromConsole})
               ? 1
               : 0;
  });
}
