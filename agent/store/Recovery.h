#pragma once

#include <set>
#include <string>
#include <vector>

#include "store/ItemTable.h"
#include "store/RestorePlan.h"
#include "store/Vault.h"

namespace agent::store {

/// Settles at the start the work that a crash, a kill or a power cut left half-done. When a file and its item
/// both exist, the file is kept if the file is whole and under its own name. Its removal had then not begun,
/// or its restore had ended. The item is kept if the removal of the file had begun. An item that cannot be
/// judged is kept and reported. Nothing else may use the store meanwhile.
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
  platform::Expected<void> checkItemFile(const std::string& uuid) const;
  void notice(const std::string& uuid, const std::string& what);

  ItemTable& table_;
  const Vault& vault_;
  Regions& regions_;
  std::vector<std::string>& notices_;
};

}  // namespace agent::store
