#include "command/config/ConfigDisplay.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <span>

#include "json/CppJson.h"
#include "json/Values.h"

namespace command {

namespace {

constexpr const char* kTitleRule = "------------------------";
constexpr const char* kOn = "开启";
constexpr const char* kOff = "关闭";

struct ValueName {
  std::int32_t value;
  const char* name;

  template <class E>
  constexpr ValueName(E enumerator, const char* text) : value(json::toNumber(enumerator)), name(text) {}
};

/// The names of a setting's values, and the name of every other value.
struct ValueNames {
  std::span<const ValueName> names;
  const char* other;
};

constexpr ValueName kFileTypeNames[] = {{json::ScanFileType::kEvery, "全部文件"},
                                        {json::ScanFileType::kProgramsAndDocuments, "仅程序及文档"}};
constexpr ValueName kFixMethodNames[] = {{json::FixMethod::kAutomatic, "自动处理"},
                                         {json::FixMethod::kManual, "手动处理"},
                                         {json::FixMethod::kReportOnly, "仅上报不处理"}};
constexpr ValueName kHandleActionNames[] = {{json::HandleAction::kClean, "清除"},
                                            {json::HandleAction::kDelete, "删除"},
                                            {json::HandleAction::kQuarantine, "隔离"}};
constexpr ValueName kMemRiskNames[] = {{json::ProcessFix::kIgnore, "忽略"}, {json::ProcessFix::kEnd, "终止"}};
constexpr ValueName kCloudScanNames[] = {{json::CloudScan::kEvery, "扫描所有文件"},
                                         {json::CloudScan::kActive, "扫描活跃文件"}};
constexpr ValueName kProtectLevelNames[] = {
    {json::ProtectLevel::kHigh, "高"}, {json::ProtectLevel::kMiddle, "中"}, {json::ProtectLevel::kLow, "低"}};
constexpr ValueName kTraceNames[] = {{json::FileTrace::kOn, kOn}};
constexpr ValueName kCleanUnitNames[] = {{json::CleanUnit::kYear, "年"},
                                         {json::CleanUnit::kMonth, "月"},
                                         {json::CleanUnit::kDay, "日"},
                                         {json::CleanUnit::kWeek, "周"}};

constexpr ValueNames kFileTypes{kFileTypeNames, "全部文件"};
constexpr ValueNames kFixMethods{kFixMethodNames, "自动处理"};
constexpr ValueNames kHandleActions{kHandleActionNames, "不处理"};
constexpr ValueNames kMemRisks{kMemRiskNames, "未知"};
constexpr ValueNames kCloudScans{kCloudScanNames, "扫描所有文件"};
constexpr ValueNames kProtectLevels{kProtectLevelNames, "高"};
constexpr ValueNames kTraces{kTraceNames, kOff};
constexpr ValueNames kCleanUnits{kCleanUnitNames, ""};

enum class Kind {
  kSwitch,  ///< on or off
  kNamed,   ///< a name from the table of names
  kCount,
  kMegabytes,
  kGigabytes,
  kTexts,  ///< every element of an array, each with a ';' behind it
};

struct RowSpec {
  const char* key;
  const char* label;
  Kind kind;
  const ValueNames* names = nullptr;  ///< of kNamed
};

constexpr RowSpec kScanCommon[] = {
    {"NetworkmapScan", "扫描网络映射驱动器", Kind::kSwitch},
    {"AntiInfection", "防感染模式", Kind::kSwitch},
    {"SkipSystemRepair", "跳过系统修复项", Kind::kSwitch},
    {"ScanFileType", "扫描文件类型", Kind::kNamed, &kFileTypes},
    {"FixMethod", "威胁处理方式", Kind::kNamed, &kFixMethods},
    {"HandleAction", "威胁处置行为", Kind::kNamed, &kHandleActions},
    {"ScanWithCache", "扫描缓存加速", Kind::kSwitch},
    {"MemCheck", "活体扫描开关", Kind::kSwitch},
    {"FixMethod_MemRisk", "风险进程处理方式", Kind::kNamed, &kMemRisks},
    {"SkipSize", "跳过文件大小", Kind::kMegabytes},
    {"Parallelism", "扫描并行度", Kind::kCount},
    {"CloudScanType", "云查杀扫描方式", Kind::kNamed, &kCloudScans},
};

constexpr RowSpec kScanCompressed[] = {
    {"Flag", "扫描压缩包", Kind::kSwitch},
    {"Layer", "最大扫描层数", Kind::kCount},
    {"FileSize", "最大压缩包大小", Kind::kMegabytes},
    {"Format", "扫描压缩包格式类型", Kind::kTexts},
};

constexpr RowSpec kQuarantineCommon[] = {
    {"SizeLimit", "隔离区空间大小", Kind::kGigabytes},
};

constexpr RowSpec kQuarantineAutoClean[] = {
    {"Flag", "隔离区自动清理", Kind::kSwitch},
};

constexpr RowSpec kMultiEngines[] = {
    {"HCengine", "鸿隼引擎(病毒查杀)", Kind::kSwitch},
    {"HCengineRP", "鸿隼引擎(实时防护)", Kind::kSwitch},
    {"UMBengine", "UMB引擎(病毒查杀)", Kind::kSwitch},
    {"UMBengineRP", "UMB引擎(实时防护)", Kind::kSwitch},
    {"IXOengine", "IXO引擎(病毒查杀)", Kind::kSwitch},
    {"IXOengineRP", "IXO引擎(实时防护)", Kind::kSwitch},
    {"RDAengine", "RDA引擎(病毒查杀)", Kind::kSwitch},
    {"RDAengineRP", "RDA引擎(实时防护)", Kind::kSwitch},
    {"RDAOLDengine", "RDA引擎(旧模型)(病毒查杀)", Kind::kSwitch},
    {"RDAOLDengineRP", "RDA引擎(旧模型)(实时防护)", Kind::kSwitch},
    {"CloudEngine", "云引擎(病毒查杀)", Kind::kSwitch},
    {"CloudEngineRP", "云引擎(实时防护)", Kind::kSwitch},
};

constexpr RowSpec kRealProtectCommon[] = {
    {"Flag", "系统实时防护", Kind::kSwitch},
    {"AllowDelayStart", "允许开机延时加载文件系统", Kind::kSwitch},
    {"ScanFileType", "防护文件类型", Kind::kNamed, &kFileTypes},
    {"FixMethod", "威胁处理方式", Kind::kNamed, &kFixMethods},
    {"ProtectLevel", "实时防护级别", Kind::kNamed, &kProtectLevels},
    {"SkipSize", "跳过文件大小", Kind::kMegabytes},
    {"CloudScanType", "云查杀扫描方式", Kind::kNamed, &kCloudScans},
    {"FileTraceSourceType", "文件溯源开关", Kind::kNamed, &kTraces},
};

constexpr RowSpec kRealProtectCompressed[] = {
    {"Flag", "压缩包防护", Kind::kSwitch},
    {"SkipPass", "跳过有密码的压缩文件", Kind::kSwitch},
    {"Layer", "最大扫描层数", Kind::kCount},
    {"FileSize", "最大压缩包大小", Kind::kMegabytes},
    {"Format", "监控的压缩包格式类型", Kind::kTexts},
};

struct CloudAddress {
  const char* label;
  const char* key;
};

/// The display of a kind of cloud: its addresses, then its name.
struct CloudKind {
  json::CloudType type;
  std::span<const CloudAddress> addresses;
  const char* name;
};

constexpr CloudAddress kPublicCloud[] = {
    {"基础云查杀服务地址", "PublicCloudUrl"},
    {"RDA云查杀服务地址", "PublicRdaCloudUrl"},
};
constexpr CloudAddress kProxyCloud[] = {
    {"基础云查杀服务代理地址", "PublicCloudProxyUrl"},
    {"RDA云查杀服务代理地址", "PublicRdaCloudProxyUrl"},
};
constexpr CloudAddress kPrivateCloud[] = {
    {"私有云查杀服务代理地址", "PrivateCloudUrl"},
};
constexpr CloudKind kCloudKinds[] = {
    {json::CloudType::kPublic, kPublicCloud, "直接连接公有云"},
    {json::CloudType::kPublicByProxy, kProxyCloud, "通过代理服务器连接公有云"},
    {json::CloudType::kPrivate, kPrivateCloud, "直接连接私有云"},
    {json::CloudType::kNone, {}, "关闭云查杀"},
};
/// The display of every other type.
constexpr CloudKind kOtherCloud{json::CloudType::kPublic, {}, "直接连接公有云"};

/// Null when the document has no such section.
const Json::Value* findSection(const Json::Value& document, const char* name) {
  const Json::Value* const section = CppJson::findMember(document, name);
  return section != nullptr && section->isObject() ? section : nullptr;
}

/// A number, or a switch as 0 and 1. Every other value, and an absent key, give 0.
std::int32_t readNumber(const Json::Value& section, const char* key) {
  const Json::Value* const member = CppJson::findMember(section, key);
  if (member == nullptr) {
    return 0;
  }
  return member->isBool() ? static_cast<std::int32_t>(member->asBool()) : CppJson::toInt(*member, 0);
}

const char* nameOf(const ValueNames& names, std::int32_t value) {
  for (const ValueName& entry : names.names) {
    if (entry.value == value) {
      return entry.name;
    }
  }
  return names.other;
}

std::string joinedTexts(const Json::Value& section, const char* key) {
  std::string joined;
  const Json::Value* const list = CppJson::findMember(section, key);
  if (list == nullptr || !list->isArray()) {
    return joined;
  }
  for (const Json::Value& element : *list) {
    if (element.isConvertibleTo(Json::stringValue)) {
      joined += json::visiblePath(element.asString());
    }
    joined += ';';
  }
  return joined;
}

std::string valueText(const Json::Value& section, const RowSpec& row) {
  if (row.kind == Kind::kTexts) {
    return joinedTexts(section, row.key);
  }
  const std::int32_t number = readNumber(section, row.key);
  switch (row.kind) {
    case Kind::kSwitch:
      return number != 0 ? kOn : kOff;
    case Kind::kNamed:
      return nameOf(*row.names, number);
    case Kind::kMegabytes:
      return std::to_string(number) + "MB";
    case Kind::kGigabytes:
      return std::to_string(number) + "GB";
    default:
      return std::to_string(number);
  }
}

void appendTitle(SettingRows& rows, const char* title) {
  rows.emplace_back(title, kTitleRule);
}

void appendSection(SettingRows& rows, const Json::Value& section, std::span<const RowSpec> specs) {
  for (const RowSpec& spec : specs) {
    rows.emplace_back(spec.label, valueText(section, spec));
  }
}

/// The rows of a document with two sections. The title stands only above the first section.
SettingRows titledRows(const Json::Value& document, const char* title, std::span<const RowSpec> common,
                       std::span<const RowSpec> compressed) {
  SettingRows rows;
  if (const Json::Value* section = findSection(document, "Common")) {
    appendTitle(rows, title);
    appendSection(rows, *section, common);
  }
  if (const Json::Value* section = findSection(document, "Compressed")) {
    appendSection(rows, *section, compressed);
  }
  return rows;
}

std::string cleaningText(const Json::Value& autoClean) {
  std::array<char, 256> text{};
  const auto type = json::fromNumber<json::CleanType>(readNumber(autoClean, "CleanType"));
  if (!type) {
    return "未知";
  }
  switch (*type) {
    case json::CleanType::kByAge:
      std::snprintf(text.data(), text.size(), "使用空间大于90%%时自动清理超过%d%s的文件",
                    readNumber(autoClean, "CleanTime"),
                    nameOf(kCleanUnits, readNumber(autoClean, "CleanUnit")));
      break;
    case json::CleanType::kByRate:
      std::snprintf(text.data(), text.size(), "已达上限90%%时，自动清理隔离区文件至存储空间剩余上限的%d",
                    readNumber(autoClean, "CleanRate"));
      break;
  }
  return text.data();
}

const CloudKind& cloudKind(std::int32_t type) {
  for (const CloudKind& kind : kCloudKinds) {
    if (json::toNumber(kind.type) == type) {
      return kind;
    }
  }
  return kOtherCloud;
}

}  // namespace

SettingRows scanSettingRows(const Json::Value& document) {
  return titledRows(document, "基础扫描配置", kScanCommon, kScanCompressed);
}

SettingRows quarantineSettingRows(const Json::Value& document) {
  SettingRows rows;
  appendTitle(rows, "隔离区配置");
  if (const Json::Value* section = findSection(document, "Common")) {
    appendSection(rows, *section, kQuarantineCommon);
  }
  if (const Json::Value* section = findSection(document, "AutoClean")) {
    appendSection(rows, *section, kQuarantineAutoClean);
    rows.emplace_back("自动清理方式", cleaningText(*section));
  }
  return rows;
}

SettingRows engineSettingRows(const Json::Value& document) {
  SettingRows rows;
  if (const Json::Value* section = findSection(document, "MultiEngines")) {
    appendTitle(rows, "多引擎配置");
    appendSection(rows, *section, kMultiEngines);
  }
  if (const Json::Value* section = findSection(document, "Cloud")) {
    const CloudKind& kind = cloudKind(readNumber(*section, "Type"));
    for (const CloudAddress& address : kind.addresses) {
      rows.emplace_back(address.label, json::visiblePath(CppJson::readString(*section, address.key, "")));
    }
    rows.emplace_back("云查杀类型", kind.name);
  }
  return rows;
}

SettingRows realProtectSettingRows(const Json::Value& document) {
  return titledRows(document, "实时防护", kRealProtectCommon, kRealProtectCompressed);
}

std::string settingsText(const SettingRows& rows) {
  std::string text = "\n";
  for (const auto& [label, value] : rows) {
    text.append("  ").append(label).append(" : ").append(value).append("\n");
  }
  return text;
}

}  // namespace command
