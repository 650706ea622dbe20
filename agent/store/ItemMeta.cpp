#include "store/ItemMeta.h"

#include <linux/limits.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "engine/Digest.h"
#include "json/CppJson.h"
#include "json/RegionRecords.h"
#include "platform/Posix.h"
#include "store/Sqlite.h"

namespace agent::store {
namespace {

constexpr int kVersion = 1;

Json::Value xattrsToJson(const std::vector<std::pair<std::string, std::string>>& xattrs) {
  Json::Value list(Json::arrayValue);
  for (const auto& [name, value] : xattrs) {
    Json::Value attribute;
    attribute["name"] = json::encodePath(name);
    attribute["value"] = toHex(value.data(), value.size());
    list.append(attribute);
  }
  return list;
}

bool xattrsFromJson(const Json::Value& list, std::vector<std::pair<std::string, std::string>>* xattrs) {
  if (!list.isArray()) {
    return false;
  }
  for (const Json::Value& attribute : list) {
    const auto value = fromHex(CppJson::readString(attribute, "value", "x"));  // "x": no hexadecimal text
    if (!value) {
      return false;
    }
    xattrs->emplace_back(json::decodePath(CppJson::readString(attribute, "name", "")), *value);
  }
  return true;
}

std::string readAttribute(int fd, const char* name) {
  std::string value(XATTR_SIZE_MAX, '\0');
  const ssize_t size = ::fgetxattr(fd, name, value.data(), value.size());
  if (size < 0) {
    throw StoreError("cannot read its attribute " + platform::quoted(name) + ": " +
                     platform::errnoText(errno));
  }
  return value.substr(0, static_cast<std::size_t>(size));
}

std::string attributeNames(int fd) {
  std::string names(XATTR_LIST_MAX, '\0');
  const ssize_t size = ::flistxattr(fd, names.data(), names.size());
  if (size < 0 && errno != ENOTSUP) {
    throw StoreError("cannot read its attributes: " + platform::errnoText(errno));
  }
  return names.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

}  // namespace

std::string ItemMeta::toText() const {
  Json::Value out;
  out["version"] = kVersion;
  out["uuid"] = uuid;
  out["path"] = json::encodePath(path);
  out["real_path"] = json::encodePath(realPath);
  out["device"] = Json::Int64(device);
  out["inode"] = Json::Int64(inode);
  out["size"] = Json::Int64(size);
  out["links"] = Json::Int64(links);
  out["uid"] = Json::Int64(uid);
  out["gid"] = Json::Int64(gid);
  out["mode"] = Json::Int64(mode);
  out["access_ns"] = Json::Int64(accessTimeNs);
  out["modify_ns"] = Json::Int64(modifyTimeNs);
  out["isolate_sec"] = Json::Int64(isolateTimeSec);
  out["md5"] = md5;
  out["sha256"] = sha256;
  out["file_type"] = fileType;
  out["risk_name"] = detection.name;
  out["risk_type"] = json::toNumber(detection.riskType);
  out["risk_type_name"] = detection.riskTypeName;
  out["engine"] = detection.engineCode;
  out["xattrs"] = xattrsToJson(xattrs);
  std::string text;
  if (!CppJson::WriteJsonToString(out, text, 1)) {
    throw StoreError("what is known of the file cannot be written as text");
  }
  return text;
}

std::optional<ItemMeta> ItemMeta::fromText(const std::string& text) {
  Json::Value in;
  if (!CppJson::LoadJsonString(text, in) || CppJson::readInt(in, "version", 0) != kVersion) {
    return std::nullopt;
  }
  const auto number = [&in](const char* key) { return CppJson::readInt64(in, key, 0); };
  const auto word = [&in](const char* key) { return CppJson::readString(in, key, ""); };
  ItemMeta meta;
  meta.uuid = word("uuid");
  meta.path = json::decodePath(word("path"));
  meta.realPath = json::decodePath(word("real_path"));
  meta.device = static_cast<std::uint64_t>(number("device"));
  meta.inode = static_cast<std::uint64_t>(number("inode"));
  meta.size = static_cast<std::uint64_t>(number("size"));
  meta.links = static_cast<std::uint64_t>(number("links"));
  meta.uid = static_cast<std::uint32_t>(number("uid"));
  meta.gid = static_cast<std::uint32_t>(number("gid"));
  meta.mode = static_cast<std::uint32_t>(number("mode"));
  meta.accessTimeNs = number("access_ns");
  meta.modifyTimeNs = number("modify_ns");
  meta.isolateTimeSec = number("isolate_sec");
  meta.md5 = word("md5");
  meta.sha256 = word("sha256");
  meta.fileType = word("file_type");
  meta.detection.name = word("risk_name");
  meta.detection.riskType = json::fromNumber<json::RiskType>(CppJson::readInt(in, "risk_type", -1))
                                .value_or(json::RiskType::kVirus);
  meta.detection.riskTypeName = word("risk_type_name");
  meta.detection.engineCode = CppJson::readInt(in, "engine", 0);
  const bool whole = xattrsFromJson(in["xattrs"], &meta.xattrs) && !meta.uuid.empty() &&
                     meta.realPath.starts_with('/') && meta.sha256.size() == 64;
  return whole ? std::optional(std::move(meta)) : std::nullopt;
}

Json::Value ItemMeta::toIsolationItem() const {
  JsonReflect::IsolationItem item;
  item.uid = static_cast<std::int32_t>(uid);
  item.gid = static_cast<std::int32_t>(gid);
  item.mode = static_cast<std::int32_t>(mode);
  item.filetype_src = fileType;
  item.isolate_time = isolateTimeSec;
  item.uuid = uuid;
  item.filemd5_src = md5;
  item.risk_type_name = detection.riskTypeName;
  item.filepath_src = json::encodePath(path);
  item.size = static_cast<std::int64_t>(size);
  item.risk_type = json::toNumber(detection.riskType);
  item.engine_type = detection.engineCode;
  item.virus_name = detection.name;
  Json::Value value;
  item.ToValue(value);
  return value;
}

void readFileMeta(int fd, const struct stat& st, ItemMeta* meta) {
  meta->device = st.st_dev;
  meta->inode = st.st_ino;
  meta->size = static_cast<std::uint64_t>(st.st_size);
  meta->links = st.st_nlink;
  meta->uid = st.st_uid;
  meta->gid = st.st_gid;
  meta->mode = st.st_mode & 07777U;
  meta->accessTimeNs = toNs(st.st_atim);
  meta->modifyTimeNs = toNs(st.st_mtim);
  const std::string names = attributeNames(fd);
  for (std::size_t at = 0; at < names.size(); at += std::string_view(names.c_str() + at).size() + 1) {
    const char* name = names.c_str() + at;
    meta->xattrs.emplace_back(name, readAttribute(fd, name));
  }
}

std::string fileTypeOf(const std::string& firstBytes, const std::string& name) {
  struct Start {
    std::string_view bytes;
    const char* type;
  };
  static constexpr std::array kStarts = {Start{"\x7f"
                                               "ELF",
                                               "ELF"},
                                         Start{"MZ", "PE"},
                                         Start{"#!", "script"},
                                         Start{"PK\x03\x04", "zip"},
                                         Start{"%PDF", "PDF"},
                                         Start{"Rar!", "rar"},
                                         Start{"7z\xbc\xaf", "7z"},
                                         Start{"\x1f\x8b", "gz"},
                                         Start{"\xd0\xcf\x11\xe0", "OLE"},
                                         Start{"BZh", "bz2"},
                                         Start{"\xfd"
                                               "7zXZ",
                                               "xz"},
                                         Start{"!<arch>", "ar"}};
  for (const Start& start : kStarts) {
    if (firstBytes.starts_with(start.bytes)) {
      return start.type;
    }
  }
  const std::size_t dot = name.rfind('.');
  const bool hasEnding = dot != std::string::npos && dot > 0 && name.size() - dot <= 1 + 8;
  return hasEnding ? json::encodePath(name.substr(dot + 1)) : "";
}

}  // namespace agent::store
