#include "lunet/Guid.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <string_view>
#include <utility>

namespace lunet {

namespace {

/// The text form: a 0 for each digit.
constexpr std::string_view kShape = "00000000-0000-0000-0000-000000000000";

/// The sixteen bytes in the order of the text. False for a text of another shape.
bool readBytes(std::string_view text, Guid& bytes) {
  if (text.size() == kShape.size() + 2 && text.front() == '{' && text.back() == '}') {
    text = text.substr(1, kShape.size());
  }
  if (text.size() != kShape.size()) {
    return false;
  }
  std::size_t digits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kShape[i] == '-' && text[i] == '-') {
      continue;
    }
    unsigned digit = 0;
    const char* const at = text.data() + i;
    if (kShape[i] == '-' || std::from_chars(at, at + 1, digit, 16).ptr == at) {
      return false;
    }
    std::uint8_t& byte = bytes[digits++ / 2];
    byte = static_cast<std::uint8_t>(byte * 16u + digit);
  }
  return true;
}

/// Converts between text order and host order; only the first three fields can differ.
Guid swapToHostOrder(Guid bytes) {
  if constexpr (std::endian::native == std::endian::little) {
    std::reverse(bytes.begin(), bytes.begin() + 4);
    std::swap(bytes[4], bytes[5]);
    std::swap(bytes[6], bytes[7]);
  }
  return bytes;
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
