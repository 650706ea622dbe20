#pragma once

#include <string>

namespace lineeditor {

enum class KeyCode {
  kUnknown,  ///< a sequence or a combination without a meaning here
  kText,     ///< one character, or one byte that is not UTF-8
  kControl,  ///< a byte below 32, or 127
  kAlt,      ///< a printable ASCII character after ESC
  kEscape,   ///< ESC alone
  kUp,
  kDown,
  kLeft,
  kRight,
  kHome,
  kEnd,
  kInsert,
  kDelete,
  kPageUp,
  kPageDown,
  kF1,
  kF2,
  kF3,
  kF4,
  kPaste,  ///< bytes of a paste; the next key may hold more of the same paste
  kEndOfInput,
  kResized,  ///< the window has a new size
};

struct Key {
  KeyCode code = KeyCode::kUnknown;
  unsigned char byte = 0;  ///< for kControl and kAlt; a letter of kAlt is in lower case
  bool alt = false;        ///< the key was typed with Alt, or after ESC
  bool ctrl = false;
  std::string text{};  ///< for kText and kPaste
};

inline constexpr unsigned char kEscapeByte = 27;
inline constexpr unsigned char kBackspaceByte = 127;

/// The byte that Ctrl and the letter send.
constexpr unsigned char control(char letter) {
  return static_cast<unsigned char>(letter & 0x1F);
}

/// True for the keys that show the next page of a listing: blank, carriage return and line feed.
inline bool continuesListing(const Key& key) {
  return (key.code == KeyCode::kText && key.text == " ") ||
         (key.code == KeyCode::kControl && (key.byte == '\r' || key.byte == '\n'));
}

}  // namespace lineeditor
