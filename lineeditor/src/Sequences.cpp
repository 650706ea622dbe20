#include "Sequences.h"

namespace lineeditor::sequence {

namespace {

constexpr std::uint32_t kNumberMask = 127;
constexpr std::uint32_t kForegroundBright = 128;
constexpr std::uint32_t kBackgroundBright = 32768;
constexpr std::uint32_t kUnderlineBit = 65536;
constexpr std::uint32_t kForegroundBase = 29;
constexpr std::uint32_t kBackgroundBase = 39;
constexpr std::uint32_t kBrightOffset = 60;

std::string withNumber(std::uint32_t number, char final) {
  return "\033[" + std::to_string(number) + final;
}

std::string step(int count, char forward, char back) {
  if (count == 0) {
    return {};
  }
  return withNumber(static_cast<std::uint32_t>(count > 0 ? count : -count), count > 0 ? forward : back);
}

}  // namespace

std::string colour(std::uint32_t attribute) {
  std::string out = "\033[m";
  if (const std::uint32_t number = attribute & kNumberMask; number != 0) {
    out += withNumber(kForegroundBase + number + ((attribute & kForegroundBright) != 0 ? kBrightOffset : 0),
                      'm');
  }
  if (const std::uint32_t number = (attribute >> 8) & kNumberMask; number != 0) {
    out += withNumber(kBackgroundBase + number + ((attribute & kBackgroundBright) != 0 ? kBrightOffset : 0),
                      'm');
  }
  if ((attribute & kUnderlineBit) != 0) {
    out += "\033[4m";
  }
  return out;
}

std::string position(int row, int col) {
  return "\033[" + std::to_string(row + 1) + ";" + std::to_string(col + 1) + "H";
}

std::string move(int rows, int cols) {
  return step(cols, 'C', 'D') + step(rows, 'B', 'A');
}

std::string cursorShown(bool shown) {
  return shown ? "\033[?25h" : "\033[?25l";
}

}  // namespace lineeditor::sequence
