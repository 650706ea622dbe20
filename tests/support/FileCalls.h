#pragma once

#include <climits>
#include <string>
#include <vector>

namespace testsupport {

/// Records what this process and its forked children do to files: syncs, writes, renames, links and unlinks,
/// in their order. A program that links FileCalls has these calls of the C library replaced, for its
/// libraries too. One object at a time.
class FileCalls {
 public:
  FileCalls();
  ~FileCalls();
  FileCalls(const FileCalls&) = delete;
  FileCalls& operator=(const FileCalls&) = delete;

  /// The successful calls: "sync a", "syncfs a", "write a" (one line for several in a row), "rename a to b",
  /// "link a to b", "unlink a", "lock a" (an exclusive flock), "open for children a" (without O_CLOEXEC).
  /// Names stand without their folder, each UUID as "ID", a file without a name as "nameless".
  std::vector<std::string> seen() const;
  /// Makes the next `times` calls fail with this errno value whose line has this begin and end. "read a",
  /// "list attributes of a", "set mode of a", "set times of a" and "create nameless" can fail, too. Replaces
  /// the earlier fail().
  void fail(const std::string& begin, const std::string& end, int error, int times = INT_MAX);
};

}  // namespace testsupport
