#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

#include "platform/Descriptor.h"

namespace agent::store {

/// What the files of the audit record keep.
struct AuditKeeping {
  std::int64_t fileBytes = 10 << 20;                      ///< a full file gets a number
  std::chrono::hours age = std::chrono::hours(24 * 365);  ///< of the last line; older files are deleted …
  std::int64_t floorBytes = 64 << 20;                     ///< … as long as the other files hold this much
};

/// One file of the audit record (0600), and its full predecessors: NAME.1 is the newest of them. Each line is
/// synced. A line for which the disk has no space waits in memory. One thread at a time.
class AuditFile {
 public:
  static constexpr std::size_t kMostWaiting = 1000;  ///< lines; those after them are counted
  AuditFile(std::string path, const AuditKeeping& keeping);
  /// line: without its end.
  void append(const std::string& line);
  /// Writes the lines that wait.
  void writeWaiting();

 private:
  bool open();
  bool write(const std::string& line);
  void rotate();
  void removeOld() const;
  std::string numbered(int number) const;

  const std::string path_;
  const AuditKeeping keeping_;
  platform::Descriptor file_;
  std::int64_t size_ = 0;
  bool cutLine_ = false;  ///< the file ends within a line
  std::deque<std::string> waiting_;
  unsigned long lost_ = 0;
};

}  // namespace agent::store
