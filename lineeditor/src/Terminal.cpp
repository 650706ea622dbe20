#include "lineeditor/Terminal.h"

#include <cstdarg>
#include <cstdio>

#include "Display.h"
#include "Input.h"
#include "Output.h"
#include "Sequences.h"
#include "TerminalIo.h"
#include "Utf8.h"

namespace lineeditor {

std::int32_t pagerLines = 0;

namespace {

constexpr int kMaxReplyBytes = 31;

std::string formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

/// On a usable terminal, Display draws the prompt, so that a notice appears above the prompt.
void showPagerPrompt() {
  if (terminalUsable()) {
    Content content;
    content.prompt = kPagerPrompt;
    Display::instance().show(content);
  } else {
    const std::lock_guard guard(outputMutex());
    outputBuffer += kPagerPrompt;
  }
}

void erasePagerPrompt() {
  Display& display = Display::instance();
  if (display.inTranscript()) {
    display.show(Content{});
    return;
  }
  if (terminalUsable() && static_cast<int>(kPagerPrompt.size()) >= terminal().size().cols) {
    display.remove();  // backspaces do not move up to the row above
  } else {
    display.forget();
    const std::lock_guard guard(outputMutex());
    const std::string back(kPagerPrompt.size(), '\b');
    outputBuffer += back + std::string(kPagerPrompt.size(), ' ') + back;
  }
  flushOutput();  // the next line of the listing is printed without the buffer
}

}  // namespace

bool terminalUsable() {
  return terminal().usable();
}

int readKey() {
  return InputReader::instance().readSingleByte();
}

void screenSize(int& rows, int& cols) {
  const TerminalSize size = terminal().size();
  rows = size.rows;
  cols = size.cols;
}

int cursorPosition(int& row, int& col) {
  if (!terminalUsable()) {
    return -1;
  }
  writeBuffered(sequence::kAskCursor);
  std::string reply;
  while (reply.size() < kMaxReplyBytes && (reply.empty() || reply.back() != 'R')) {
    const int byte = readKey();
    if (byte == 0) {
      return -1;
    }
    reply += static_cast<char>(byte);
  }
  int readRow = 0;
  int readCol = 0;
  if (std::sscanf(reply.c_str(), "\033[%9d;%9dR", &readRow, &readCol) != 2) {
    return -1;
  }
  row = readRow - 1;
  col = readCol - 1;
  return 0;
}

void setCursor(int row, int col) {
  writeBuffered(sequence::position(row, col));
}
void moveCursor(int rows, int cols) {
  writeBuffered(sequence::move(rows, cols));
}
void showCursor(int hide) {
  writeBuffered(sequence::cursorShown(hide == 0));
}
void setColour(std::uint32_t attribute) {
  writeBuffered(sequence::colour(attribute));
}

void colourPrint(std::uint32_t attribute, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted(format, arguments);
  va_end(arguments);
  setColour(attribute);
  terminal().print(text);
  setColour(0);
}

void plainPrint(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted(format, arguments);
  va_end(arguments);
  Display::instance().print(text);
}

void clearScreen() {
  flushOutput();
  if (!terminal().runClear()) {
    writeBuffered(sequence::kClear);
  }
}

int pageBreak(int length) {
  if (!terminal().inputIsTerminal()) {
    return 0;
  }
  const TerminalSize size = terminal().size();
  pagerLines += (length + size.cols - 1) / size.cols;
  if (pagerLines < size.rows - 1) {
    return 0;
  }
  showPagerPrompt();
  const Key key = InputReader::instance().readSingleKey();
  erasePagerPrompt();
  resetPager();
  return continuesListing(key) ? 0 : 1;
}

void resetPager() {
  pagerLines = 0;
}

int displayWidth(std::string_view text) {
  int width = 0;
  for (const Glyph& glyph : glyphs(text)) {
    width += glyph.width;
  }
  return width;
}

void restoreTerminal() {
  Display::instance().closeOpenRow();
  flushOutput();
  terminal().leaveRawMode();
}

}  // namespace lineeditor
