#pragma once

#include <string>
#include <vector>

#include "platform/Posix.h"
#include "store/Sqlite.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// Permanent deletions. Each file is recorded before its entry is set aside, and its record is erased when
/// the file is gone. The next start can thus settle a file that a crash left under a private name. Any
/// thread.
class Deletions {
 public:
  explicit Deletions(Database& database) : database_(database) {}
  /// Removes the file if it is the scanned one. Throws StoreError with the reason; the file then stands in
  /// its place, or where the reason says.
  void run(const QuarantineRequest& request);
  /// Settles the records that a crash left. The recorded file is deleted if it was set aside; another file in
  /// its place gets its name back. A record stays if its folder cannot be reached. Each finding is a line in
  /// `notices`.
  void settle(std::vector<std::string>* notices);

 private:
  struct Row {
    std::string uuid, path;
    FileIdentity file;
  };
  void record(const Row& row);
  void forget(const std::string& uuid) noexcept;
  std::vector<Row> records();
  static bool settleOne(const Row& row, std::string* notice);

  Database& database_;
};

}  // namespace agent::store
