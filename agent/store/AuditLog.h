#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "platform/Posix.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// A field's share of a line in a log or an audit record: one caller's long request must not push what others
/// did out of it.
inline constexpr std::size_t kMaxFieldBytes = 16 << 10;
/// What stands behind a field that was cut to its share: its size. Empty for one that fits.
std::string cutRemark(std::string_view text);
/// A text as a field, cut when it must be.
std::string cutField(std::string_view text);

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
  platform::Descriptor file_;
  std::int64_t size_ = 0;
  unsigned long lost_ = 0;
};

}  // namespace agent::store
