#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace lineeditor {

/// The line being edited, with its cursor. The cursor always stands between two characters. The line never
/// grows over its limit. A function that returns false has changed nothing.
class EditorState {
 public:
  explicit EditorState(std::size_t maxBytes) : maxBytes_(maxBytes) {}

  const std::string& line() const { return line_; }
  std::size_t cursor() const { return cursor_; }
  std::string_view beforeCursor() const { return std::string_view(line_).substr(0, cursor_); }

  void set(std::string_view text);     ///< cuts the text to the limit; the cursor goes to the end
  void moveTo(std::size_t offset);     ///< an offset inside a character means the end of the character
  bool insert(std::string_view text);  ///< all of the text, or nothing
  bool insertWhatFits(std::string_view text);  ///< as many whole characters as fit; false when not all fit
  bool replace(std::size_t from, std::size_t to, std::string_view text);  ///< the cursor goes behind the text
  /// Removes the text between the two offsets and returns the text.
  std::string cut(std::size_t from, std::size_t to);

  bool left();
  bool right();
  bool eraseBefore();
  bool eraseAt();
  bool transposeBefore();
  bool eraseBlanksAround();
  bool upperWord();
  bool lowerWord();
  bool capitalise();
  std::size_t wordEnd() const;    ///< end of the word at or after the cursor
  std::size_t wordStart() const;  ///< start of the word at or before the cursor

 private:
  std::size_t skipDelimiters() const;
  bool convertWord(std::string (*convert)(std::string_view));

  std::size_t maxBytes_;
  std::string line_;
  std::size_t cursor_ = 0;
};

}  // namespace lineeditor
