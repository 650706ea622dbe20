#pragma once

#include <string>

#include "Screen.h"

namespace lineeditor {

/// Turns the screen that stands into the screen wanted, as bytes for the terminal. Rows and columns count
/// from the first row of what it has drawn. Not thread-safe; Display guards it.
class Painter {
 public:
  /// The cursor stands at the beginning of a row with nothing of ours on it.
  void start();
  /// to: laid out for this size.
  std::string paint(Screen to, TerminalSize size);
  /// The same as paint() for a screen that has one plain character more at its end, where the cursor is.
  /// False when it takes more than that.
  bool append(char character, TerminalSize size, std::string& out);
  /// Takes all that is drawn away; the cursor is left where its first row began.
  std::string erase(TerminalSize now);
  /// Puts the cursor behind the last cell of the last row drawn.
  std::string toEnd();

  const Screen& drawn() const { return drawn_; }
  bool drawnFor(TerminalSize size) const { return size == size_; }

 private:
  void moveTo(int row, int col);
  void paintRow(int index, const Row* old, const Row& row);
  void writeCells(const Row& row, std::size_t from);
  void scrollOff(std::size_t rows);
  int rowsUpAfterResize(TerminalSize now) const;

  Screen drawn_;
  TerminalSize size_;
  int row_ = 0;
  int col_ = 0;        ///< equal to the width of the window: the next character wraps
  int available_ = 1;  ///< rows that exist on the terminal from our first one on
  std::string out_;
};

}  // namespace lineeditor
