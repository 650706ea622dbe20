#pragma once

#include <set>
#include <string>
#include <vector>

#include "store/ItemTable.h"
#include "store/RestorePlan.h"
#include "store/Vault.h"

namespace agent::store {

/// What the start does about work that a crash, a kill or a power cut left half-done. Both a file and an item
/// of it standing there is settled in favour of the file when that is whole and still under its own name (its
/// removal had not begun, or its restore had ended), and in favour of the item when the file's removal had
/// begun. What cannot be judged is kept, and said. Nothing else may use the store meanwhile.
class Recovery {
 public:
  Recovery(ItemTable& table, const Vault& vault, Regions& regions, std::vector<std::string>* notices)
      : table_(table), vault_(vault), regions_(regions), notices_(*notices) {}
  void run();

 private:
  void settleFiles();
  void adopt(const std::string& uuid);
  void settleRemoval(const ItemRow& row, const ItemMeta& meta);
  bool finishRemoval(const ItemMeta& meta, int folder);
  void settleRestore(const ItemRow& row, const ItemMeta& meta);
  void drop(const ItemRow& row);
  void keep(const ItemRow& row);
  std::string whyNoItem(const std::string& uuid) const;
  void notice(const std::string& uuid, const std::string& what);

  ItemTable& table_;
  const Vault& vault_;
  Regions& regions_;
  std::vector<std::string>& notices_;
};

}  // namespace agent::store
