#pragma once

#include <json/value.h>

#include <atomic>
#include <shared_mutex>
#include <string>
#include <vector>

#include "store/RegionIndex.h"
#include "store/Sqlite.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The trust list and the reject list: rows, and an index in memory for scans. Any thread.
class Regions {
 public:
  /// The most entries of both lists together. An addition beyond a limit is refused as a whole.
  static constexpr std::int64_t kMostEntries = 100'000;

  explicit Regions(Database& database);
  /// items: {"action":json::RegionAction,"type":json::RegionItemType,"domain":json::RegionDomain but kEvery,
  /// "is_all":bool,"items":[…]}, and optionally "valid_until": seconds since 1970-01-01, 0 for ever. Texts of
  /// items are in wire form (json::encodePath). One bad item refuses the whole change. Adding a present item
  /// renews its validity; deleting an absent item succeeds. is_all deletes every entry of the type and
  /// domain.
  platform::Expected<void> change(json::Region region, const Json::Value& items, const CallerId& caller);
  /// JSON array of JsonReflect::FilterRegionItem. What an entry tells of a file (existence, size, MD5) is of
  /// the time of its last change; withFacts false leaves that out. Opens no file. Throws StoreError when the
  /// database fails.
  Json::Value list(json::RegionDomain domain, json::RegionItemType itemType, json::Region region,
                   bool withFacts = true) const;
  /// By path, folder, extension and name, without opening the file. Cheap.
  RegionVerdict byPath(const std::string& path) const;
  /// By MD5, SHA1 and SHA256.
  RegionVerdict byHash(const Verdict& hashes) const;
  /// Whether an entry of a hash exists.
  bool hashesNeeded() const { return hashesNeeded_; }
  /// Changes with every change of a region: part of the key of cached scan answers.
  std::uint64_t generation() const { return generation_; }

 private:
  struct Change {
    json::Region region = json::Region::kTrust;
    json::RegionDomain domain = json::RegionDomain::kPersonal;
    RegionItemType type = RegionItemType::kFile;
    bool add = false, all = false;
    std::int64_t validUntil = 0;
    std::vector<std::string> items;  ///< normalised
  };
  /// What the list tells of an entry's file.
  struct Facts {
    bool existed = false;
    std::int64_t size = 0;
    std::string md5;
  };
  static Facts factsOf(RegionItemType type, const std::string& item, std::int64_t* budget);
  static std::vector<Facts> factsOf(const Change& change);
  static platform::Expected<Change> readChange(json::Region region, const Json::Value& items);
  static platform::Expected<std::vector<std::string>> readItems(RegionItemType type,
                                                                const Json::Value& items);
  void store(const Change& change, const std::vector<Facts>& facts, uid_t caller);
  void addRows(const Change& change, const std::vector<Facts>& facts, uid_t caller);
  void checkNumber() const;
  void deleteRows(const Change& change);
  void updateIndex(const Change& change);

  Database& database_;
  mutable std::shared_mutex mutex_;
  RegionIndex index_;
  std::atomic<bool> hashesNeeded_{false};
  std::atomic<std::uint64_t> generation_{0};
};

}  // namespace agent::store
