#pragma once

#include <string>

#include "platform/LogLevel.h"

/// The program's debug log: one file that is rotated by size. Set up by
/// properties; the file is opened by the first record behind them. A folder that cannot be written, or
/// that others can write, costs the log and nothing else. Control characters are made visible. Any thread.
class CLogDebug {
 public:
  enum Property { kName = 1, kPath = 2, kLevel = 4, kSize = 8, kBackupCount = 16 };

  /// None after Close, until the next SetProperty-er asks with Create.
  static CLogDebug* Instance();
  /// The instance, made when there is none.
  static CLogDebug* Create();
  /// True when a record of that level would be written.
  static bool CheckLogLevel(LogLevel level);
  /// Numbers as decimal text. Unknown codes and unreadable numbers change nothing.
  void SetProperty(int property, const std::string& text);
  /// Makes the folder of the path property. Empty, or one line that says why no log will be written there.
  static std::string whyNoFolder();
  static void LogPrintV(LogLevel level, const char* source, const char* function, int line,
                        const char* format, ...) __attribute__((format(printf, 5, 6)));
  static void LogPrintStr(LogLevel level, const char* source, const char* function, int line,
                          const std::string& text);
  /// Writes out and forgets the log.
  static void Close();
};
