#pragma once

#include <cstdint>
#include <string>

/// The escape sequences that the editor writes.
namespace lineeditor::sequence {

std::string colour(std::uint32_t attribute);
std::string position(int row, int col);
std::string move(int rows, int cols);
std::string cursorShown(bool shown);

inline constexpr const char* kAskCursor = "\033[6n";
inline constexpr const char* kEraseBelow = "\033[J";
inline constexpr const char* kEraseRight = "\033[K";
inline constexpr const char* kPasteMarksOn = "\033[?2004h";
inline constexpr const char* kPasteMarksOff = "\033[?2004l";
inline constexpr const char* kClear = "\033[H\033[2J";

}  // namespace lineeditor::sequence
