#include "store/SettingsStore.h"

#include "json/CppJson.h"
#include "platform/Text.h"
#include "store/SettingsTable.h"

namespace agent::store {
namespace {

constexpr std::size_t kMaxChangeBytes = 1 << 20;

/// Puts one section's change into the document.
platform::Expected<void> mergeSection(json::ConfigType configType, const std::string& section,
                                      const Json::Value& change, Json::Value* document) {
  if (!knownSection(configType, section)) {
    return platform::failure("there is no section " + platform::visibleText(section) +
                             " in settings of type " + std::to_string(json::toNumber(configType)));
  }
  if (change.isNull()) {
    return {};
  }
  if (!change.isObject()) {
    return platform::failure("section " + section + " must be an object");
  }
  for (const std::string& key : change.getMemberNames()) {
    const Setting* setting = findSetting(configType, section, key);
    if (setting == nullptr) {
      return platform::failure("there is no setting " + section + "." + platform::visibleText(key));
    }
    if (auto allowed = checkValue(*setting, change[key]); !allowed) {
      return allowed;
    }
    (*document)[section][key] = change[key];
  }
  return {};
}

platform::Expected<void> merge(json::ConfigType configType, const std::string& text, Json::Value* document) {
  if (text.size() > kMaxChangeBytes) {
    return platform::failure("the change is longer than " + std::to_string(kMaxChangeBytes) + " bytes");
  }
  Json::Value change;
  if (!CppJson::LoadJsonString(text, change) || !change.isObject()) {
    return platform::failure("the change is not a JSON object");
  }
  for (const std::string& section : change.getMemberNames()) {
    if (auto merged = mergeSection(configType, section, change[section], document); !merged) {
      return merged;
    }
  }
  return {};
}

}  // namespace

SettingsStore::SettingsStore(Database& database, std::vector<std::string>* notices)
    : database_(database), save_(database, "INSERT OR REPLACE INTO settings VALUES (?,?)") {
  for (const Setting& setting : settingsTable()) {
    documents_[setting.configType][setting.section][setting.key] = standardValue(setting);
  }
  const std::lock_guard lock(database_.mutex());
  Statement stored(database_, "SELECT config_type,document FROM settings");
  while (stored.step()) {
    if (const auto configType = json::fromNumber<json::ConfigType>(stored.number(0))) {
      load(*configType, stored.text(1), notices);
    }
  }
}

void SettingsStore::load(json::ConfigType configType, const std::string& text,
                         std::vector<std::string>* notices) {
  const std::string where = "stored settings of type " + std::to_string(json::toNumber(configType)) + ": ";
  Json::Value stored;
  if (!CppJson::LoadJsonString(text, stored) || !stored.isObject()) {
    notices->push_back(where + "not a JSON object, the defaults hold");
    return;
  }
  for (const Setting& setting : settingsTable()) {
    if (setting.configType != configType || !stored[setting.section].isObject() ||
        !stored[setting.section].isMember(setting.key)) {
      continue;
    }
    const Json::Value& value = stored[setting.section][setting.key];
    if (const auto allowed = checkValue(setting, value); allowed) {
      documents_[configType][setting.section][setting.key] = value;
    } else {
      notices->push_back(where + allowed.error() + "; the default holds");
    }
  }
}

Json::Value SettingsStore::document(json::ConfigType configType) const {
  const std::lock_guard lock(mutex_);
  return documents_.at(configType);
}

platform::Expected<void> SettingsStore::change(json::ConfigType configType, const std::string& changeText) {
  const std::lock_guard lock(mutex_);
  Json::Value& current = documents_.at(configType);
  Json::Value changed = current;
  if (auto merged = merge(configType, changeText, &changed); !merged || changed == current) {
    return merged;
  }
  try {
    save(configType, changed);
  } catch (const std::exception& error) {
    return platform::failure(std::string("cannot be stored: ") + error.what());
  }
  current = std::move(changed);
  return {};
}

void SettingsStore::save(json::ConfigType configType, const Json::Value& document) {
  std::string text;
  if (!CppJson::WriteJsonToString(document, text, 1)) {
    throw StoreError("the settings cannot be written as text");
  }
  const std::lock_guard lock(database_.mutex());
  save_.bind(json::toNumber(configType), text).run();
}

}  // namespace agent::store
