#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "lunet/LogLevels.h"
#include "lunet/Lunet.h"
#include "platform/Descriptor.h"
#include "platform/LineLimit.h"

namespace lunet {

/// The library's own log: a file that is rotated by size, and a callback for the same records. With an unsafe
/// or unwritable folder, or a full disk, only records are lost. Any thread.
class Log {
 public:
  using Level = BusLogLevel;

  struct Settings {
    std::string path;             ///< empty: no file
    std::string backupPath;       ///< empty: a full file is emptied instead of kept
    Level level = Level::kError;  ///< records above it are dropped; kOff drops all
    std::string name;             ///< names this process in each record
  };

  /// A file of this size is rotated; so many old files are kept.
  static constexpr std::int64_t kFileBytes = 1 << 20;
  static constexpr int kBackups = 5;

  void open(Settings settings);
  void setCallback(LogCallback callback) { callback_.store(callback); }
  bool wants(Level level) const { return level <= level_.load(std::memory_order_relaxed); }
  /// Makes the text's control characters visible.
  void write(Level level, std::string_view text);
  /// A record of something that this user can make happen: at most so many a minute are written.
  static constexpr unsigned kLinesAMinute = 10;
  void writeOf(uid_t user, Level level, const std::string& text);
  void close();

 private:
  void append(const std::string& line);
  bool openFile();
  void rotate();

  std::atomic<Level> level_{Level::kOff};
  std::atomic<LogCallback> callback_{nullptr};
  platform::LineLimit limit_{kLinesAMinute};
  std::mutex mutex_;
  Settings settings_;  // the rest is guarded by mutex_
  platform::Descriptor file_;
};

/// For a catch block: writes the exception as an error, "<what>: <its text>".
void logCurrentException(Log& log, const char* what) noexcept;

}  // namespace lunet
