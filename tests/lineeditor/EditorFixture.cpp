#include "lineeditor/EditorFixture.h"

#include <cerrno>
#include <cstdlib>

#include "Display.h"

namespace lineeditor {

std::string surrounded(const Surroundings& surroundings, std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '^') {
      out += surroundings.prefix;
    } else if (c == '~') {
      out += surroundings.letter;
    } else {
      out += c;
    }
  }
  return out;
}

void EditorFixture::SetUp() {
  for (const char* name : {"TMUX", "VTE_VERSION", "KONSOLE_VERSION", "WT_SESSION"}) {
    unsetenv(name);  // the emulator here does not rewrap
  }
  historyClear();
  settings() = EditorSettings{};
  outputBuffer.clear();
  open(24, 80);
}

void EditorFixture::TearDown() {
  Display::instance().endTranscript();
  Display::instance().dropTranscript();
  terminal_.reset();
}

void EditorFixture::open(int rows, int cols) {
  terminal_.reset();
  terminal_ = std::make_unique<ScriptedTerminal>(rows, cols);
  terminal_->onIdle = [this] { nextTurn(); };
  Display::instance().forget();
  turns_.clear();
  check_ = nullptr;
}

void EditorFixture::nextTurn() {
  if (check_) {
    const auto check = std::move(check_);
    check_ = nullptr;
    check();
  }
  if (!turns_.empty()) {
    Turn turn = std::move(turns_.front());
    turns_.pop_front();
    check_ = std::move(turn.then);
    terminal_->type(turn.keys);
    if (turn.keys.empty()) {
      nextTurn();
    }
  }
}

void EditorFixture::typeThen(std::string_view keys, std::function<void()> then) {
  turns_.push_back({std::string(keys), std::move(then)});
}

std::optional<std::string> EditorFixture::read() {
  static char buffer[4096];
  errno = 0;
  const char* line = readLine("TAV> ", buffer, sizeof buffer);
  readErrno = errno;
  return line == nullptr ? std::nullopt : std::optional<std::string>(line);
}

std::optional<std::string> EditorFixture::readKeys(std::string_view keys) {
  typeThen(keys, nullptr);
  return read();
}

::testing::AssertionResult EditorFixture::shows(const PlainModel& model, std::string_view prompt) {
  return terminal_->look([&](const testsupport::TerminalScreen& screen) -> ::testing::AssertionResult {
    const PlainModel::Screen expected = model.screen(prompt, screen.cols());
    const int top = screen.cursorRow() - expected.cursorRow;
    if (screen.cursorCol() != expected.cursorCol) {
      return ::testing::AssertionFailure()
             << "cursor in column " << screen.cursorCol() << ", expected " << expected.cursorCol << " in\n"
             << screen.text();
    }
    for (int i = 0; top + i < screen.rows(); ++i) {
      const auto at = static_cast<std::size_t>(i);
      const std::string wanted = at < expected.rows.size() ? expected.rows[at] : "";
      if (top + i >= 0 && screen.row(top + i) != wanted) {
        return ::testing::AssertionFailure() << "row " << i << " of the line is\n\"" << screen.row(top + i)
                                             << "\", expected\n\"" << wanted << "\" in\n"
                                             << screen.text();
      }
    }
    return ::testing::AssertionSuccess();
  });
}

}  // namespace lineeditor
