#pragma once

#include <cstdint>
#include <string>
#include <string_view>

class CStr {
 public:
  /// True for a decimal number: digits, at least one, with at most one sign before them.
  static bool isNum(std::string_view text);
};

class CDateTime {
 public:
  /// "yyyy-MM-dd hh:mm:ss" in local time from the low 32 bits of a count of seconds since 1970-01-01.
  static std::string format(std::int64_t secondsSinceEpoch);
  static std::string now();
  static std::int64_t nowSeconds();
};

class CUuid {
 public:
  /// A fresh random version-4 UUID as text. 0 on success.
  static int generate(std::string& out);
};

namespace platform {

/// Text from outside, fit for a terminal, a report or a log line: control characters (C0, DEL, C1) and bytes
/// that are not UTF-8 stand as `\n`, `\t`, `\r` or `\xNN`; all else is untouched. The result is valid UTF-8.
std::string visibleText(std::string_view text);

}  // namespace platform
