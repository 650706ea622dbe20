#pragma once

#include <string>
#include <string_view>
#include <vector>

struct VTerm;
struct VTermScreen;

namespace testsupport {

/// Terminals that wrap their rows anew in a changed window set one of these variables. The emulator does not
/// wrap its rows anew, so the tests unset the variables.
inline constexpr const char* kRewrapVariables[] = {"TMUX", "VTE_VERSION", "KONSOLE_VERSION", "WT_SESSION"};

/// A terminal emulator (libvterm): the rows, the cursor and the answers for the bytes written. A line feed
/// needs its carriage return, as from a terminal's driver. Not thread-safe.
class TerminalScreen {
 public:
  TerminalScreen(int rows, int cols);
  ~TerminalScreen();
  TerminalScreen(const TerminalScreen&) = delete;
  TerminalScreen& operator=(const TerminalScreen&) = delete;

  void write(std::string_view bytes);
  void resize(int rows, int cols);
  int rows() const { return rows_; }
  int cols() const { return cols_; }

  std::string row(int index) const;  ///< without the blanks at its end
  std::string text() const;          ///< all rows with line feeds between them, without empty rows at the end
  bool contains(std::string_view part) const { return text().find(part) != std::string::npos; }
  int cursorRow() const;
  int cursorCol() const;
  /// An index of the palette (0-7, bright 8-15), -1 for the default.
  int foreground(int row, int col) const;
  int background(int row, int col) const;
  bool cursorVisible() const { return cursorVisible_; }

  /// Rows that have left the screen at the top, oldest first.
  const std::vector<std::string>& scrolledOff() const { return scrolledOff_; }
  /// The terminal's answers (cursor reports) since the last call.
  std::string takeAnswers();

  void pushScrolledOff(std::string row) { scrolledOff_.push_back(std::move(row)); }
  void setCursorVisible(bool visible) { cursorVisible_ = visible; }

 private:
  int rows_;
  int cols_;
  bool cursorVisible_ = true;
  VTerm* terminal_;
  VTermScreen* screen_;
  std::vector<std::string> scrolledOff_;
};

}  // namespace testsupport
