#include "Question.h"

#include <cstring>

#include "Input.h"
#include "KeyLoop.h"
#include "Utf8.h"
#include "lineeditor/Signals.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

std::optional<std::string> readPlainly(std::size_t maxBytes) {
  InputReader& reader = InputReader::instance();
  std::string line;
  while (line.size() < maxBytes && !line.ends_with('\n')) {
    const Input input = reader.readByte();
    if (input.kind == InputKind::kByte) {
      line += static_cast<char>(input.byte);
    } else if (input.kind == InputKind::kEnd) {
      if (line.empty() || endRequested()) {
        return std::nullopt;
      }
      break;
    }
  }
  const std::size_t tail = line.size() < maxBytes ? 0 : unfinishedTail(line);
  if (tail < line.size()) {
    reader.pushBack(std::string_view(line).substr(line.size() - tail));
    line.resize(line.size() - tail);
  }
  line.resize(std::strlen(line.c_str()));
  while (line.ends_with('\n') || line.ends_with('\r')) {
    line.pop_back();
  }
  return line;
}

std::optional<std::string> ask(const Question& question) {
  if (!terminalUsable()) {
    return readPlainly(question.maxBytes);
  }
  KeyLoop loop(question);
  if (loop.run() != KeyLoop::Result::kAccepted) {
    return std::nullopt;
  }
  return loop.line();
}

}  // namespace lineeditor
