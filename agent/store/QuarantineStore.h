#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "store/AuditLog.h"
#include "store/Deletions.h"
#include "store/ItemTable.h"
#include "store/OriginalFile.h"
#include "store/RestoreChild.h"
#include "store/RestorePlan.h"
#include "store/Store.h"
#include "store/Vault.h"

namespace agent::store {

/// The quarantine. The order of its steps is what keeps every file: an item's file is whole and synced, and
/// its row committed, before anything happens to the original; a restored file is synced before anything
/// happens to the item. Any thread.
class QuarantineStore : public Quarantine {
 public:
  /// Settles what a crash left half-done; what it found goes into `notices`.
  QuarantineStore(Database& database, const std::string& folder, Settings& settings, Regions& regions,
                  AuditLog& audit, std::chrono::milliseconds restorePatience,
                  std::vector<std::string>* notices);
  Result add(const QuarantineRequest& request) override;
  Result remove(const QuarantineRequest& request) override;
  Json::Value list(std::optional<uid_t> onlyOwner) const override;
  std::vector<RestoreOutcome> restore(const std::vector<std::string>& uuids, bool all, bool trust,
                                      const std::string& targetDir, const CallerId& caller) override;

 private:
  // QuarantineAdd.cpp
  Result take(OriginalFile& original, const QuarantineRequest& request);
  ItemMeta describe(const OriginalFile& original, const QuarantineRequest& request) const;
  std::uint64_t copy(const OriginalFile& original, const QuarantineRequest& request, ItemMeta* meta) const;
  void removeOriginal(OriginalFile& original, const std::string& uuid);
  // QuarantineLimits.cpp
  std::uint64_t limitBytes() const;  ///< UINT64_MAX: none
  void reserve(std::uint64_t bytes);
  void cleanWhenFull();
  void erase(const std::string& uuid, std::uint64_t storedBytes);
  // QuarantineRestore.cpp
  std::vector<std::string> uuidsFor(const CallerId& caller) const;
  Result restoreOne(const std::string& uuid, bool trust, const std::string& targetDir,
                    const CallerId& caller);
  Result restoreItem(const ItemRow& row, const ItemMeta& meta, const RestorePlan& plan,
                     const CallerId& caller);
  std::string transfer(const ItemMeta& meta, const RestorePlan& plan, const CallerId& caller,
                       RestoreReport* report) const;

  Settings& settings_;
  Regions& regions_;
  AuditLog& audit_;
  const std::chrono::milliseconds restorePatience_;
  mutable ItemTable table_;
  Deletions deletions_;
  Vault vault_;
  std::mutex items_;  ///< one at a time takes items out, by a restore or by cleaning
  std::atomic<std::uint64_t> usedBytes_{0};
};

}  // namespace agent::store
