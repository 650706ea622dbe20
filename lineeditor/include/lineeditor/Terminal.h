#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// The terminal: ANSI sequences on standard output, termios on standard input. The line editor uses these
/// functions, and so does all code that prints in colour or page by page. Where the terminal is not usable,
/// no sequence is ever written. Main thread only, unless a function says otherwise. The buffer and its flush
/// are in Output.cpp, the rest is in Terminal.cpp.
namespace lineeditor {

// Colour attributes: bits 0-6 foreground 1-8 (0 none), bit 7 bright, bits 8-14 background, bit 15 bright
// background, bit 16 underline.
inline constexpr std::uint32_t kCyan = 7;
inline constexpr std::uint32_t kWhite = 8;
inline constexpr std::uint32_t kBrightRed = 130;    ///< errors, the missing-option heading
inline constexpr std::uint32_t kBrightGreen = 131;  ///< the prompt, option names
inline constexpr std::uint32_t kBrightYellow = 132;
inline constexpr std::uint32_t kBrightMagenta = 134;
inline constexpr std::uint32_t kBrightCyan = 135;
inline constexpr std::uint32_t kWhiteOnCyan = 1800;  ///< value hints

/// The editor's output that waits for the next flush. Only this library writes to the buffer, under
/// outputMutex().
extern std::string& outputBuffer;
/// Screen lines printed since the last pause of the pager.
extern std::int32_t pagerLines;

/// True when standard input is a terminal and TERM is none of "dumb", "cons25", "emacs" (in any letter case).
bool terminalUsable();
/// Flushes the output, then reads one byte in raw mode. 0 when the read failed.
int readKey();
/// The size of the window. Fewer than 2 columns count as 80, fewer than 2 rows as 24.
void screenSize(int& rows, int& cols);
/// Asks the terminal for the cursor's place, counted from 0. Returns 0, or -1 when the answer cannot be read.
int cursorPosition(int& row, int& col);
void setCursor(int row, int col);     ///< counted from 0
void moveCursor(int rows, int cols);  ///< columns first; negative numbers move up and left
void showCursor(int hide);            ///< hides the cursor when hide is not 0
void setColour(std::uint32_t attribute);
/// The text goes straight to standard output. The colour sequences go to outputBuffer, and so reach the
/// terminal with the next flush.
[[gnu::format(printf, 2, 3)]] void colourPrint(std::uint32_t attribute, const char* format, ...);
/// The text goes straight to standard output. During a search, whole lines are expected; the lines disappear
/// together with the search.
[[gnu::format(printf, 1, 2)]] void plainPrint(const char* format, ...);
/// Runs the shell command "clear".
void clearScreen();
/// Call after each printed line. length: columns of the line plus one. A result other than 0 ends the
/// listing.
int pageBreak(int length);
void resetPager();
/// Writes outputBuffer to standard output and empties the buffer. Any thread.
void flushOutput();

/// The number of columns that the text takes on the terminal.
int displayWidth(std::string_view text);

/// Restores the terminal's settings of before the prompt and ends an unfinished prompt line. Every way out of
/// the program calls this function; further calls do nothing.
void restoreTerminal();

}  // namespace lineeditor
