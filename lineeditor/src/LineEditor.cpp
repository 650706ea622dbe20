#include "lineeditor/LineEditor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "EditorSettings.h"
#include "HistoryRing.h"
#include "Input.h"
#include "KeyLoop.h"
#include "Utf8.h"
#include "lineeditor/Signals.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {

constexpr std::size_t kMaxLineBytes = 4095;

/// As fgets: at most maxBytes, up to a line end. A character that does not fit is left for the next line,
/// unless it would fit into none. Nothing at end of input, and when the console is told to end.
std::optional<std::string> readPlainly(std::size_t maxBytes) {
  InputReader& reader = InputReader::instance();
  std::string line;
  while (line.size() < maxBytes && !line.ends_with('\n')) {
    const Input input = reader.readByte();
    if (input.kind == InputKind::Byte) {
      line += static_cast<char>(input.byte);
    } else if (input.kind == InputKind::End) {
      if (line.empty() || endRequested()) {
        return std::nullopt;
      }
      break;
    }
  }
  const std::size_t tail = line.size() < maxBytes ? 0 : unfinishedTail(line);
  if (tail < line.size()) {
    reader.giveBack(std::string_view(line).substr(line.size() - tail));
    line.resize(line.size() - tail);
  }
  line.resize(std::strlen(line.c_str()));
  while (line.ends_with('\n') || line.ends_with('\r')) {
    line.pop_back();
  }
  return line;
}

char* give(const std::string& line, char* buffer) {
  std::memcpy(buffer, line.c_str(), line.size() + 1);
  return buffer;
}

}  // namespace

EditorSettings& settings() {
  static EditorSettings instance;
  return instance;
}

void setCompletionHook(CompletionHook hook) {
  settings().completionHook = std::move(hook);
}
void setKeyHelp(std::function<void()> show) {
  settings().keyHelp = std::move(show);
}
void setPromptColour(std::uint32_t attribute) {
  settings().promptColour = attribute;
}

char* readLine(const char* prompt, char* buffer, std::size_t size, bool noHistory) {
  if (buffer == nullptr || size < 2) {
    return nullptr;
  }
  if (!terminalUsable()) {
    const std::optional<std::string> line = readPlainly(size - 1);
    return line ? give(*line, buffer) : nullptr;
  }
  Question question;
  question.prompt = prompt == nullptr ? "" : prompt;
  question.maxBytes = std::min(size - 1, kMaxLineBytes);
  question.isMainPrompt = !noHistory;
  KeyLoop loop(question);
  switch (loop.run()) {
    case KeyLoop::Result::Accepted:
      break;
    case KeyLoop::Result::Cancelled:
      buffer[0] = '\0';
      errno = EAGAIN;
      return nullptr;
    default:
      return nullptr;
  }
  if (!noHistory) {
    historyAdd(loop.line());
  }
  return give(loop.line(), buffer);
}

char* readLine(const char* prompt, char* buffer, std::size_t size) {
  return readLine(prompt, buffer, size, false);
}
char* readAnswer(const char* prompt, char* buffer, std::size_t size) {
  return readLine(prompt, buffer, size, true);
}

std::optional<std::string> ask(const Question& question) {
  if (!terminalUsable()) {
    return readPlainly(question.maxBytes);
  }
  KeyLoop loop(question);
  if (loop.run() != KeyLoop::Result::Accepted) {
    return std::nullopt;
  }
  return loop.line();
}

}  // namespace lineeditor
