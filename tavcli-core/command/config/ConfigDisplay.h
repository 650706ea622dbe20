#pragma once

#include <json/value.h>

#include <list>
#include <string>
#include <utility>

namespace command {

/// Label and value, in the order of printing.
using SettingRows = std::list<std::pair<std::string, std::string>>;

/// The rows of each settings document. Any JSON will do: an absent section gives no rows, an absent or
/// mistyped key reads as 0, and what the agent wrote is made fit for a terminal.
SettingRows scanSettingRows(const Json::Value& document);
SettingRows quarantineSettingRows(const Json::Value& document);
SettingRows engineSettingRows(const Json::Value& document);
SettingRows realProtectSettingRows(const Json::Value& document);

/// As printed: an empty line, then a line a row.
std::string settingsText(const SettingRows& rows);

}  // namespace command
