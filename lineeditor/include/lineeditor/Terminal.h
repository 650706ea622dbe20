#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// The terminal as the console drives it: ANSI sequences on standard output, termios on standard input. Used
/// by the line editor and by everything that prints in colour or page by page. Where the terminal is not
/// usable no sequence is ever written. Main thread, unless a function says otherwise.
namespace lineeditor {

// Colour attributes: bits 0-6 foreground 1-8 (0 none), bit 7 bright, bits 8-14 background, bit 15 bright
// background, bit 16 underline.
inline constexpr std::uint32_t kCyan = 7;
inline constexpr std::uint32_t kWhite = 8;
inline constexpr std::uint32_t kBright = 128;
inline constexpr std::uint32_t kUnderline = 65536;
inline constexpr std::uint32_t kBrightRed = 130;    ///< errors, the missing-option heading
inline constexpr std::uint32_t kBrightGreen = 131;  ///< the prompt, option names
inline constexpr std::uint32_t kBrightYellow = 132;
inline constexpr std::uint32_t kBrightMagenta = 134;
inline constexpr std::uint32_t kBrightCyan = 135;
inline constexpr std::uint32_t kWhiteOnCyan = 1800;  ///< value hints

/// Editor output on its way to standard output. Written by this library's functions only, under its lock.
extern std::string& outputBuffer;
/// Screen lines printed since the pager last paused.
extern std::int32_t pagerLines;

/// True when standard input is a terminal and TERM is none of "dumb", "cons25", "emacs" (any case).
bool terminalUsable();
/// Flushes, waits for one byte in raw mode and returns it; 0 when the read failed.
int readKey();
/// Fewer than 2 columns count as 80, fewer than 2 rows as 24.
void screenSize(int& rows, int& cols);
/// Zero-based. -1 when the terminal gives no answer that can be read.
int cursorPosition(int& row, int& col);
void setCursor(int row, int col);     ///< zero-based
void moveCursor(int rows, int cols);  ///< columns first; negative is up and left
void showCursor(int hide);            ///< hides when not 0
void setColour(std::uint32_t attribute);
/// The text goes straight to standard output, the colour sequences to outputBuffer: they reach the terminal
/// with the next flush.
[[gnu::format(printf, 2, 3)]] void colourPrint(std::uint32_t attribute, const char* format, ...);
/// Straight to standard output; from a help shown in a search: whole lines, which go with the search.
[[gnu::format(printf, 1, 2)]] void plainPrint(const char* format, ...);
/// Runs the shell command "clear".
void clearScreen();
/// Asked after each printed line. length: columns of the line plus one. Not 0: the listing must stop.
int pageBreak(int length);
void resetPager();
/// Writes outputBuffer to standard output and empties it. Any thread.
void flushOutput();

/// Columns that the text takes on the terminal.
int displayWidth(std::string_view text);

/// Puts the terminal back as it was before the prompt and ends an unfinished prompt line. For every way out
/// of the program; may be called at any time and more than once.
void restoreTerminal();

}  // namespace lineeditor
