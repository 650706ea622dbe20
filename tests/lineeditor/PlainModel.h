#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lineeditor {

/// The line as a plain list of characters with a cursor, and what a screen of a given width must show of it.
/// Shares no code with the editor. Knows ASCII, Chinese and Latin letters with a combining accent.
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

/// Cuts text into characters. '|' marks the cursor, when `marked`.
PlainModel modelOf(std::string_view text, bool marked);
int plainWidth(std::string_view character);

}  // namespace lineeditor
