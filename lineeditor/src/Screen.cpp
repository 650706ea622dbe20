#include "Screen.h"

#include <algorithm>

#include "CandidateList.h"

namespace lineeditor {

namespace {

/// The rows of the prompt and the line, and the place of each character.
struct LinePlan {
  std::vector<Row> rows;
  std::vector<std::size_t> offsets;
  std::vector<RowBuilder::Place> places;

  std::size_t indexOf(std::size_t offset) const {
    const auto found = std::lower_bound(offsets.begin(), offsets.end(), offset);
    return static_cast<std::size_t>(std::min(found, offsets.end() - 1) - offsets.begin());
  }
};

LinePlan plan(const Content& content, int cols) {
  RowBuilder builder(cols);
  LinePlan out;
  builder.put(content.prompt, content.promptColour);
  const std::string_view line = content.line;
  builder.reserve(content.prompt.size() + line.size());
  out.offsets.reserve(line.size() + 1);
  out.places.reserve(line.size() + 1);
  for (const Character& character : characters(line)) {
    if (character.length == 1 && !character.shownAsEscape) {
      Glyph glyph{std::string(1, line[character.offset]), 1};
      out.offsets.push_back(character.offset);
      out.places.push_back(builder.placeFor(glyph));
      builder.put(std::move(glyph), 0);
      continue;
    }
    const std::vector<Glyph> drawn =
        glyphs(line.substr(character.offset, character.length), character.shownAsEscape);
    out.offsets.push_back(character.offset);
    out.places.push_back(builder.placeFor(drawn.front()));
    for (const Glyph& glyph : drawn) {
      builder.put(glyph, 0);
    }
  }
  builder.wrapIfFull();
  out.offsets.push_back(line.size());
  out.places.push_back(builder.place());
  out.rows = std::move(builder.rows());
  return out;
}

std::size_t rowsForList(std::size_t lineRows, TerminalSize size) {
  const auto rows = static_cast<std::size_t>(size.rows);
  return rows > lineRows + 1 ? rows - lineRows : 2;
}

ListPage pageOf(std::size_t total, std::size_t lineRows, TerminalSize size) {
  const std::size_t room = rowsForList(lineRows, size);
  return {total <= room ? total : room - 1, total};
}

void appendList(const Content& content, std::size_t lineRows, TerminalSize size, std::vector<Row>& rows) {
  std::vector<Row> list = listRows(*content.list, size.cols);
  const ListPage page = pageOf(list.size(), lineRows, size);
  const std::size_t end = std::min(list.size(), content.listFrom + page.shown);
  for (std::size_t i = content.listFrom; i < end; ++i) {
    rows.push_back(std::move(list[i]));
  }
  if (end < list.size()) {
    rows.push_back(std::move(textRows(kPagerPrompt, 0, size.cols).front()));
  }
}

}  // namespace

void RowBuilder::reserve(std::size_t cells) {
  rows_.back().cells.reserve(std::min(cells, static_cast<std::size_t>(cols_)));
}

void RowBuilder::wrapIfFull() {
  if (rows_.back().width >= cols_) {
    newRow();
  }
}

RowBuilder::Place RowBuilder::placeFor(const Glyph& glyph) {
  if (rows_.back().width + glyph.width > cols_) {
    newRow();
  }
  return place();
}

void RowBuilder::put(Glyph glyph, std::uint32_t attribute) {
  placeFor(glyph);
  Row& row = rows_.back();
  row.width += glyph.width;
  row.cells.push_back({std::move(glyph.text), glyph.width, attribute});
}

void RowBuilder::put(std::string_view text, std::uint32_t attribute) {
  for (Glyph& glyph : glyphs(text)) {
    put(std::move(glyph), attribute);
  }
}

std::vector<Row> textRows(std::string_view text, std::uint32_t attribute, int cols) {
  RowBuilder builder(cols);
  builder.put(text, attribute);
  return std::move(builder.rows());
}

Screen layout(const Content& content, const std::vector<Row>& above, TerminalSize size) {
  LinePlan line = plan(content, size.cols);
  const RowBuilder::Place cursor = line.places[line.indexOf(content.cursor)];
  std::vector<Row> below = std::move(line.rows);
  if (content.list) {
    appendList(content, below.size(), size, below);
  }
  const auto windowRows = static_cast<std::size_t>(size.rows);
  const std::size_t total = above.size() + below.size();
  const std::size_t cursorRow = above.size() + static_cast<std::size_t>(cursor.row);

  Screen screen;
  screen.rowsAbove = std::min(cursorRow, total > windowRows ? total - windowRows : 0);
  const std::size_t end = std::min(total, screen.rowsAbove + windowRows);
  for (std::size_t i = screen.rowsAbove; i < end; ++i) {
    if (i < above.size()) {
      screen.rows.push_back(above[i]);
    } else {
      screen.rows.push_back(std::move(below[i - above.size()]));
    }
  }
  screen.cursorRow = static_cast<int>(cursorRow - screen.rowsAbove);
  screen.cursorCol = cursor.col;
  return screen;
}

std::optional<std::size_t> offsetInOtherRow(const Content& content, int cols, int rows) {
  const LinePlan line = plan(content, cols);
  const RowBuilder::Place from = line.places[line.indexOf(content.cursor)];
  const int target = from.row + rows;
  std::optional<std::size_t> best;
  for (std::size_t i = 0; i < line.places.size(); ++i) {
    if (line.places[i].row == target && (!best || line.places[i].col <= from.col)) {
      best = line.offsets[i];
    }
  }
  return best;
}

ListPage listPage(const Content& content, TerminalSize size) {
  return pageOf(listRows(*content.list, size.cols).size(), plan(content, size.cols).rows.size(), size);
}

}  // namespace lineeditor
