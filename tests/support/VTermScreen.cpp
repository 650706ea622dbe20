#include "support/VTermScreen.h"

#include <vterm.h>

namespace testsupport {

namespace {

void appendUtf8(std::string& out, std::uint32_t point) {
  if (point < 0x80) {
    out += static_cast<char>(point);
  } else if (point < 0x800) {
    out += static_cast<char>(0xC0 | (point >> 6));
    out += static_cast<char>(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    out += static_cast<char>(0xE0 | (point >> 12));
    out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (point & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (point >> 18));
    out += static_cast<char>(0x80 | ((point >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (point & 0x3F));
  }
}

constexpr std::uint32_t kRightHalfOfWide = 0xFFFFFFFF;

void appendCell(std::string& out, const VTermScreenCell& cell) {
  if (cell.chars[0] == kRightHalfOfWide) {
    return;
  }
  if (cell.chars[0] == 0) {
    out += ' ';
  }
  for (int i = 0; i < VTERM_MAX_CHARS_PER_CELL && cell.chars[i] != 0; ++i) {
    appendUtf8(out, cell.chars[i]);
  }
}

std::string trimmed(std::string row) {
  row.erase(row.find_last_not_of(' ') + 1);
  return row;
}

int pushLine(int cols, const VTermScreenCell* cells, void* user) {
  std::string row;
  for (int i = 0; i < cols; ++i) {
    appendCell(row, cells[i]);
  }
  static_cast<TerminalScreen*>(user)->pushScrolledOff(trimmed(row));
  return 1;
}

int setProperty(VTermProp property, VTermValue* value, void* user) {
  if (property == VTERM_PROP_CURSORVISIBLE) {
    static_cast<TerminalScreen*>(user)->setCursorVisible(value->boolean != 0);
  }
  return 1;
}

VTermScreenCallbacks callbacks() {
  VTermScreenCallbacks out{};
  out.sb_pushline = pushLine;
  out.settermprop = setProperty;
  return out;
}

const VTermScreenCallbacks kCallbacks = callbacks();

int paletteIndex(const VTermColor& colour, bool isDefault) {
  return !isDefault && VTERM_COLOR_IS_INDEXED(&colour) ? colour.indexed.idx : -1;
}

VTermScreenCell cellAt(const VTermScreen* screen, int row, int col) {
  VTermScreenCell cell{};
  vterm_screen_get_cell(screen, VTermPos{row, col}, &cell);
  return cell;
}

}  // namespace

TerminalScreen::TerminalScreen(int rows, int cols)
    : rows_(rows), cols_(cols), terminal_(vterm_new(rows, cols)) {
  vterm_set_utf8(terminal_, 1);
  screen_ = vterm_obtain_screen(terminal_);
  vterm_screen_set_callbacks(screen_, &kCallbacks, this);
  vterm_screen_enable_altscreen(screen_, 1);
  vterm_screen_reset(screen_, 1);
}

TerminalScreen::~TerminalScreen() {
  vterm_free(terminal_);
}

void TerminalScreen::write(std::string_view bytes) {
  vterm_input_write(terminal_, bytes.data(), bytes.size());
  vterm_screen_flush_damage(screen_);
}

void TerminalScreen::resize(int rows, int cols) {
  rows_ = rows;
  cols_ = cols;
  vterm_set_size(terminal_, rows, cols);
  vterm_screen_flush_damage(screen_);
}

std::string TerminalScreen::row(int index) const {
  std::string out;
  for (int col = 0; col < cols_; ++col) {
    appendCell(out, cellAt(screen_, index, col));
  }
  return trimmed(out);
}

std::string TerminalScreen::text() const {
  std::string out;
  for (int i = 0; i < rows_; ++i) {
    out += row(i) + "\n";
  }
  out.erase(out.find_last_not_of('\n') + 1);
  return out;
}

int TerminalScreen::cursorRow() const {
  VTermPos position{};
  vterm_state_get_cursorpos(vterm_obtain_state(terminal_), &position);
  return position.row;
}

int TerminalScreen::cursorCol() const {
  VTermPos position{};
  vterm_state_get_cursorpos(vterm_obtain_state(terminal_), &position);
  return position.col;
}

int TerminalScreen::foreground(int row, int col) const {
  const VTermScreenCell cell = cellAt(screen_, row, col);
  return paletteIndex(cell.fg, VTERM_COLOR_IS_DEFAULT_FG(&cell.fg));
}

int TerminalScreen::background(int row, int col) const {
  const VTermScreenCell cell = cellAt(screen_, row, col);
  return paletteIndex(cell.bg, VTERM_COLOR_IS_DEFAULT_BG(&cell.bg));
}

std::string TerminalScreen::takeAnswers() {
  std::string out;
  char bytes[256];
  for (std::size_t count; (count = vterm_output_read(terminal_, bytes, sizeof bytes)) > 0;) {
    out.append(bytes, count);
  }
  return out;
}

}  // namespace testsupport
