#pragma once

#include "store/Sqlite.h"
#include "store/Store.h"

namespace agent::store {

/// Tasks under way, in the cache's database. Any thread.
class TaskTable : public TaskRecords {
 public:
  explicit TaskTable(Database& database);
  void put(const TaskRecord& task) override;
  void remove(const std::string& token) override;
  std::vector<TaskRecord> all() const override;

 private:
  Database& database_;
  Statement put_, remove_;
  mutable Statement all_;
};

}  // namespace agent::store
