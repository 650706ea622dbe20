#include "Painter.h"

#include <algorithm>
#include <cstdlib>

#include "Sequences.h"

namespace lineeditor {

namespace {

/// A terminal that sets one of these variables wraps its rows anew when the window gets narrower. All other
/// terminals cut or keep their rows.
const char* const kRewrappingTerminals[] = {"TMUX", "VTE_VERSION", "KONSOLE_VERSION", "WT_SESSION"};

bool terminalRewraps() {
  return std::any_of(std::begin(kRewrappingTerminals), std::end(kRewrappingTerminals),
                     [](const char* name) { return std::getenv(name) != nullptr; });
}

}  // namespace

void Painter::start() {
  drawn_ = Screen{};
  row_ = 0;
  col_ = 0;
  available_ = 1;
}

std::string Painter::paint(Screen to, TerminalSize size) {
  out_.clear();
  size_ = size;
  if (to.rowsAbove > drawn_.rowsAbove && drawn_.rows.size() == static_cast<std::size_t>(size.rows)) {
    scrollOff(to.rowsAbove - drawn_.rowsAbove);
  }
  const std::size_t count = to.rows.size();
  for (std::size_t i = 0; i < count; ++i) {
    paintRow(static_cast<int>(i), i < drawn_.rows.size() ? &drawn_.rows[i] : nullptr, to.rows[i]);
  }
  if (drawn_.rows.size() > count) {
    moveTo(static_cast<int>(count), 0);
    out_ += sequence::kEraseBelow;
  }
  moveTo(to.cursorRow, to.cursorCol);
  drawn_ = std::move(to);
  return std::move(out_);
}

bool Painter::append(char character, TerminalSize size, std::string& out) {
  if (!drawnFor(size) || drawn_.rows.empty() || row_ != static_cast<int>(drawn_.rows.size()) - 1 ||
      col_ != drawn_.rows.back().width || col_ + 2 > size.cols) {
    return false;
  }
  drawn_.rows.back().cells.push_back({std::string(1, character), 1, 0});
  ++drawn_.rows.back().width;
  drawn_.cursorCol = ++col_;
  out += character;
  return true;
}

/// Scrolls rows out at the top of the window, so that the user can scroll back to them.
void Painter::scrollOff(std::size_t rows) {
  rows = std::min(rows, drawn_.rows.size());
  moveTo(static_cast<int>(drawn_.rows.size()) - 1, 0);
  out_.append(rows, '\n');
  drawn_.rows.erase(drawn_.rows.begin(), drawn_.rows.begin() + static_cast<std::ptrdiff_t>(rows));
}

void Painter::paintRow(int index, const Row* old, const Row& row) {
  std::size_t same = 0;
  int column = 0;
  if (old != nullptr) {
    while (same < row.cells.size() && same < old->cells.size() && row.cells[same] == old->cells[same]) {
      column += row.cells[same].width;
      ++same;
    }
    if (same == row.cells.size() && same == old->cells.size()) {
      return;
    }
  }
  if (same == row.cells.size() && old == nullptr && index < available_) {
    return;  // the row is empty, and so is the row of the terminal
  }
  const bool continuesWrap = same == 0 && !row.cells.empty() && index == row_ + 1 && col_ == size_.cols;
  if (continuesWrap) {
    row_ = index;  // the terminal wraps by itself, and so treats both rows as one line
    col_ = 0;
    available_ = std::max(available_, index + 1);
  } else {
    moveTo(index, column);
  }
  writeCells(row, same);
  if (old != nullptr && old->width > row.width) {
    out_ += sequence::kEraseRight;
  }
}

void Painter::writeCells(const Row& row, std::size_t from) {
  std::uint32_t attribute = 0;
  for (std::size_t i = from; i < row.cells.size(); ++i) {
    const Cell& cell = row.cells[i];
    if (cell.attribute != attribute) {
      out_ += sequence::colour(cell.attribute);
      attribute = cell.attribute;
    }
    out_ += cell.text;
    col_ += cell.width;
  }
  if (attribute != 0) {
    out_ += sequence::colour(0);
  }
}

void Painter::moveTo(int row, int col) {
  if (row == row_ && col == col_) {
    return;
  }
  if (row >= available_) {
    out_ += sequence::move(available_ - 1 - row_, 0);
    out_ += '\r';
    out_.append(static_cast<std::size_t>(row) - static_cast<std::size_t>(available_) + 1, '\n');
    available_ = row + 1;
    col_ = 0;
  } else {
    if (col_ >= size_.cols || col == 0) {
      out_ += '\r';
      col_ = 0;
    }
    out_ += sequence::move(row - row_, 0);
  }
  out_ += col == col_ - 1 ? "\b" : sequence::move(0, col - col_);
  row_ = row;
  col_ = col;
}

int Painter::rowsUpAfterResize(TerminalSize now) const {
  if (now == size_ || !terminalRewraps()) {
    return row_;
  }
  int rows = 0;
  int run = 0;  // columns since the last row that ended before the edge of the window
  for (int i = 0; i < row_ && i < static_cast<int>(drawn_.rows.size()); ++i) {
    run += drawn_.rows[static_cast<std::size_t>(i)].width;
    if (drawn_.rows[static_cast<std::size_t>(i)].width < size_.cols) {
      rows += std::max(1, (run + now.cols - 1) / now.cols);
      run = 0;
    }
  }
  return rows + (run + col_) / now.cols;
}

std::string Painter::erase(TerminalSize now) {
  std::string out = "\r" + sequence::move(-rowsUpAfterResize(now), 0) + sequence::kEraseBelow;
  start();
  return out;
}

std::string Painter::toEnd() {
  out_.clear();
  if (!drawn_.rows.empty()) {
    moveTo(static_cast<int>(drawn_.rows.size()) - 1, drawn_.rows.back().width);
  }
  return std::move(out_);
}

}  // namespace lineeditor
