#pragma once

#include <string>

namespace agent::store {

enum class RegionType { kFile, kFolder, kExtension, kMd5, kName, kSha1, kSha256 };
inline constexpr int kRegionTypes = 7;

/// Brings an entry to the one form that entries are kept and looked up in: paths absolute and without doubled
/// or trailing separators, extensions without their dot and in lower case, hashes in lower case. Empty, or
/// why the text is no such entry.
std::string normaliseRegionItem(RegionType type, const std::string& text, std::string* item);

}  // namespace agent::store
