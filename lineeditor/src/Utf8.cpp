#include "Utf8.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace lineeditor {

namespace {

constexpr utf8proc_int32_t kZeroWidthNonJoiner = 0x200C;
constexpr utf8proc_int32_t kZeroWidthJoiner = 0x200D;

struct CodePoint {
  utf8proc_int32_t value = -1;  ///< -1: the byte is not UTF-8
  std::size_t length = 1;
};

CodePoint decode(std::string_view text, std::size_t offset) {
  CodePoint point;
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data() + offset);
  const utf8proc_ssize_t read =
      utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(text.size() - offset), &point.value);
  if (read <= 0) {
    return CodePoint{};
  }
  point.length = static_cast<std::size_t>(read);
  return point;
}

/// False for control characters, bidirectional overrides, line separators and unassigned code points. Such
/// code points would move the cursor, change the direction of the text or have an unknown width.
bool drawable(utf8proc_int32_t value) {
  if (value < 0 || value == kZeroWidthJoiner || value == kZeroWidthNonJoiner) {
    return value >= 0;
  }
  switch (utf8proc_category(value)) {
    case UTF8PROC_CATEGORY_CC:
    case UTF8PROC_CATEGORY_CF:
    case UTF8PROC_CATEGORY_CN:
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return false;
    default:
      return true;
  }
}

int columnsOf(utf8proc_int32_t value) {
  return std::clamp(utf8proc_charwidth(value), 0, 2);
}

/// Length and columns of the cluster that starts at offset with a drawable code point.
std::pair<std::size_t, int> cluster(std::string_view text, std::size_t offset) {
  CodePoint point = decode(text, offset);
  std::size_t end = offset + point.length;
  int width = columnsOf(point.value);
  utf8proc_int32_t state = 0;
  while (end < text.size()) {
    const CodePoint next = decode(text, end);
    if (!drawable(next.value) || utf8proc_grapheme_break_stateful(point.value, next.value, &state)) {
      break;
    }
    end += next.length;
    width += columnsOf(next.value);
    point = next;
  }
  return {end - offset, width};
}

Character characterAt(std::string_view text, std::size_t offset) {
  const auto byte = static_cast<unsigned char>(text[offset]);
  if (byte >= 0x20 && byte < 0x7F &&
      (offset + 1 >= text.size() || static_cast<unsigned char>(text[offset + 1]) < 0x80)) {
    return {offset, 1, false};  // plain ASCII, followed by no combining mark
  }
  const CodePoint point = decode(text, offset);
  if (!drawable(point.value)) {
    return {offset, point.length, true};
  }
  const auto [length, width] = cluster(text, offset);
  return {offset, length, width == 0};
}

void appendEscape(std::string_view character, std::vector<Glyph>& out) {
  char shown[8];
  for (const char c : character) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      std::snprintf(shown, sizeof shown, "^%c", byte ^ 0x40);
    } else {
      std::snprintf(shown, sizeof shown, "\\x%02x", byte);
    }
    for (const char* p = shown; *p != '\0'; ++p) {
      out.push_back({std::string(1, *p), 1});
    }
  }
}

template <class Convert>
std::string convertCase(std::string_view text, Convert convert) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const CodePoint point = decode(text, at);
    std::array<utf8proc_uint8_t, 4> bytes{};
    const utf8proc_ssize_t count =
        point.value < 0 ? 0 : utf8proc_encode_char(convert(point.value), bytes.data());
    if (count > 0) {
      out.append(reinterpret_cast<const char*>(bytes.data()), static_cast<std::size_t>(count));
    } else {
      out.append(text.substr(at, point.length));
    }
    at += point.length;
  }
  return out;
}

}  // namespace

std::vector<Character> characters(std::string_view text) {
  std::vector<Character> out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    out.push_back(characterAt(text, at));
    at += out.back().length;
  }
  return out;
}

std::vector<Glyph> glyphs(std::string_view character, bool shownAsEscape) {
  std::vector<Glyph> out;
  if (shownAsEscape) {
    appendEscape(character, out);
    return out;
  }
  for (std::size_t at = 0; at < character.size();) {
    const CodePoint point = decode(character, at);
    const int width = columnsOf(point.value);
    const std::string_view bytes = character.substr(at, point.length);
    if (width > 0 || out.empty()) {
      out.push_back({std::string(bytes), width});
    } else {
      out.back().text.append(bytes);
    }
    at += point.length;
  }
  return out;
}

std::vector<Glyph> glyphs(std::string_view text) {
  std::vector<Glyph> out;
  for (const Character& character : characters(text)) {
    for (Glyph& glyph : glyphs(text.substr(character.offset, character.length), character.shownAsEscape)) {
      out.push_back(std::move(glyph));
    }
  }
  return out;
}

std::size_t boundaryAtOrAfter(std::string_view text, std::size_t offset) {
  std::size_t at = 0;
  while (at < offset && at < text.size()) {
    at += characterAt(text, at).length;
  }
  return at;
}

std::size_t nextBoundary(std::string_view text, std::size_t offset) {
  return offset >= text.size() ? text.size() : offset + characterAt(text, offset).length;
}

std::size_t previousBoundary(std::string_view text, std::size_t offset) {
  std::size_t at = 0;
  for (std::size_t next = 0; next < offset; next = nextBoundary(text, at)) {
    at = next;
  }
  return at;
}

std::string_view cutAtCharacter(std::string_view text, std::size_t maxBytes) {
  text = text.substr(0, text.find('\0'));
  if (text.size() <= maxBytes) {
    return text;
  }
  std::size_t at = 0;
  for (std::size_t next = 0; next <= maxBytes; next = nextBoundary(text, at)) {
    at = next;
  }
  return text.substr(0, at);
}

std::size_t sequenceLength(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) {
    return 2;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    return 3;
  }
  return lead >= 0xF0 && lead <= 0xF4 ? 4 : 1;
}

std::size_t unfinishedTail(std::string_view text) {
  for (std::size_t back = 1; back <= 3 && back <= text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if ((byte & 0xC0) != 0x80) {
      return sequenceLength(byte) > back ? back : 0;
    }
  }
  return 0;
}

std::string upperCase(std::string_view text) {
  return convertCase(text, utf8proc_toupper);
}
std::string lowerCase(std::string_view text) {
  return convertCase(text, utf8proc_tolower);
}

}  // namespace lineeditor
