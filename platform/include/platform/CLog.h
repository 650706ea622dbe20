#pragma once

#include "platform/LogLevel.h"

/// The base library's log. Records below the level are dropped; the callback, if any, gets the others. Any
/// thread; the callback must not throw.
class CLog {
 public:
  /// level: the number of a CLogLevel.
  using Callback = void (*)(int level, const char* text);
  static void set_log_level(CLogLevel level);
  static CLogLevel log_level();
  static void set_log_callback(Callback callback);
  /// printf-style.
  static void emit(CLogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));
};
