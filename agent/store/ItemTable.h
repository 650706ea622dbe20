#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "store/ItemMeta.h"
#include "store/Sqlite.h"

namespace agent::store {

/// The state of a row of the quarantine. The database holds the numbers.
enum class ItemState {
  kRemoving = 0,   ///< the item is whole; the original is being removed
  kComplete = 1,   ///< the original is gone
  kRestoring = 2,  ///< complete, and a restore is under way
};

struct ItemRow {
  std::string uuid;
  ItemState state = ItemState::kComplete;
  std::uint64_t storedBytes = 0;
  std::string meta;     ///< ItemMeta::toText()
  std::string pending;  ///< of kRestoring: RestorePlan::toText()
};

/// The rows of the quarantine. A change is on disk when its call returns. Any thread; throws StoreError.
class ItemTable {
 public:
  explicit ItemTable(Database& database) : database_(database) {}
  void insert(const ItemMeta& meta, ItemState state, std::uint64_t storedBytes);
  void setState(const std::string& uuid, ItemState state, const std::string& pending);
  void erase(const std::string& uuid);
  std::optional<ItemRow> find(const std::string& uuid);
  std::vector<ItemRow> halfDone();   ///< in another state than kComplete
  std::vector<std::string> uuids();  ///< of all items in the quarantine, oldest first
  /// Visits the rows of all items in the quarantine, or of one owner's items, oldest first.
  void forEach(std::optional<uid_t> owner, const std::function<void(const ItemRow&)>& visit);
  std::uint64_t totalBytes();
  struct Aged {
    std::string uuid;
    std::int64_t isolateTimeSec;
    std::uint64_t storedBytes;
  };
  std::vector<Aged> byAge();  ///< complete items, oldest first

 private:
  Database& database_;
};

}  // namespace agent::store
