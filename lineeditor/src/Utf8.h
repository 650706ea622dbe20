#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Cuts text into characters. A character is a grapheme cluster, one byte that is not UTF-8, or one code
/// point that is not written to a terminal. Every byte belongs to exactly one character.
namespace lineeditor {

struct Character {
  std::size_t offset;
  std::size_t length;  ///< bytes
  bool shownAsEscape;  ///< drawn as ^X or \xNN
};

std::vector<Character> characters(std::string_view text);

/// The content of a cell: a code point together with its combining marks. width: 1 or 2 columns.
struct Glyph {
  std::string text;
  int width;
};
/// The glyphs that draw one character.
std::vector<Glyph> glyphs(std::string_view character, bool shownAsEscape);
/// The glyphs that draw a text.
std::vector<Glyph> glyphs(std::string_view text);

/// The nearest boundary between characters at or after the offset.
std::size_t boundaryAtOrAfter(std::string_view text, std::size_t offset);
std::size_t nextBoundary(std::string_view text, std::size_t offset);
std::size_t previousBoundary(std::string_view text, std::size_t offset);

/// The longest beginning of at most maxBytes that ends between two characters. A NUL ends the text.
std::string_view cutAtCharacter(std::string_view text, std::size_t maxBytes);

/// The length in bytes of the UTF-8 sequence that starts with this byte. 1 when no sequence starts so.
std::size_t sequenceLength(unsigned char lead);
/// The number of bytes at the end that begin a code point without finishing the code point.
std::size_t unfinishedTail(std::string_view text);

std::string upperCase(std::string_view text);
std::string lowerCase(std::string_view text);

}  // namespace lineeditor
