#include "store/TaskRecords.h"

namespace agent::store {

TaskRecords::TaskRecords(Database& database)
    : database_(database),
      put_(database, "INSERT OR REPLACE INTO tasks VALUES (?,?,?,?,?,?)"),
      remove_(database, "DELETE FROM tasks WHERE token=?"),
      all_(database,
           "SELECT token,scan_type,owner_guid,owner_pid,owner_uid,owner_start FROM tasks ORDER BY rowid") {}

void TaskRecords::put(const TaskRecord& task) {
  const std::lock_guard lock(database_.mutex());
  put_.bind(task.token, task.scanType, task.ownerGuid, task.ownerPid, task.ownerUid, task.ownerStartTicks)
      .run();
}

void TaskRecords::remove(const std::string& token) {
  const std::lock_guard lock(database_.mutex());
  remove_.bind(token).run();
}

std::vector<TaskRecord> TaskRecords::all() const {
  const std::lock_guard lock(database_.mutex());
  std::vector<TaskRecord> tasks;
  all_.reset();
  while (all_.step()) {
    TaskRecord task;
    task.token = all_.text(0);
    task.scanType = static_cast<int>(all_.number(1));
    task.ownerGuid = all_.text(2);
    task.ownerPid = static_cast<pid_t>(all_.number(3));
    task.ownerUid = static_cast<uid_t>(all_.number(4));
    task.ownerStartTicks = static_cast<std::uint64_t>(all_.number(5));
    tasks.push_back(std::move(task));
  }
  all_.reset();
  return tasks;
}

}  // namespace agent::store
