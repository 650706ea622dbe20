#pragma once

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "store/RegionIndex.h"
#include "store/Sqlite.h"
#include "store/Store.h"

namespace agent::store {

/// Trust and reject entries: rows, and an index of them in memory that scans ask. Any thread.
class RegionStore : public Regions {
 public:
  explicit RegionStore(Database& database);
  bool change(json::Region region, const Json::Value& items, const CallerId& caller,
              std::string* why) override;
  Json::Value list(json::RegionDomain domain, json::RegionItemType itemType,
                   json::Region region) const override;
  RegionVerdict byPath(const std::string& path) const override;
  RegionVerdict byHash(const Verdict& hashes) const override;
  bool hashesNeeded() const override { return hashesNeeded_; }
  std::uint64_t generation() const override { return generation_; }

 private:
  struct Change {
    json::Region region = json::Region::kTrust;
    json::RegionDomain domain = json::RegionDomain::kPersonal;
    RegionItemType type = RegionItemType::kFile;
    bool add = false, all = false;
    std::int64_t validUntil = 0;
    std::vector<std::string> items;  ///< normalised
  };
  static std::string readChange(json::Region region, const Json::Value& items, Change* change);
  static std::string readItems(const Json::Value& items, Change* change);
  void store(const Change& change, uid_t caller);
  void addRows(const Change& change, uid_t caller);
  void deleteRows(const Change& change);
  void updateIndex(const Change& change);

  Database& database_;
  mutable std::shared_mutex mutex_;
  RegionIndex index_;
  std::atomic<bool> hashesNeeded_{false};
  std::atomic<std::uint64_t> generation_{0};
};

}  // namespace agent::store
