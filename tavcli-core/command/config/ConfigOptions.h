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

/// What a typed number becomes.
enum class Typed { kInt, kReal };

/// The last keyword of a settings change.
struct EndNode {
  const char* name;
  const char* help;
  std::vector<Setting> writes;  ///< empty, and no typed key: accepted, changes nothing
  const char* hint = shell::kNoHint;
  const char* typedKey = nullptr;  ///< not null: a number follows, and is written under this key
  Typed typedAs = Typed::kInt;
  bool detached = false;  ///< kept, but cannot be typed
};

/// An option keyword below CONFIG MODIFY with its end nodes.
struct ConfigOption {
  const char* path;
  const char* help;
  std::vector<EndNode> ends;
  std::uint32_t flags = shell::kOption;
};

/// All options, sections in the order of the grammar. Lives to the end of the process.
const std::vector<ConfigOption>& configOptions();

}  // namespace command
