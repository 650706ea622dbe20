#include "store/RestorePlan.h"

#include "json/CppJson.h"
#include "store/Sqlite.h"

namespace agent::store {
namespace {

Json::Value encoded(const std::vector<std::string>& paths) {
  Json::Value list(Json::arrayValue);
  for (const std::string& path : paths) {
    list.append(json::encodePath(path));
  }
  return list;
}

}  // namespace

std::string RestorePlan::toText() const {
  Json::Value out;
  out["folder"] = json::encodePath(folder);
  out["name"] = json::encodePath(name);
  out["trusted"] = encoded(trusted);
  out["caller"] = Json::Int64(caller);
  std::string text;
  if (!CppJson::WriteJsonToString(out, text, 1)) {
    throw StoreError("the restore cannot be written down");
  }
  return text;
}

std::optional<RestorePlan> RestorePlan::fromText(const std::string& text) {
  Json::Value in;
  if (!CppJson::LoadJsonString(text, in) || !in.isObject()) {
    return std::nullopt;
  }
  RestorePlan plan;
  plan.folder = json::decodePath(CppJson::readString(in, "folder", ""));
  plan.name = json::decodePath(CppJson::readString(in, "name", ""));
  plan.caller = static_cast<uid_t>(CppJson::readInt64(in, "caller", 0));
  if (in["trusted"].isArray()) {
    for (const Json::Value& path : in["trusted"]) {
      plan.trusted.push_back(path.isString() ? json::decodePath(path.asString()) : "");
    }
  }
  return plan.folder.starts_with('/') && !plan.name.empty() ? std::optional(plan) : std::nullopt;
}

platform::Expected<void> RestorePlan::applyTrust(Regions& regions) const {
  if (trusted.empty()) {
    return {};
  }
  Json::Value change;
  change["action"] = json::toNumber(json::RegionAction::kAdd);
  change["type"] = json::toNumber(json::RegionItemType::kFile);
  change["domain"] = json::toNumber(json::RegionDomain::kPersonal);
  change["is_all"] = false;
  change["items"] = encoded(trusted);
  return regions.change(json::Region::kTrust, change,
                        CallerId{.uid = caller, .gid = 0, .groups = {}, .pid = 0});
}

}  // namespace agent::store
