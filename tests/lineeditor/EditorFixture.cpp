#include "lineeditor/EditorFixture.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>

#include "Display.h"
#include "HistoryRing.h"

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

std::string keysFor(const PlainModel& model) {
  std::string keys = model.text();
  for (std::size_t i = model.cursor; i < model.characters.size(); ++i) {
    keys += "\033[D";
  }
  return keys;
}

void storeLines(int count) {
  for (int i = 1; i <= count; ++i) {
    historyStore("line " + std::to_string(i));
  }
}

void EditorFixture::SetUp() {
  for (const char* name : testsupport::kRewrapVariables) {
    unsetenv(name);
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

void EditorFixture::offer(std::vector<Offer> offers) {
  setCompletionHook([this, offers = std::move(offers)](const char* text, CompletionState* state) {
    asked = text;
    const std::string word = asked->substr(asked->find_last_of(" \t") + 1);
    for (std::size_t i = 0; i < offers.size(); ++i) {
      if (strncasecmp(offers[i].name.c_str(), word.c_str(), word.size()) == 0) {
        addCandidate(state, offers[i].name.c_str(), i < 8 ? kBrightYellow : kBrightCyan,
                     offers[i].help.empty() ? nullptr : offers[i].help.c_str(), i % 2 == 0 ? kCyan : kWhite);
      }
    }
    return 1;
  });
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
