#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace lineeditor {

/// The line being edited and the cursor in it. The cursor always stands at a character boundary and the line
/// never grows over its limit; a function that returns false has changed nothing because there was nothing to
/// do or no room.
class EditorState {
 public:
  explicit EditorState(std::size_t maxBytes) : maxBytes_(maxBytes) {}

  const std::string& line() const { return line_; }
  std::size_t cursor() const { return cursor_; }
  std::string_view beforeCursor() const { return std::string_view(line_).substr(0, cursor_); }

  void set(std::string_view text);             ///< cut to the limit; the cursor goes to the end
  void moveTo(std::size_t offset);             ///< a boundary, or inside a character: then to its end
  bool insert(std::string_view text);          ///< whole or not at all
  bool insertWhatFits(std::string_view text);  ///< whole characters; false when something was left out
  bool replace(std::size_t from, std::size_t to, std::string_view text);  ///< the cursor goes behind the text
  /// What was between the two offsets.
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

/// Of the word operations; set by setWordDelimiters().
bool isWordDelimiter(char c);

}  // namespace lineeditor
