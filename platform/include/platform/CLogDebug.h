#pragma once

#include <string>

#include "platform/Expected.h"
#include "platform/LogLevel.h"

/// The program's debug log: one file, rotated by size. Properties configure the log; the next record opens
/// the file. File and folder are closed to other users from the first moment. A folder that cannot be
/// written, or that other users can write, costs the log only. Control characters are made visible. Any
/// thread.
class CLogDebug {
 public:
  enum Property { kName = 1, kPath = 2, kLevel = 4, kSize = 8, kBackupCount = 16 };

  /// Null after Close, until Create.
  static CLogDebug* Instance();
  /// The instance; makes it when it is missing.
  static CLogDebug* Create();
  /// Whether records of the level are written.
  static bool CheckLogLevel(LogLevel level);
  /// Numbers as decimal text. Unknown codes and unreadable numbers change nothing.
  void SetProperty(int property, const std::string& text);
  /// Makes the folder of the path property. Fails when no log can be written there.
  static platform::Expected<void> makeFolder();
  static void LogPrintV(LogLevel level, const char* source, const char* function, int line,
                        const char* format, ...) __attribute__((format(printf, 5, 6)));
  static void LogPrintStr(LogLevel level, const char* source, const char* function, int line,
                          const std::string& text);
  /// Writes out and closes the log.
  static void Close();
};
