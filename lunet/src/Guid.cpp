#include "lunet/Guid.h"

#include <cstring>
#include <string_view>

namespace lunet {

namespace {

/// The width of each field of the text, in order, and the bytes that it fills.
constexpr std::string_view kShape = "00000000-0000-0000-0000-000000000000";

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

/// The sixteen bytes in the order of the text; false when it is not of the shape.
bool readBytes(std::string_view text, Guid& bytes) {
  if (text.size() == kShape.size() + 2 && text.front() == '{' && text.back() == '}') {
    text = text.substr(1, kShape.size());
  }
  if (text.size() != kShape.size()) {
    return false;
  }
  std::size_t digits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kShape[i] == '-') {
      if (text[i] != '-') {
        return false;
      }
      continue;
    }
    const int value = hexValue(text[i]);
    if (value < 0) {
      return false;
    }
    std::uint8_t& byte = bytes[digits / 2];
    byte = static_cast<std::uint8_t>((byte << 4) | value);
    ++digits;
  }
  return true;
}

/// Text order and travelling order differ in the first three fields on little-endian machines; the same
/// step goes both ways.
Guid swapToHostOrder(const Guid& bytes) {
  Guid out = bytes;
  const std::uint32_t first = static_cast<std::uint32_t>(bytes[0]) << 24 |
                              static_cast<std::uint32_t>(bytes[1]) << 16 |
                              static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
  const auto second = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
  const auto third = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
  std::memcpy(out.data(), &first, 4);
  std::memcpy(out.data() + 4, &second, 2);
  std::memcpy(out.data() + 6, &third, 2);
  return out;
}

}  // namespace

Guid parseGuid(const char* text) noexcept {
  Guid bytes{};
  if (text == nullptr || !readBytes(text, bytes)) {
    return Guid{};
  }
  return swapToHostOrder(bytes);
}

std::string formatGuid(const Guid& guid) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const Guid bytes = swapToHostOrder(guid);
  std::string text(kShape);
  std::size_t digits = 0;
  for (char& c : text) {
    if (c != '-') {
      const std::uint8_t byte = bytes[digits / 2];
      c = kDigits[digits % 2 == 0 ? byte >> 4 : byte & 0x0F];
      ++digits;
    }
  }
  return text;
}

}  // namespace lunet
