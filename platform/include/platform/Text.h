#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Text, dates and identifiers. Each class is defined in the file of its name, the functions in
/// VisibleText.cpp.

class CStr {
 public:
  /// True for a decimal number: an optional sign and at least one digit.
  static bool isNum(std::string_view text);
  /// The parts between the separators, without empty parts. Valid as long as the text.
  static std::vector<std::string_view> split(std::string_view text, char separator);
};

class CDateTime {
 public:
  /// "yyyy-MM-dd hh:mm:ss" in local time, from the low 32 bits of the seconds since 1970-01-01.
  static std::string format(std::int64_t secondsSinceEpoch);
  static std::string now();
};

class CUuid {
 public:
  /// A random version-4 UUID as text.
  static std::string generate();
};

namespace platform {

/// The length in bytes of the UTF-8 character at the front, with its code point in *value. 0 for a malformed
/// character: an overlong form, a surrogate, a code point above U+10FFFF.
std::size_t utf8CharacterLength(std::string_view text, char32_t* value);

/// Text from outside, fit for a terminal, a report or a log line. `\n`, `\t`, `\r`, or `\xNN` for each byte,
/// replace three kinds of characters; the result is valid UTF-8. The kinds are control characters (C0, DEL,
/// C1), characters that break or turn a line (U+061C, U+200E/F, U+2028..202E, U+2066..2069), and bytes that
/// are not UTF-8.
std::string visibleText(std::string_view text);

}  // namespace platform
