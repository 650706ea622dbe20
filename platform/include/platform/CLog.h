#pragma once

/// The base library's log: levels 0 to 3, 3 being error. Records below the level are dropped; the others go
/// to the callback, if any. Any thread; the callback must not throw.
class CLog {
 public:
  using Callback = void (*)(int level, const char* text);
  static void set_log_level(int level);
  static int log_level();
  static void set_log_callback(Callback callback);
  /// printf-style.
  static void emit(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
};
