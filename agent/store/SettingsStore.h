#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "store/Settings.h"
#include "store/Sqlite.h"

namespace agent::store {

/// The documents in force, in memory, and their rows. Any thread.
class SettingsStore : public Settings {
 public:
  /// Reads the stored documents over the defaults. The default replaces a stored value that the table does
  /// not allow, with a line in `notices`.
  SettingsStore(Database& database, std::vector<std::string>* notices);
  Json::Value document(json::ConfigType configType) const override;
  platform::Expected<void> change(json::ConfigType configType, const std::string& changeText) override;

 private:
  void load(json::ConfigType configType, const std::string& text, std::vector<std::string>* notices);
  void save(json::ConfigType configType, const Json::Value& document);

  Database& database_;
  Statement save_;
  mutable std::mutex mutex_;
  std::map<json::ConfigType, Json::Value> documents_;
};

}  // namespace agent::store
