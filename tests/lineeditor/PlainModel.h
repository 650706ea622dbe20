#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lineeditor {

/// The line as a plain list of characters with a cursor. screen() gives the rows that a screen must show. The
/// model shares no code with the editor. The characters are ASCII, Chinese, and Latin letters with an accent.
struct PlainModel {
  std::vector<std::string> characters;
  std::size_t cursor = 0;

  std::string text() const;

  struct Screen {
    std::vector<std::string> rows;  ///< without the blanks at their ends
    int cursorRow;
    int cursorCol;
  };
  Screen screen(std::string_view prompt, int cols) const;
};

/// Cuts text into characters. When `marked`, the first '|' is the cursor.
PlainModel modelOf(std::string_view text, bool marked);
int plainWidth(std::string_view character);

}  // namespace lineeditor
