#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/Descriptor.h"
#include "store/AuditLog.h"
#include "store/Quarantine.h"
#include "store/Regions.h"
#include "store/ScanCache.h"
#include "store/SettingsStore.h"
#include "store/Sqlite.h"
#include "store/TaskRecords.h"
#include "store/WorkerDeaths.h"

namespace agent {

/// Two SQLite databases, the quarantine folder and the audit record under the agent's state folder. Any
/// thread.
class Store {
 public:
  /// Creates the folder (0700) and the schema, settles half-done quarantine work and loads the settings.
  /// restorePatience: how long a restore may make no progress before it is given up.
  /// audit: what the audit record keeps, and who gets it too.
  /// Throws StoreError when the store cannot be used.
  static std::unique_ptr<Store> open(const std::string& stateDir,
                                     std::chrono::milliseconds restorePatience = std::chrono::seconds(60),
                                     store::AuditOptions audit = {});
  Settings& settings() { return settings_; }
  store::Quarantine& quarantine() { return quarantine_; }
  store::Regions& regions() { return regions_; }
  store::ScanCache& cache() { return cache_; }
  store::TaskRecords& tasks() { return tasks_; }
  store::WorkerDeaths& workerDeaths() { return workerDeaths_; }
  /// The findings of open(), one line each, for the log.
  const std::vector<std::string>& notices() const { return notices_; }
  /// Writes a change to the audit record: caller, action, object, outcome. Never throws.
  void audit(const CallerId& who, const std::string& action, const std::string& object,
             const std::string& outcome) {
    audit_.add(who, action, object, outcome);
  }
  /// Records a refusal or a failure: a line, or a number in a later line. Never throws.
  void auditRefusal(const CallerId& who, const std::string& action, const std::string& object,
                    const std::string& outcome) {
    audit_.refuse(who, action, object, outcome);
  }
  /// AuditLog::settle.
  void settleAudit() { audit_.settle(); }

 private:
  Store(const std::string& stateDir, std::chrono::milliseconds restorePatience, store::AuditOptions audit);

  std::vector<std::string> notices_;
  platform::Descriptor lock_;
  std::unique_ptr<store::Database> database_, cacheDatabase_;
  store::AuditLog audit_;
  store::SettingsStore settings_;
  store::Regions regions_;
  store::ScanCache cache_;
  store::TaskRecords tasks_;
  store::WorkerDeaths workerDeaths_;
  store::Quarantine quarantine_;
};

}  // namespace agent
