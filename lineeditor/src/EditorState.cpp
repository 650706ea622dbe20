#include "EditorState.h"

#include "EditorSettings.h"
#include "Utf8.h"

namespace lineeditor {

namespace {

bool isWordDelimiter(char c) {
  return settings().wordDelimiters.find(c) != std::string::npos;
}

}  // namespace

void EditorState::set(std::string_view text) {
  line_ = cutAtCharacter(text, maxBytes_);
  cursor_ = line_.size();
}

void EditorState::moveTo(std::size_t offset) {
  cursor_ = boundaryAtOrAfter(line_, offset);
}

bool EditorState::replace(std::size_t from, std::size_t to, std::string_view text) {
  if (line_.size() - (to - from) + text.size() > maxBytes_) {
    return false;
  }
  line_.replace(from, to - from, text);
  moveTo(from + text.size());
  return true;
}

bool EditorState::insert(std::string_view text) {
  return replace(cursor_, cursor_, text);
}

bool EditorState::insertWhatFits(std::string_view text) {
  const std::string_view fitting = cutAtCharacter(text, maxBytes_ - line_.size());
  insert(fitting);
  return fitting.size() == text.size();
}

std::string EditorState::cut(std::size_t from, std::size_t to) {
  std::string taken = line_.substr(from, to - from);
  replace(from, to, {});
  return taken;
}

bool EditorState::left() {
  const std::size_t before = cursor_;
  cursor_ = previousBoundary(line_, cursor_);
  return cursor_ != before;
}

bool EditorState::right() {
  const std::size_t before = cursor_;
  cursor_ = nextBoundary(line_, cursor_);
  return cursor_ != before;
}

bool EditorState::eraseBefore() {
  const std::size_t from = previousBoundary(line_, cursor_);
  return from != cursor_ && replace(from, cursor_, {});
}

bool EditorState::eraseAt() {
  const std::size_t to = nextBoundary(line_, cursor_);
  return to != cursor_ && replace(cursor_, to, {});
}

bool EditorState::transposeBefore() {
  const std::size_t second = previousBoundary(line_, cursor_);
  const std::size_t first = previousBoundary(line_, second);
  if (first == second || second == cursor_) {
    return false;
  }
  return replace(first, cursor_,
                 line_.substr(second, cursor_ - second) + line_.substr(first, second - first));
}

bool EditorState::eraseBlanksAround() {
  std::size_t from = cursor_;
  while (from > 0 && line_[from - 1] == ' ') {
    --from;
  }
  std::size_t to = cursor_;
  while (to < line_.size() && line_[to] == ' ') {
    ++to;
  }
  return from != to && replace(from, to, {});
}

std::size_t EditorState::skipDelimiters() const {
  std::size_t at = cursor_;
  while (at < line_.size() && isWordDelimiter(line_[at])) {
    ++at;
  }
  return at;
}

std::size_t EditorState::wordEnd() const {
  std::size_t at = skipDelimiters();
  while (at < line_.size() && !isWordDelimiter(line_[at])) {
    ++at;
  }
  return at;
}

std::size_t EditorState::wordStart() const {
  std::size_t at = cursor_;
  while (at > 0 && isWordDelimiter(line_[at - 1])) {
    --at;
  }
  while (at > 0 && !isWordDelimiter(line_[at - 1])) {
    --at;
  }
  return at;
}

bool EditorState::convertWord(std::string (*convert)(std::string_view)) {
  const std::size_t from = skipDelimiters();
  const std::size_t to = wordEnd();
  return from != to && replace(from, to, convert(std::string_view(line_).substr(from, to - from)));
}

bool EditorState::upperWord() {
  return convertWord(upperCase);
}
bool EditorState::lowerWord() {
  return convertWord(lowerCase);
}

bool EditorState::capitalise() {
  const std::size_t from = skipDelimiters();
  const std::size_t second = nextBoundary(line_, from);
  const std::size_t to = wordEnd();
  if (from == to) {
    return false;
  }
  const std::string_view word = std::string_view(line_).substr(from, to - from);
  return replace(from, to,
                 upperCase(word.substr(0, second - from)) + std::string(word.substr(second - from)));
}

}  // namespace lineeditor
