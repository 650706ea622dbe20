#pragma once

#include <string>

namespace lineeditor {

enum class KeyCode {
  Unknown,  ///< a sequence or combination that means nothing here
  Text,     ///< one character, or one byte that is not UTF-8
  Control,  ///< a byte below 32, or 127
  Alt,      ///< a printable ASCII character after ESC
  Escape,   ///< ESC alone
  Up,
  Down,
  Left,
  Right,
  Home,
  End,
  Insert,
  Delete,
  PageUp,
  PageDown,
  F1,
  F2,
  F3,
  F4,
  Paste,       ///< bytes between the marks of a paste; more may follow
  EndOfInput,  ///< nothing will come any more
  Resized,
};

struct Key {
  KeyCode code = KeyCode::Unknown;
  unsigned char byte = 0;  ///< of Control and Alt; Alt letters in lower case
  bool alt = false;        ///< ESC before it, or the terminal's own mark for Alt
  bool ctrl = false;
  std::string text{};  ///< of Text and Paste
};

constexpr unsigned char control(char letter) {
  return static_cast<unsigned char>(letter & 0x1F);
}

/// Blank, carriage return or line feed: what a listing goes on with.
inline bool continuesListing(const Key& key) {
  return (key.code == KeyCode::Text && key.text == " ") ||
         (key.code == KeyCode::Control && (key.byte == '\r' || key.byte == '\n'));
}

}  // namespace lineeditor
