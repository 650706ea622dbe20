#pragma once

#include <mutex>
#include <string>

#include "store/Posix.h"
#include "store/Store.h"

namespace agent::store {

/// Who did what, one line each, only ever appended to: audit.log in the state folder (0600). At 10 MB it
/// becomes audit.log.1, and so on up to audit.log.4. Never throws; what cannot be written is counted in the
/// next line that can. Any thread.
class AuditLog {
 public:
  static constexpr std::int64_t kMaxBytes = 10 << 20;
  static constexpr int kKept = 4;
  explicit AuditLog(std::string path, std::int64_t maxBytes = kMaxBytes);
  void add(const CallerId& who, const std::string& action, const std::string& object,
           const std::string& outcome) noexcept;

 private:
  bool open();
  void rotate();
  bool append(const std::string& line);

  const std::string path_;
  const std::int64_t maxBytes_;
  std::mutex mutex_;
  UniqueFd file_;
  std::int64_t size_ = 0;
  unsigned long lost_ = 0;
};

}  // namespace agent::store
