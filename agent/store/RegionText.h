#pragma once

#include <string>

#include "json/Values.h"
#include "platform/Expected.h"

namespace agent::store {

using json::RegionItemType;

/// Brings an entry to the one form that entries are kept and looked up in: paths absolute and without doubled
/// or trailing separators, extensions without their dot and in lower case, hashes in lower case.
platform::Expected<std::string> normaliseRegionItem(RegionItemType type, const std::string& text);

}  // namespace agent::store
