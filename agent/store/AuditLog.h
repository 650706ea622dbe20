#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "store/AuditFile.h"
#include "store/StoreTypes.h"
#include "store/SystemLog.h"

namespace agent::store {

/// The share of one field in a line of a log or of the audit record.
inline constexpr std::size_t kMaxFieldBytes = 512;
/// The text, cut to its share. A text that was cut has its size and its SHA-256 behind it.
std::string cutField(std::string_view text);

struct AuditOptions {
  AuditKeeping keeping;
  std::string systemLog;  ///< the socket of the journal or syslog, which gets each line too; empty: none
  std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
};

/// The audit record, with times in UTC: audit.log has each change, audit-refusals.log has what was refused or
/// failed. So no number of refusals moves a change out of the record. A user's first refusal is a line of its
/// own; the refusals of each minute after it are one line with their number. A line is on the disk when the
/// call returns; a line that the disk refuses is written once there is space. Never throws. Any thread.
class AuditLog {
 public:
  static constexpr std::chrono::minutes kWindow{1};
  static constexpr std::size_t kMostUsers = 1000;  ///< that are counted on their own; the others together
  static constexpr std::size_t kMostActions = 16;  ///< that one line names

  explicit AuditLog(const std::string& folder, AuditOptions options = {});
  /// Writes what waits, and the refusals that are counted so far.
  ~AuditLog();
  AuditLog(const AuditLog&) = delete;
  AuditLog& operator=(const AuditLog&) = delete;

  void add(const CallerId& who, const std::string& action, const std::string& object,
           const std::string& outcome) noexcept;
  void refuse(const CallerId& who, const std::string& action, const std::string& object,
              const std::string& outcome) noexcept;
  /// Writes what waits: lines that the disk refused, and numbers of refusals whose minute is over. To be
  /// called now and then.
  void settle() noexcept;

 private:
  using Time = std::chrono::steady_clock::time_point;
  struct Refusals {
    Time since;
    std::map<std::string, unsigned long> uncounted;  ///< since then, by action
  };

  void writeRefusal(const std::string& line);
  void writeCounts(Time until);
  uid_t countedAs(uid_t uid) const;

  const AuditOptions options_;
  std::mutex mutex_;  // guards the rest
  AuditFile changes_;
  AuditFile refusals_;
  SystemLog systemLog_;
  std::map<uid_t, Refusals> users_;
};

}  // namespace agent::store
