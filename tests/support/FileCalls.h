#pragma once

#include <climits>
#include <string>
#include <vector>

namespace testsupport {

/// What this process and the children that it forks do to files while one of these stands: syncs, writes,
/// renames, links and unlinks, in their order. A program that uses it has these calls of the C library
/// replaced, for its libraries too. One at a time.
class FileCalls {
 public:
  FileCalls();
  ~FileCalls();
  FileCalls(const FileCalls&) = delete;
  FileCalls& operator=(const FileCalls&) = delete;

  /// Calls that went well: "sync a", "syncfs a", "write a" (one line for several in a row), "rename a to b",
  /// "link a to b", "unlink a", "lock a" (by flock, for one alone), "open for children a" (without
  /// O_CLOEXEC). Names stand without their folder, each UUID as "ID", a file without a name as "nameless".
  std::vector<std::string> seen() const;
  /// The next calls, so many of them, whose line begins and ends so fail with this errno value. "read a",
  /// "list attributes of a" and "create nameless" can fail too. Replaces the call that failed so far.
  void fail(const std::string& begin, const std::string& end, int error, int times = INT_MAX);
};

}  // namespace testsupport
