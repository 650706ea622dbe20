#pragma once

#include <string>

#include "Screen.h"

namespace lineeditor {

/// Makes the bytes that turn the screen drawn before into the screen wanted. Rows are counted from the first
/// row that the painter has drawn. Not thread-safe: Display holds the lock.
class Painter {
 public:
  /// Begins anew: the cursor stands at the beginning of a row, and nothing is drawn.
  void start();
  /// to: laid out for a window of this size.
  std::string paint(Screen to, TerminalSize size);
  /// The same as paint() for a screen with one more plain character, at the cursor and at the end of the
  /// line. False when the change needs paint().
  bool append(char character, TerminalSize size, std::string& out);
  /// Erases all rows; the cursor goes to the beginning of the first row.
  std::string erase(TerminalSize now);
  /// Moves the cursor behind the last cell of the last row.
  std::string toEnd();

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
  int col_ = 0;        ///< the width of the window here means that the next character wraps
  int available_ = 1;  ///< rows of the terminal from the first row drawn on
  std::string out_;
};

}  // namespace lineeditor
