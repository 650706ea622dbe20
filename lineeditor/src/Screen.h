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

/// What stands on the screen at the prompt, as a value: from what is being edited and the window's size to
/// rows of cells and the cursor's place. Nothing here writes.
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
  std::vector<Row> rows;  ///< never more than the window has
  int cursorRow = 0;
  int cursorCol = 0;
  std::size_t rowsAbove = 0;  ///< rows that no longer fit, above the first one here
};

/// What is being edited, and what is shown with it.
struct Content {
  std::string prompt;
  std::uint32_t promptColour = 0;
  std::string line;
  std::size_t cursor = 0;                       ///< byte offset, at a character boundary
  std::shared_ptr<const CompletionState> list;  ///< candidates and hint below the line, if any
  std::size_t listFrom = 0;                     ///< first row of the list that is shown
};

inline constexpr std::string_view kPagerPrompt = "*** Press <Space> or <Enter> to continue . . .";

/// Puts text into rows of at most cols columns; wide characters are never torn.
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
  void expect(std::size_t cells);  ///< at most so many will come on this row
  void newRow() { rows_.emplace_back(); }
  void wrapIfFull();                   ///< goes to the next row when nothing more fits on this one
  Place placeFor(const Glyph& glyph);  ///< where it will stand; goes to the next row when it does not fit
  std::vector<Row>& rows() { return rows_; }

 private:
  int cols_;
  std::vector<Row> rows_;
};

std::vector<Row> textRows(std::string_view text, std::uint32_t attribute, int cols);

/// above: rows that stand over the prompt and belong to it.
Screen layout(const Content& content, const std::vector<Row>& above, TerminalSize size);

/// The place in the line one screen row up (-1) or down (1), as near to the cursor's column as there is one;
/// nothing when the cursor is on the first or last row.
std::optional<std::size_t> otherRow(const Content& content, int cols, int rows);

/// Rows of the candidate list that fit under the line at once, and of how many.
struct ListPage {
  std::size_t shown;
  std::size_t total;
};
ListPage listPage(const Content& content, TerminalSize size);

/// The candidates in columns (down first), then the hint.
std::vector<Row> listRows(const CompletionState& list, int cols);

}  // namespace lineeditor
