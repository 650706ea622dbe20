#pragma once

#include "store/Sqlite.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The tasks under way, in the cache's database. A restarted agent notifies the owners of interrupted tasks.
/// Any thread; every call throws StoreError when the database fails.
class TaskRecords {
 public:
  explicit TaskRecords(Database& database);
  void put(const TaskRecord& task);
  void remove(const std::string& token);
  std::vector<TaskRecord> all() const;

 private:
  Database& database_;
  Statement put_, remove_;
  mutable Statement all_;
};

}  // namespace agent::store
