#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Text as the editor sees it: bytes cut into characters. A character is a grapheme cluster, or one byte that
/// is not UTF-8, or one code point that must not reach a terminal as it is. Every byte belongs to exactly one
/// character.
namespace lineeditor {

struct Character {
  std::size_t offset;
  std::size_t length;  ///< bytes
  bool shownAsEscape;  ///< as ^X or \xNN
};

std::vector<Character> characters(std::string_view text);

/// One cell of a screen row: a code point with what combines with it. 1 or 2 columns.
struct Glyph {
  std::string text;
  int width;
};
/// What one character is drawn as.
std::vector<Glyph> glyphs(std::string_view character, bool shownAsEscape);

/// The character boundary at or after the offset.
std::size_t boundaryAtOrAfter(std::string_view text, std::size_t offset);
std::size_t nextBoundary(std::string_view text, std::size_t offset);
std::size_t previousBoundary(std::string_view text, std::size_t offset);

/// The longest beginning of at most maxBytes that splits no character. NUL ends the text.
std::string_view cutAtCharacter(std::string_view text, std::size_t maxBytes);

/// How many bytes a UTF-8 sequence has that starts with this byte; 1 for a byte that starts none.
std::size_t sequenceLength(unsigned char lead);
/// Bytes at the end that may be the beginning of a code point whose rest has not come yet.
std::size_t unfinishedTail(std::string_view text);

std::string upperCase(std::string_view text);
std::string lowerCase(std::string_view text);

}  // namespace lineeditor
