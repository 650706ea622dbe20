#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TerminalIo.h"
#include "Utf8.h"
#include "lineeditor/Completion.h"

/// The screen at the prompt as a value. layout() turns the line, its list and the window's size into rows of
/// cells and the cursor's place. No function here writes to the terminal.
namespace lineeditor {

struct Cell {
  std::string text;
  int width;
  std::uint32_t attribute;
  bool operator==(const Cell&) const = default;
};

struct Row {
  std::vector<Cell> cells;
  int width = 0;
  bool operator==(const Row&) const = default;
};

struct Screen {
  std::vector<Row> rows;  ///< at most as many rows as the window has
  int cursorRow = 0;
  int cursorCol = 0;
  std::size_t rowsAbove = 0;  ///< rows that did not fit into the window, above rows[0]
};

/// The line being edited, its prompt and its list.
struct Content {
  std::string prompt;
  std::uint32_t promptColour = 0;
  std::string line;
  std::size_t cursor = 0;                       ///< byte offset, at a character boundary
  std::shared_ptr<const CompletionState> list;  ///< candidates and hint below the line, or null
  std::size_t listFrom = 0;                     ///< first row of the list that is shown
};

inline constexpr std::string_view kPagerPrompt = "*** Press <Space> or <Enter> to continue . . .";

/// Puts text into rows of at most cols columns. A wide character is never split.
class RowBuilder {
 public:
  struct Place {
    int row;
    int col;
  };
  explicit RowBuilder(int cols) : cols_(cols), rows_(1) {}

  Place place() const { return {static_cast<int>(rows_.size()) - 1, rows_.back().width}; }
  void put(Glyph glyph, std::uint32_t attribute);
  void put(std::string_view text, std::uint32_t attribute);
  void reserve(std::size_t cells);  ///< memory for this many cells on the current row
  void newRow() { rows_.emplace_back(); }
  void wrapIfFull();                   ///< starts a new row when the current row is full
  Place placeFor(const Glyph& glyph);  ///< starts a new row when the glyph does not fit
  std::vector<Row>& rows() { return rows_; }

 private:
  int cols_;
  std::vector<Row> rows_;
};

std::vector<Row> textRows(std::string_view text, std::uint32_t attribute, int cols);

/// above: the rows of the transcript, which stand above the prompt.
Screen layout(const Content& content, const std::vector<Row>& above, TerminalSize size);

/// The offset in the line that is the given number of screen rows below the cursor; a negative number means
/// above. The last offset that is not right of the cursor's column is preferred. Nothing when the line has no
/// such row.
std::optional<std::size_t> offsetInOtherRow(const Content& content, int cols, int rows);

/// The rows of the candidate list: how many fit below the line, and how many there are.
struct ListPage {
  std::size_t shown;
  std::size_t total;
};
ListPage listPage(const Content& content, TerminalSize size);

}  // namespace lineeditor
