#include <array>
#include <cstdio>

#include "platform/Text.h"

namespace platform {

std::size_t utf8CharacterLength(std::string_view text, char32_t* value) {
  if (text.empty()) {
    return 0;
  }
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    *value = lead;
    return 1;
  }
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
    return 0;
  }
  char32_t code = lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
    code = (code << 6) | (byte(i) & 0x3Fu);
  }
  constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
    return 0;
  }
  *value = code;
  return length;
}

namespace {

void appendHex(std::string& out, char byte) {
  char text[8];
  std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
  out += text;
}

/// C0, DEL, C1, and the invisible characters that break or turn a line: they could disguise a name.
bool isHidden(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C ||
         (code >= 0x200E && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

/// The short form of a control character, or null.
const char* shortForm(char32_t code) {
  switch (code) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return nullptr;
  }
}

}  // namespace

std::string visibleText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    char32_t code = 0;
    const std::size_t length = utf8CharacterLength(text, &code);
    const std::string_view bytes = text.substr(0, length == 0 ? 1 : length);
    if (length != 0 && !isHidden(code)) {
      out += bytes;
    } else if (const char* brief = length == 0 ? nullptr : shortForm(code)) {
      out += brief;
    } else {
      for (const char byte : bytes) {
        appendHex(out, byte);
      }
    }
    text.remove_prefix(bytes.size());
  }
  return out;
}

}  // namespace platform
