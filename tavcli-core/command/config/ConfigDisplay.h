#pragma once

#include <json/value.h>

#include <list>
#include <string>
#include <utility>

namespace command {

/// Labels and values, in the order of printing.
using SettingRows = std::list<std::pair<std::string, std::string>>;

/// The rows of each settings document. Every JSON value is accepted: an absent section gives no rows, and an
/// absent or mistyped key counts as 0. Control characters of the agent's texts are made visible.
SettingRows scanSettingRows(const Json::Value& document);
SettingRows quarantineSettingRows(const Json::Value& document);
SettingRows engineSettingRows(const Json::Value& document);
SettingRows realProtectSettingRows(const Json::Value& document);

/// The text as printed: an empty line, then one line for each row.
std::string settingsText(const SettingRows& rows);

}  // namespace command
