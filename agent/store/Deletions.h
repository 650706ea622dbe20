#pragma once

#include <string>
#include <vector>

#include "platform/Posix.h"
#include "store/Sqlite.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// Files that are deleted for good. Each is recorded before its entry is set aside and forgotten when it is
/// gone, so that the next start can settle what a crash left under a private name. Any thread.
class Deletions {
 public:
  explicit Deletions(Database& database) : database_(database) {}
  /// Removes the file if it is the one that was scanned. Throws StoreError with the reason; the file then
  /// stands where it was, or where the reason says.
  void run(const QuarantineRequest& request);
  /// What the start does about records that are left: a file that was set aside goes when it is the recorded
  /// one, else it gets its name back. One whose folder cannot be reached keeps its record. What was found
  /// goes into `notices`.
  void settle(std::vector<std::string>* notices);

 private:
  struct Row {
    std::string uuid, path;
    FileIdentity file;
  };
  void record(const Row& row);
  void forget(const std::string& uuid) noexcept;
  std::vector<Row> left();
  static bool settleOne(const Row& row, std::string* notice);

  Database& database_;
};

}  // namespace agent::store
