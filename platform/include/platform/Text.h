#pragma once

#include <cstddef>
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

/// Length in bytes of the well-formed UTF-8 character at the front (no overlong form, no surrogate, at most
/// U+10FFFF) and its code point in *value; 0 when there is none.
std::size_t utf8CharacterLength(std::string_view text, char32_t* value);

/// Text from outside, fit for a terminal, a report or a log line: control characters (C0, DEL, C1), the
/// characters that break a line or turn its direction (U+061C, U+200E/F, U+2028..202E, U+2066..2069) and
/// bytes that are not UTF-8 stand as `\n`, `\t`, `\r` or a `\xNN` for each byte; all else is untouched. The
/// result is valid UTF-8.
std::string visibleText(std::string_view text);

}  // namespace platform
