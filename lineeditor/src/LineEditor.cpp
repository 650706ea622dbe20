#include "lineeditor/LineEditor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "EditorSettings.h"
#include "HistoryRing.h"
#include "KeyLoop.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {

constexpr std::size_t kMaxLineBytes = 4095;

char* give(const std::string& line, char* buffer) {
  std::memcpy(buffer, line.c_str(), line.size() + 1);
  return buffer;
}

}  // namespace

void setCompletionHook(CompletionHook hook) {
  settings().completionHook = std::move(hook);
}
void setKeyHelp(std::function<void()> show) {
  settings().keyHelp = std::move(show);
}
void setPromptColour(std::uint32_t attribute) {
  settings().promptColour = attribute;
}
void setWordDelimiters(const char* text) {
  constexpr std::size_t kMaxDelimiters = 63;
  if (text != nullptr) {
    settings().wordDelimiters = std::string(text, strnlen(text, kMaxDelimiters));
  }
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
  const KeyLoop::Result result = loop.run();
  if (result == KeyLoop::Result::kCancelled) {
    buffer[0] = '\0';
    errno = EAGAIN;
  }
  if (result != KeyLoop::Result::kAccepted) {
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

}  // namespace lineeditor
