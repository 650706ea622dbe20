#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "store/RegionText.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The entries of both regions in memory. A question of a scan costs one hash look-up for each component of
/// the path, however many entries there are. Not locked.
class RegionIndex {
 public:
  /// validUntil: seconds since 1970-01-01, 0 for ever. Replaces the validity of the same entry.
  void put(json::Region region, RegionItemType type, json::RegionDomain domain, const std::string& item,
           std::int64_t validUntil);
  void erase(json::Region region, RegionItemType type, json::RegionDomain domain, const std::string& item);
  void eraseAll(json::Region region, RegionItemType type, json::RegionDomain domain);

  RegionVerdict byPath(std::string_view path, std::int64_t now) const;
  RegionVerdict byHash(const Verdict& hashes, std::int64_t now) const;
  bool holdsHashes() const;

 private:
  static constexpr std::int64_t kAbsent = -1;
  struct Validity {
    std::array<std::int64_t, 2> until = {kAbsent, kAbsent};  ///< by domain
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  using Entries = std::unordered_map<std::string, Validity, Hash, std::equal_to<>>;

  const Entries& entries(json::Region region, RegionItemType type) const {
    return entries_[static_cast<std::size_t>(region)][static_cast<std::size_t>(type)];
  }
  Entries& entries(json::Region region, RegionItemType type) {
    return entries_[static_cast<std::size_t>(region)][static_cast<std::size_t>(type)];
  }
  static bool matches(const Entries& entries, std::string_view item, std::int64_t now);
  bool pathIn(json::Region region, std::string_view path, std::int64_t now) const;
  bool nameIn(json::Region region, std::string_view name, std::int64_t now) const;
  bool hashIn(json::Region region, const Verdict& hashes, std::int64_t now) const;

  std::array<std::array<Entries, json::kValuesOf<RegionItemType>.size()>,
             json::kValuesOf<json::Region>.size()>
      entries_;
};

}  // namespace agent::store
