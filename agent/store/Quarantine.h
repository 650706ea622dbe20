#pragma once

#include <json/value.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "store/AuditLog.h"
#include "store/Deletions.h"
#include "store/ItemTable.h"
#include "store/OriginalFile.h"
#include "store/RestoreChild.h"
#include "store/RestorePlan.h"
#include "store/Settings.h"
#include "store/StoreTypes.h"
#include "store/Vault.h"

namespace agent::store {

/// The quarantine. The order of its steps keeps every file. An item's file is whole and synced, and its row
/// is committed, before the original is touched. A restored file is synced before the item is touched. Any
/// thread. Of the calls, only list() throws. Defined in QuarantineAdd.cpp, QuarantineLimits.cpp and
/// QuarantineRestore.cpp.
class Quarantine {
 public:
  /// Settles work that a crash left half-done; each finding is a line in `notices`.
  Quarantine(Database& database, const std::string& folder, Settings& settings, Regions& regions,
             AuditLog& audit, std::chrono::milliseconds restorePatience, std::vector<std::string>* notices);
  /// Copies the file into the quarantine, syncs the copy and records the item. Then checks that the original
  /// is still the same file, and removes the original. The request can break off the copy.
  platform::Expected<Remark> add(const QuarantineRequest& request);
  /// Deletes the file for good, after the same checks. Ignores the request's detection and md5.
  platform::Expected<Remark> remove(const QuarantineRequest& request);
  /// JSON array of JsonReflect::IsolationItem, oldest first. onlyOwner: only items of that user's files.
  /// Throws StoreError when the database fails.
  Json::Value list(std::optional<uid_t> onlyOwner) const;
  struct RestoreOutcome {
    std::string uuid;
    platform::Expected<Remark> result;
  };
  /// trust: also adds the path to the trust region. targetDir (bytes) empty: the original folder. all: every
  /// item, for a caller other than root the items of that user's files; uuids is then ignored. Forks for each
  /// item; one restore at a time. A restore without progress is given up, and the items behind it are not
  /// tried.
  std::vector<RestoreOutcome> restore(const std::vector<std::string>& uuids, bool all, bool trust,
                                      const std::string& targetDir, const CallerId& caller);

 private:
  // QuarantineAdd.cpp
  platform::Expected<Remark> take(OriginalFile& original, const QuarantineRequest& request);
  ItemMeta describe(const OriginalFile& original, const QuarantineRequest& request) const;
  std::uint64_t copy(const OriginalFile& original, const QuarantineRequest& request, ItemMeta* meta) const;
  void removeOriginal(OriginalFile& original, const std::string& uuid);
  // QuarantineLimits.cpp
  std::uint64_t limitBytes() const;  ///< UINT64_MAX: no limit
  void reserve(std::uint64_t bytes);
  void cleanWhenFull();
  void erase(const std::string& uuid, std::uint64_t storedBytes);
  // QuarantineRestore.cpp
  std::vector<std::string> uuidsFor(const CallerId& caller) const;
  platform::Expected<Remark> restoreOne(const std::string& uuid, bool trust, const std::string& targetDir,
                                        const CallerId& caller, RestoreReport* report);
  platform::Expected<Remark> restoreItem(const ItemRow& row, const ItemMeta& meta, const RestorePlan& plan,
                                         const CallerId& caller, RestoreReport* report);
  platform::Expected<void> transfer(const ItemMeta& meta, const RestorePlan& plan, const CallerId& caller,
                                    RestoreReport* report) const;

  Settings& settings_;
  Regions& regions_;
  AuditLog& audit_;
  const std::chrono::milliseconds restorePatience_;
  mutable ItemTable table_;
  Deletions deletions_;
  Vault vault_;
  std::mutex items_;  ///< held while a restore or cleaning takes items out
  std::atomic<std::uint64_t> usedBytes_{0};
};

}  // namespace agent::store
