#pragma once

#include <algorithm>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "json/Values.h"
#include "support/Golden.h"

/// The changes of CONFIG MODIFY and the rows of CONFIG SHOW, from the golden files of the console's tests.
namespace testsupport {

using Document = std::optional<json::ConfigType>;

inline constexpr std::pair<Document, const char*> kDocumentNames[] = {
    {json::ConfigType::kScan, "Scan"},       {json::ConfigType::kQuarantine, "Quarantine"},
    {json::ConfigType::kEngines, "Engines"}, {json::ConfigType::kRealTime, "RealTime"},
    {std::nullopt, "nothing is sent"},
};

inline Document documentOf(const std::string& name) {
  return std::find_if(std::begin(kDocumentNames), std::end(kDocumentNames),
                      [&](const auto& row) { return row.second == name; })
      ->first;
}

inline const char* nameOf(Document document) {
  return std::find_if(std::begin(kDocumentNames), std::end(kDocumentNames),
                      [&](const auto& row) { return row.first == document; })
      ->second;
}

/// A command line and the change that reaches the agent.
struct Change {
  std::string line;
  Document document;  ///< empty: nothing is sent
  std::string text;
  const char* name = nullptr;  ///< what the line proves; null: the line names itself
};

inline void PrintTo(const Change& change, std::ostream* out) {
  *out << change.line;
}

inline const char kConfigChanges[] = "tavcli-core/data/config_changes.txt";

/// Every end of the grammar below CONFIG MODIFY, with 8 where a number is typed.
inline std::vector<Change> configLines() {
  std::vector<Change> changes;
  for (const std::vector<std::string>& row : goldenFields(kConfigChanges)) {
    changes.push_back({row.at(0), documentOf(row.at(1)), row.size() > 2 ? row.at(2) : ""});
  }
  return changes;
}

/// A row of CONFIG SHOW.
struct ShownSetting {
  json::ConfigType document;
  std::string section, key, label;
  std::string kind;  ///< of the values
};

inline void PrintTo(const ShownSetting& row, std::ostream* out) {
  *out << row.section << "/" << row.key;
}

/// The rows that display one key each, in the order of the display.
inline std::vector<ShownSetting> shownSettings() {
  std::vector<ShownSetting> rows;
  for (const std::vector<std::string>& row : goldenFields("tavcli-core/data/config_rows.txt")) {
    rows.push_back({*documentOf(row.at(0)), row.at(1), row.at(2), row.at(3), row.at(4)});
  }
  return rows;
}

inline const char kConfigValues[] = "tavcli-core/data/config_values.txt";

/// A value of a kind of row.
struct ShownValue {
  std::string kind;
  std::string json;  ///< "(absent)" where the document lacks the key
  std::string text;
};

inline std::vector<ShownValue> shownValues() {
  std::vector<ShownValue> values;
  for (const std::vector<std::string>& row : goldenFields(kConfigValues)) {
    values.push_back({row.at(0), row.at(1), row.size() > 2 ? row.at(2) : ""});
  }
  return values;
}

}  // namespace testsupport
