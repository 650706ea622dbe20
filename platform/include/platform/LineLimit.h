#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace platform {

/// Limits the lines that one user causes in a log, so that no user's lines move those about others out of
/// the log. Any thread.
class LineLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;
  static constexpr std::chrono::minutes kWindow{1};
  /// Users with a share of their own; the others have one together.
  static constexpr std::size_t kMostUsers = 1000;
  explicit LineLimit(unsigned linesAMinute) : most_(linesAMinute) {}
  /// Counts a line. Nothing: the line is left out. Else the remark on lines that are left out, to stand
  /// behind the line; mostly empty.
  std::optional<std::string> admit(uid_t user, Time now = std::chrono::steady_clock::now());

 private:
  struct Share {
    Time since;
    unsigned long lines = 0;
  };
  Share& shareOf(uid_t user, Time now);

  const unsigned most_;
  std::mutex mutex_;
  std::map<uid_t, Share> shares_;  // guarded by mutex_
};

}  // namespace platform
