#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "platform/Posix.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The share of one field in a line of a log or an audit record. A long request of one caller then cannot
/// push the lines of other callers out of the file.
inline constexpr std::size_t kMaxFieldBytes = 16 << 10;
/// The end of a field that was cut to its share: the size of the whole text. Empty for a text that fits.
std::string cutRemark(std::string_view text);
/// The text, cut to its share, with the remark.
std::string cutField(std::string_view text);

/// The audit record: one line for each action, appended to audit.log in the state folder (0600). At 10 MB the
/// file becomes audit.log.1, and so on up to audit.log.4. Never throws. A line that cannot be written is
/// counted in the next line. Any thread.
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
