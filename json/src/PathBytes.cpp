#include <utf8proc.h>

#include <algorithm>
#include <array>

#include "json/CppJson.h"
#include "platform/Text.h"

namespace json {
namespace {

/// The bytes 0x80 to 0xFF are sent as U+F780 to U+F7FF.
constexpr utf8proc_int32_t kByteBase = 0xF700;
constexpr utf8proc_int32_t kFirstByteCharacter = kByteBase + 0x80;
constexpr utf8proc_int32_t kLastByteCharacter = kByteBase + 0xFF;

bool isByteCharacter(utf8proc_int32_t character) {
  return character >= kFirstByteCharacter && character <= kLastByteCharacter;
}

struct Decoded {
  utf8proc_int32_t character = -1;  ///< -1: malformed bytes
  std::size_t length = 1;           ///< bytes taken
};

Decoded decodeAt(std::string_view text, std::size_t offset) {
  Decoded decoded;
  const std::size_t available = std::min<std::size_t>(text.size() - offset, 4);
  const utf8proc_ssize_t length =
      utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + offset),
                       static_cast<utf8proc_ssize_t>(available), &decoded.character);
  decoded.length = length > 0 ? static_cast<std::size_t>(length) : 1;
  return decoded;
}

void appendByteCharacter(std::string& out, char byte) {
  std::array<utf8proc_uint8_t, 4> encoded{};
  const utf8proc_ssize_t length =
      utf8proc_encode_char(kByteBase + static_cast<unsigned char>(byte), encoded.data());
  out.append(reinterpret_cast<const char*>(encoded.data()), static_cast<std::size_t>(length));
}

}  // namespace

std::string encodePath(std::string_view bytes) {
  std::string wire;
  wire.reserve(bytes.size());
  for (std::size_t i = 0; i < bytes.size();) {
    const Decoded decoded = decodeAt(bytes, i);
    const std::string_view taken = bytes.substr(i, decoded.length);
    if (decoded.character < 0 || isByteCharacter(decoded.character)) {
      for (const char byte : taken) {
        appendByteCharacter(wire, byte);
      }
    } else {
      wire.append(taken);
    }
    i += decoded.length;
  }
  return wire;
}

std::string decodePath(std::string_view wire) {
  std::string bytes;
  bytes.reserve(wire.size());
  for (std::size_t i = 0; i < wire.size();) {
    const Decoded decoded = decodeAt(wire, i);
    if (isByteCharacter(decoded.character)) {
      bytes.push_back(static_cast<char>(decoded.character - kByteBase));
    } else {
      bytes.append(wire.substr(i, decoded.length));
    }
    i += decoded.length;
  }
  return bytes;
}

std::string visiblePath(std::string_view wire) {
  return platform::visibleText(decodePath(wire));
}

}  // namespace json
