#include "lineeditor/ScriptedTerminal.h"

#include "Input.h"

namespace lineeditor {

ScriptedTerminal::ScriptedTerminal(int rows, int cols) : screen_(rows, cols) {
  InputReader::instance().reset();
  useTerminal(this);
}

ScriptedTerminal::~ScriptedTerminal() {
  useTerminal(nullptr);
}

void ScriptedTerminal::type(std::string_view bytes) {
  for (const char c : bytes) {
    steps_.push_back({Step::kByte, static_cast<unsigned char>(c)});
  }
}

void ScriptedTerminal::pause() {
  steps_.push_back({Step::kPause});
}

void ScriptedTerminal::resizeTo(int rows, int cols) {
  steps_.push_back({Step::kResize, 0, {rows, cols}});
}

std::string ScriptedTerminal::text() const {
  return look([](const auto& screen) { return screen.text(); });
}
std::string ScriptedTerminal::row(int index) const {
  return look([index](const auto& screen) { return screen.row(index); });
}
int ScriptedTerminal::cursorRow() const {
  return look([](const auto& screen) { return screen.cursorRow(); });
}
int ScriptedTerminal::cursorCol() const {
  return look([](const auto& screen) { return screen.cursorCol(); });
}

std::string ScriptedTerminal::written() const {
  const std::lock_guard guard(mutex_);
  return written_;
}

void ScriptedTerminal::forgetWritten() {
  const std::lock_guard guard(mutex_);
  written_.clear();
}

TerminalSize ScriptedTerminal::size() const {
  return look([](const auto& screen) { return TerminalSize{screen.rows(), screen.cols()}; });
}

Input ScriptedTerminal::read(int waitMs) {
  while (true) {
    if (steps_.empty()) {
      if (waitMs != kForever) {
        return {InputKind::kTimeout};
      }
      if (onIdle) {
        onIdle();
      }
      if (steps_.empty()) {
        return {InputKind::kEnd};
      }
    }
    const Step step = steps_.front();
    if (step.kind == Step::kPause) {
      if (waitMs != 0) {
        steps_.pop_front();
      }
      if (waitMs != kForever) {
        return {InputKind::kTimeout};
      }
      continue;
    }
    steps_.pop_front();
    if (step.kind == Step::kByte) {
      return {InputKind::kByte, step.byte};
    }
    const std::lock_guard guard(mutex_);
    screen_.resize(step.size.rows, step.size.cols);
    return {InputKind::kResized};
  }
}

bool ScriptedTerminal::pending() {
  return !steps_.empty() && steps_.front().kind == Step::kByte;
}

void ScriptedTerminal::write(std::string_view bytes) {
  const std::lock_guard guard(mutex_);
  put(printed_);
  printed_.clear();
  put(bytes);
  for (const char c : screen_.takeAnswers()) {
    steps_.push_back({Step::kByte, static_cast<unsigned char>(c)});
  }
}

void ScriptedTerminal::print(std::string_view text) {
  const std::lock_guard guard(mutex_);
  printed_ += text;
}

bool ScriptedTerminal::runClear() {
  ++timesCleared;
  if (clearWorks) {
    const std::lock_guard guard(mutex_);
    put("\033[H\033[2J");
  }
  return clearWorks;
}

/// The terminal's driver sends a carriage return before each line feed.
void ScriptedTerminal::put(std::string_view bytes) {
  written_ += bytes;
  std::string out;
  for (const char c : bytes) {
    out += c == '\n' ? "\r\n" : std::string(1, c);
  }
  screen_.write(out);
}

}  // namespace lineeditor
