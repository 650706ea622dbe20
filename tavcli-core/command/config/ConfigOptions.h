#pragma once

#include <json/value.h>

#include <cstdint>
#include <vector>

#include "shell/GrammarTable.h"

namespace command {

struct Setting {
  const char* key;
  Json::Value value;
};

/// The JSON type of a typed number.
enum class Typed { kInt, kReal };

/// The last keyword of a change of settings.
struct EndNode {
  const char* name;
  const char* help;
  std::vector<Setting> writes;  ///< empty without a typed key: the keyword changes nothing
  const char* hint = shell::kNoHint;
  const char* typedKey = nullptr;  ///< not null: a number follows; its value goes under this key
  Typed typedAs = Typed::kInt;
  bool detached = false;  ///< has a record, but cannot be typed
};

/// An option keyword below CONFIG MODIFY, with its last keywords.
struct ConfigOption {
  const char* path;
  const char* help;
  std::vector<EndNode> ends;
  std::uint32_t flags = shell::kOption;
};

/// All options, in the order of the grammar. The list lives to the end of the process.
const std::vector<ConfigOption>& configOptions();

}  // namespace command
