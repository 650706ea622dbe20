#pragma once

#include <string>
#include <string_view>

#include "json/Values.h"
#include "platform/Expected.h"

namespace agent::store {

using json::RegionItemType;

/// The form in which an entry is stored and looked up. Paths are absolute and have no doubled or trailing
/// separators. Extensions have no dot. Extensions and hashes are in lower case.
platform::Expected<std::string> normaliseRegionItem(RegionItemType type, const std::string& text);

/// A to Z in lower case; other bytes stay.
std::string asciiLowerCase(std::string_view text);

}  // namespace agent::store
