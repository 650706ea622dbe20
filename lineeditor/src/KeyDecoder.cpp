#include "KeyDecoder.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "KeyTable.h"
#include "Utf8.h"

namespace lineeditor {

namespace {

constexpr unsigned char kEscape = 27;
constexpr unsigned char kBackspaceByte = 127;
constexpr int kEscapeWaitMs = 50;  ///< after ESC: a sequence's next byte comes at once, a finger's does not
constexpr int kSequenceWaitMs = 200;  ///< inside a sequence that has begun
constexpr int kPasteQuietMs = 50;     ///< after a paste's end mark
constexpr int kPasteIdleMs = 1000;    ///< then Ctrl-C gets out of a paste whose end mark never came
constexpr std::size_t kMaxParameters = 64;
constexpr std::size_t kMaxLookAhead = 65536;
constexpr std::string_view kPasteStart = "\033[200~";
constexpr std::string_view kPasteEnd = "\033[201~";

bool isControl(unsigned char byte) {
  return byte < 0x20 || byte == kBackspaceByte;
}

/// Bytes at the end of a paste's text that must wait for the next ones: part of an end mark, a line end's
/// first half, a character's beginning.
std::size_t undecidedTail(std::string_view text) {
  for (std::size_t length = std::min(kPasteEnd.size() - 1, text.size()); length > 0; --length) {
    if (text.ends_with(kPasteEnd.substr(0, length))) {
      return length;
    }
  }
  return text.ends_with('\r') ? 1 : unfinishedTail(text);
}

}  // namespace

Input KeyDecoder::readByte(int waitMs) {
  if (!ahead_.empty()) {
    const unsigned char byte = ahead_.front();
    ahead_.pop_front();
    return {InputKind::Byte, byte};
  }
  return terminal().read(waitMs);
}

bool KeyDecoder::pending() {
  return !ahead_.empty() || resized_ || terminal().pending();
}

bool KeyDecoder::drawingCanWait() {
  return !ahead_.empty() || resized_ || (terminal().hurried() && terminal().pending());
}

bool KeyDecoder::take(int waitMs, unsigned char& byte) {
  while (true) {
    const Input input = readByte(waitMs);
    if (input.kind == InputKind::Resized) {
      resized_ = true;
      continue;
    }
    byte = input.byte;
    return input.kind == InputKind::Byte;
  }
}

Key KeyDecoder::next() {
  if (resized_) {
    resized_ = false;
    return {KeyCode::Resized};
  }
  if (inPaste_) {
    return fromPaste();
  }
  const Input input = readByte(kForever);
  switch (input.kind) {
    case InputKind::Byte:
      break;
    case InputKind::Resized:
      return {KeyCode::Resized};
    default:
      return {KeyCode::EndOfInput};
  }
  if (input.byte == kEscape) {
    return fromEscape();
  }
  if (isControl(input.byte)) {
    return {KeyCode::Control, input.byte};
  }
  return fromText(input.byte);
}

Key KeyDecoder::fromEscape() {
  bool alt = false;
  unsigned char byte = 0;
  while (true) {
    if (!take(kEscapeWaitMs, byte)) {
      return {KeyCode::Escape};
    }
    if (byte != kEscape) {
      break;
    }
    alt = true;
  }
  switch (byte) {
    case '[':
      return fromControlSequence(alt);
    case 'O':
      return fromSingleShift(alt);
    case ']':
    case 'P':
    case 'X':
    case '^':
    case '_':
      return swallowString();
    default:
      break;
  }
  if (isControl(byte)) {
    return {KeyCode::Control, byte, true};
  }
  if (byte >= 0x80) {
    fromText(byte);
    return {};
  }
  return {KeyCode::Alt, static_cast<unsigned char>(std::tolower(byte)), true};
}

Key KeyDecoder::fromControlSequence(bool alt) {
  std::string parameters;
  unsigned char byte = 0;
  while (true) {
    if (!take(kSequenceWaitMs, byte)) {
      return {};
    }
    if (byte == kEscape) {
      return fromEscape();  // the half one before it is given up
    }
    if (isControl(byte) || byte >= 0x80) {
      ahead_.push_front(byte);
      return {};
    }
    if (byte == '[' && parameters.empty()) {
      parameters = "[";  // the Linux console's function keys: one more byte
      continue;
    }
    if (byte >= 0x40 || (byte == '$' && isNumber(parameters))) {
      break;
    }
    if (parameters.size() < kMaxParameters) {
      parameters += static_cast<char>(byte);
    }
  }
  if (byte == 'M' && parameters.empty()) {  // a mouse report: three bytes more
    for (int i = 0; i < 3 && take(kSequenceWaitMs, byte); ++i) {
    }
    return {};
  }
  if (byte == '~' && parameters == "200") {
    inPaste_ = true;
    return fromPaste();
  }
  Key key = controlSequenceKey(parameters, static_cast<char>(byte));
  key.alt = key.alt || alt;
  return key;
}

Key KeyDecoder::fromSingleShift(bool alt) {
  std::string parameters;
  unsigned char byte = 0;
  do {
    if (!take(kSequenceWaitMs, byte)) {
      return {};
    }
    if (byte == kEscape) {
      return fromEscape();
    }
    if (isControl(byte) || byte >= 0x80) {
      ahead_.push_front(byte);
      return {};
    }
    if (byte < 0x40 && parameters.size() < kMaxParameters) {
      parameters += static_cast<char>(byte);
    }
  } while (byte < 0x40);
  Key key = singleShiftKey(parameters, static_cast<char>(byte));
  key.alt = key.alt || alt;
  return key;
}

/// A terminal's answer as a string: up to BEL or ESC \.
Key KeyDecoder::swallowString() {
  constexpr unsigned char kBell = 7;
  unsigned char byte = 0;
  unsigned char before = 0;
  while (take(kEscapeWaitMs, byte) && byte != kBell && !(before == kEscape && byte == '\\')) {
    before = byte;
  }
  return {};
}

Key KeyDecoder::fromText(unsigned char lead) {
  Key key{KeyCode::Text};
  key.text += static_cast<char>(lead);
  const std::size_t length = sequenceLength(lead);
  unsigned char byte = 0;
  while (key.text.size() < length && take(kSequenceWaitMs, byte)) {
    if ((byte & 0xC0) != 0x80) {
      ahead_.push_front(byte);
      break;
    }
    key.text += static_cast<char>(byte);
  }
  return key;
}

Key KeyDecoder::fromPaste() {
  Key key{KeyCode::Paste};
  key.text = std::move(pasteRest_);
  pasteRest_.clear();
  bool idle = false;
  while (true) {
    const std::size_t undecided = undecidedTail(key.text);
    const bool deliverable = key.text.size() > undecided;
    const Input input = readByte(deliverable ? 0 : (idle ? kForever : kPasteIdleMs));
    if (input.kind == InputKind::Timeout && !deliverable) {
      idle = true;
    } else if (input.kind == InputKind::Timeout || (input.kind == InputKind::Resized && deliverable)) {
      resized_ = resized_ || input.kind == InputKind::Resized;
      pasteRest_ = key.text.substr(key.text.size() - undecided);
      key.text.resize(key.text.size() - undecided);
      return key;
    } else if (input.kind == InputKind::Resized) {
      pasteRest_ = std::move(key.text);
      return {KeyCode::Resized};
    } else if (input.kind == InputKind::End) {
      inPaste_ = false;
      return key;
    } else if (idle && input.byte == control('C') && !pending()) {
      inPaste_ = false;
      return {KeyCode::Control, input.byte};
    } else {
      idle = false;
      key.text += static_cast<char>(input.byte);
      if (key.text.ends_with(kPasteEnd)) {
        key.text.resize(key.text.size() - kPasteEnd.size());
        if (endOfPasteIsReal()) {
          inPaste_ = false;
          return key;
        }
      }
    }
  }
}

/// The terminal sends nothing behind its mark until a key is pressed. Where more follows at once and holds
/// another end mark, this one was part of what was pasted.
bool KeyDecoder::endOfPasteIsReal() {
  std::string more;
  unsigned char byte = 0;
  while (more.size() < kMaxLookAhead && take(kPasteQuietMs, byte)) {
    more += static_cast<char>(byte);
  }
  giveBack(more);
  if (more.size() >= kMaxLookAhead) {
    return false;
  }
  const std::size_t end = more.find(kPasteEnd);
  return end == std::string::npos || more.find(kPasteStart) < end;
}

}  // namespace lineeditor
