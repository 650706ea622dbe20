#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "lunet/LogLevels.h"
#include "lunet/Lunet.h"
#include "platform/Descriptor.h"

namespace lunet {

/// The library's own log: one file, rotated by size into a folder of old ones, and the same records to a
/// callback. A folder that cannot be written, or that somebody else could plant links in, and
/// a full disk cost no more than the records. Any thread.
class Log {
 public:
  using Level = BusLogLevel;

  struct Settings {
    std::string path;             ///< empty: no file
    std::string backupPath;       ///< empty: a full file is emptied instead of kept
    Level level = Level::kError;  ///< records above it are dropped; kOff drops all
    std::string name;             ///< names this process in each record
  };

  /// Files of this size are moved away; that many are kept.
  static constexpr std::int64_t kFileBytes = 1 << 20;
  static constexpr int kBackups = 5;

  void open(Settings settings);
  void setCallback(LogCallback callback) { callback_.store(callback); }
  bool wants(Level level) const { return level <= level_.load(std::memory_order_relaxed); }
  /// Text from outside is welcome: control characters are made visible here.
  void write(Level level, std::string_view text);
  void close();

 private:
  void append(const std::string& line);
  bool openFile();
  void rotate();

  std::atomic<Level> level_{Level::kOff};
  std::atomic<LogCallback> callback_{nullptr};
  std::mutex mutex_;
  Settings settings_;  // the rest is guarded by mutex_
  platform::Descriptor file_;
};

}  // namespace lunet
