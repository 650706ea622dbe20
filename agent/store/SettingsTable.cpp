#include "store/SettingsTable.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

#include "json/CppJson.h"
#include "platform/Text.h"

namespace agent::store {
namespace {

constexpr auto kSwitch = SettingKind::kSwitch;
constexpr auto kNumber = SettingKind::kNumber;
constexpr auto kText = SettingKind::kText;
constexpr auto kWords = SettingKind::kWords;

constexpr auto kScan = json::ConfigType::kScan;
constexpr auto kRealTime = json::ConfigType::kRealTime;
constexpr auto kQuarantine = json::ConfigType::kQuarantine;
constexpr auto kEngines = json::ConfigType::kEngines;

constexpr const char* kFormats =
    "zip jar rar 7z tar gz tgz bz2 xz cab arj lzh lha alz egg cpio xar iso udf dmg szdd";
constexpr const char* kFormatsJson =
    R"(["zip","jar","rar","7z","tar","gz","tgz","bz2","xz","cab","arj","lzh","lha","alz","egg","cpio","xar","iso","udf","dmg","szdd"])";
constexpr std::int64_t kMegabytes = 1'048'576;  // one terabyte, in megabytes

// clang-format off
constexpr std::array kTable = {
    //      config type  section         key                      kind     smallest largest     0 means                          default       words
    Setting{kScan,       "Common",       "NetworkmapScan",        kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kScan,       "Common",       "AntiInfection",         kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kScan,       "Common",       "SkipSystemRepair",      kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kScan,       "Common",       "ScanFileType",          kNumber, 1,       2,          "",                              "1",          nullptr},
    Setting{kScan,       "Common",       "FixMethod",             kNumber, 0,       2,          "handle automatically",          "2",          nullptr},
    Setting{kScan,       "Common",       "HandleAction",          kNumber, 0,       3,          "clean",                         "2",          nullptr},
    Setting{kScan,       "Common",       "ScanWithCache",         kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kScan,       "Common",       "MemCheck",              kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kScan,       "Common",       "FixMethod_MemRisk",     kNumber, 0,       1,          "leave the process",             "0",          nullptr},
    Setting{kScan,       "Common",       "SkipSize",              kNumber, 0,       kMegabytes, "no file is skipped for its size", "0",        nullptr},
    Setting{kScan,       "Common",       "Parallelism",           kNumber, 0,       64,         "one worker a core",             "0",          nullptr},
    Setting{kScan,       "Common",       "CloudScanType",         kNumber, 0,       1,          "all files",                     "0",          nullptr},
    Setting{kScan,       "Compressed",   "Flag",                  kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kScan,       "Compressed",   "Layer",                 kNumber, 0,       64,         "sixteen layers",                "16",         nullptr},
    Setting{kScan,       "Compressed",   "FileSize",              kNumber, 0,       kMegabytes, "no archive is skipped for its size", "1024",  nullptr},
    Setting{kScan,       "Compressed",   "Format",                kWords,  0,       0,          "every format that can be read", kFormatsJson, kFormats},

    Setting{kRealTime,   "Common",       "Flag",                  kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kRealTime,   "Common",       "AllowDelayStart",       kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kRealTime,   "Common",       "ScanFileType",          kNumber, 1,       2,          "",                              "1",          nullptr},
    Setting{kRealTime,   "Common",       "FixMethod",             kNumber, 0,       2,          "handle automatically",          "2",          nullptr},
    Setting{kRealTime,   "Common",       "HandleAction",          kNumber, 0,       3,          "clean",                         "3",          nullptr},
    Setting{kRealTime,   "Common",       "ProtectLevel",          kNumber, 0,       2,          "high",                          "1",          nullptr},
    Setting{kRealTime,   "Common",       "ScanWithCache",         kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kRealTime,   "Common",       "SkipSize",              kNumber, 0,       kMegabytes, "no file is skipped for its size", "0",        nullptr},
    Setting{kRealTime,   "Common",       "CloudScanType",         kNumber, 0,       1,          "all files",                     "0",          nullptr},
    Setting{kRealTime,   "Common",       "FileTraceSourceType",   kNumber, 0,       1,          "off",                           "0",          nullptr},
    Setting{kRealTime,   "Compressed",   "Flag",                  kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kRealTime,   "Compressed",   "SkipPass",              kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kRealTime,   "Compressed",   "Layer",                 kNumber, 0,       64,         "sixteen layers",                "16",         nullptr},
    Setting{kRealTime,   "Compressed",   "FileSize",              kNumber, 0,       kMegabytes, "no archive is skipped for its size", "1024",  nullptr},
    Setting{kRealTime,   "Compressed",   "Format",                kWords,  0,       0,          "every format that can be read", kFormatsJson, kFormats},

    Setting{kQuarantine, "Common",       "SizeLimit",             kNumber, 0,       1'048'576,  "no limit",                      "10",         nullptr},
    Setting{kQuarantine, "AutoClean",    "Flag",                  kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kQuarantine, "AutoClean",    "CleanType",             kNumber, 0,       1,          "by age",                        "0",          nullptr},
    Setting{kQuarantine, "AutoClean",    "CleanTime",             kNumber, 1,       10'000,     "",                              "180",        nullptr},
    Setting{kQuarantine, "AutoClean",    "CleanUnit",             kNumber, 0,       3,          "years",                         "2",          nullptr},
    Setting{kQuarantine, "AutoClean",    "CleanRate",             kNumber, 1,       100,        "",                              "30",         nullptr},

    Setting{kEngines,    "MultiEngines", "HCengine",              kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kEngines,    "MultiEngines", "HCengineRP",            kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "MultiEngines", "UMBengine",             kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kEngines,    "MultiEngines", "UMBengineRP",           kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "MultiEngines", "IXOengine",             kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kEngines,    "MultiEngines", "IXOengineRP",           kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "MultiEngines", "RDAengine",             kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kEngines,    "MultiEngines", "RDAengineRP",           kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "MultiEngines", "RDAOLDengine",          kSwitch, 0,       0,          "",                              "true",       nullptr},
    Setting{kEngines,    "MultiEngines", "RDAOLDengineRP",        kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "MultiEngines", "CloudEngine",           kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "MultiEngines", "CloudEngineRP",         kSwitch, 0,       0,          "",                              "false",      nullptr},
    Setting{kEngines,    "Cloud",        "Type",                  kNumber, 0,       3,          "the public cloud, directly",    "3",          nullptr},
    Setting{kEngines,    "Cloud",        "PublicCloudUrl",        kText,   0,       2048,       "none",                          "\"\"",       nullptr},
    Setting{kEngines,    "Cloud",        "PublicRdaCloudUrl",     kText,   0,       2048,       "none",                          "\"\"",       nullptr},
    Setting{kEngines,    "Cloud",        "PublicCloudProxyUrl",   kText,   0,       2048,       "none",                          "\"\"",       nullptr},
    Setting{kEngines,    "Cloud",        "PublicRdaCloudProxyUrl", kText,  0,       2048,       "none",                          "\"\"",       nullptr},
    Setting{kEngines,    "Cloud",        "PrivateCloudUrl",       kText,   0,       2048,       "none",                          "\"\"",       nullptr},
};
// clang-format on

platform::Expected<void> checkSwitch(const Json::Value& value) {
  if (!value.isBool()) {
    return platform::failure("must be true or false");
  }
  return {};
}

platform::Expected<void> checkNumber(const Setting& setting, const Json::Value& value) {
  // The type, not isInt64(): isInt64() accepts 8.0 as well.
  if (value.type() != Json::intValue && value.type() != Json::uintValue) {
    return platform::failure("must be a whole number");
  }
  if (!value.isInt64() || value.asInt64() < setting.smallest || value.asInt64() > setting.largest) {
    return platform::failure("must be " + std::to_string(setting.smallest) + " to " +
                             std::to_string(setting.largest) + ", not " + value.asString());
  }
  return {};
}

platform::Expected<void> checkText(const Setting& setting, const Json::Value& value) {
  if (!value.isString()) {
    return platform::failure("must be a text");
  }
  const std::string text = value.asString();
  if (static_cast<std::int64_t>(text.size()) > setting.largest) {
    return platform::failure("must be at most " + std::to_string(setting.largest) + " bytes long");
  }
  if (platform::visibleText(text) != text) {
    return platform::failure("must be one line of plain text");
  }
  return {};
}

platform::Expected<void> checkWords(const Setting& setting, const Json::Value& value) {
  std::set<std::string> seen;
  if (!value.isArray() || !std::all_of(value.begin(), value.end(),
                                       [](const Json::Value& element) { return element.isString(); })) {
    return platform::failure("must be a list of texts");
  }
  const auto allowed = CStr::split(setting.words, ' ');
  for (const Json::Value& element : value) {
    const std::string word = element.asString();
    if (std::find(allowed.begin(), allowed.end(), word) == allowed.end()) {
      return platform::failure("must be of: " + std::string(setting.words) + "; not " +
                               platform::visibleText(word));
    }
    if (!seen.insert(word).second) {
      return platform::failure("names " + word + " twice");
    }
  }
  return {};
}

platform::Expected<void> checkKind(const Setting& setting, const Json::Value& value) {
  switch (setting.kind) {
    case SettingKind::kSwitch:
      return checkSwitch(value);
    case SettingKind::kNumber:
      return checkNumber(setting, value);
    case SettingKind::kText:
      return checkText(setting, value);
    case SettingKind::kWords:
      return checkWords(setting, value);
  }
  return {};
}

}  // namespace

std::span<const Setting> settingsTable() {
  return kTable;
}

const Setting* findSetting(json::ConfigType configType, const std::string& section, const std::string& key) {
  const auto* found = std::find_if(kTable.begin(), kTable.end(), [&](const Setting& setting) {
    return setting.configType == configType && section == setting.section && key == setting.key;
  });
  return found == kTable.end() ? nullptr : found;
}

bool knownSection(json::ConfigType configType, const std::string& section) {
  return std::any_of(kTable.begin(), kTable.end(), [&](const Setting& setting) {
    return setting.configType == configType && section == setting.section;
  });
}

Json::Value standardValue(const Setting& setting) {
  // Wrapped: the parser refuses a bare value.
  Json::Value wrapped;
  CppJson::LoadJsonString("[" + std::string(setting.standard) + "]", wrapped);
  return wrapped[0];
}

platform::Expected<void> checkValue(const Setting& setting, const Json::Value& value) {
  return checkKind(setting, value).map_error([&setting](const std::string& reason) {
    return std::string(setting.section) + "." + setting.key + " " + reason;
  });
}

}  // namespace agent::store
