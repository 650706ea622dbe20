#pragma once

#include <json/value.h>

#include <cstdint>
#include <span>
#include <string>

#include "json/Values.h"
#include "platform/Expected.h"

namespace agent::store {

enum class SettingKind {
  kSwitch,  ///< true or false
  kNumber,  ///< a whole number in a range
  kText,    ///< one line, at most `largest` bytes
  kWords,   ///< a list of words, each at most once
};

/// One setting: its place and its allowed values. The table defines all settings.
struct Setting {
  json::ConfigType configType;
  const char* section;
  const char* key;
  SettingKind kind;
  std::int64_t smallest, largest;
  const char* zero;      ///< the meaning of 0, or of an empty text or list; empty: no special meaning
  const char* standard;  ///< the default, as JSON text
  const char* words;     ///< the allowed words, separated by spaces; null: not a list
};

std::span<const Setting> settingsTable();
const Setting* findSetting(json::ConfigType configType, const std::string& section, const std::string& key);
bool knownSection(json::ConfigType configType, const std::string& section);
Json::Value standardValue(const Setting& setting);
/// Whether the value fits the setting.
platform::Expected<void> checkValue(const Setting& setting, const Json::Value& value);

}  // namespace agent::store
