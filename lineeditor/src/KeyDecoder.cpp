#include "KeyDecoder.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "KeySequences.h"
#include "Utf8.h"

namespace lineeditor {

namespace {

constexpr int kEscapeWaitMs = 50;     ///< after ESC: a later byte belongs to the next key
constexpr int kSequenceWaitMs = 200;  ///< inside a sequence: a later byte belongs to the next key
constexpr int kPasteQuietMs = 50;     ///< after an end mark; see endOfPasteIsReal()
constexpr int kPasteIdleMs = 1000;    ///< after this wait, Ctrl-C ends a paste without an end mark
constexpr std::size_t kMaxParameters = 64;
constexpr std::size_t kMaxLookAhead = 65536;
constexpr std::string_view kPasteStart = "\033[200~";
constexpr std::string_view kPasteEnd = "\033[201~";

bool isControl(unsigned char byte) {
  return byte < 0x20 || byte == kBackspaceByte;
}

/// The number of bytes at the end of a paste's text whose meaning the next bytes may change. Such bytes begin
/// an end mark, a line end or a character.
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
  if (!readAhead_.empty()) {
    const unsigned char byte = readAhead_.front();
    readAhead_.pop_front();
    return {InputKind::kByte, byte};
  }
  return terminal().read(waitMs);
}

bool KeyDecoder::pending() {
  return !readAhead_.empty() || resized_ || terminal().pending();
}

bool KeyDecoder::drawingCanWait() {
  return !readAhead_.empty() || resized_ || (terminal().inBurst() && terminal().pending());
}

bool KeyDecoder::take(int waitMs, unsigned char& byte) {
  while (true) {
    const Input input = readByte(waitMs);
    if (input.kind == InputKind::kResized) {
      resized_ = true;
      continue;
    }
    byte = input.byte;
    return input.kind == InputKind::kByte;
  }
}

Key KeyDecoder::next() {
  if (resized_) {
    resized_ = false;
    return {KeyCode::kResized};
  }
  if (inPaste_) {
    return fromPaste();
  }
  const Input input = readByte(kForever);
  switch (input.kind) {
    case InputKind::kByte:
      break;
    case InputKind::kResized:
      return {KeyCode::kResized};
    default:
      return {KeyCode::kEndOfInput};
  }
  if (input.byte == kEscapeByte) {
    return fromEscape();
  }
  if (isControl(input.byte)) {
    return {KeyCode::kControl, input.byte};
  }
  return fromText(input.byte);
}

Key KeyDecoder::fromEscape() {
  bool alt = false;
  unsigned char byte = 0;
  while (true) {
    if (!take(kEscapeWaitMs, byte)) {
      return {KeyCode::kEscape};
    }
    if (byte != kEscapeByte) {
      break;
    }
    alt = true;
  }
  switch (byte) {
    case '[':
      return fromSequence(true, alt);
    case 'O':
      return fromSequence(false, alt);
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
    return {KeyCode::kControl, byte, true};
  }
  if (byte >= 0x80) {
    fromText(byte);
    return {};
  }
  return {KeyCode::kAlt, static_cast<unsigned char>(std::tolower(byte)), true};
}

Key KeyDecoder::fromSequence(bool isControlSequence, bool alt) {
  std::string parameters;
  unsigned char byte = 0;
  while (true) {
    if (!take(kSequenceWaitMs, byte)) {
      return {};
    }
    if (byte == kEscapeByte) {
      return fromEscape();  // the unfinished sequence before this ESC is dropped
    }
    if (isControl(byte) || byte >= 0x80) {
      readAhead_.push_front(byte);
      return {};
    }
    if (isControlSequence && byte == '[' && parameters.empty()) {
      parameters = "[";  // a function key of the Linux console: one more byte follows
      continue;
    }
    if (byte >= 0x40 || (isControlSequence && byte == '$' && isNumber(parameters))) {
      break;
    }
    if (parameters.size() < kMaxParameters) {
      parameters += static_cast<char>(byte);
    }
  }
  if (isControlSequence && byte == 'M' && parameters.empty()) {  // a mouse report: three more bytes follow
    for (int i = 0; i < 3 && take(kSequenceWaitMs, byte); ++i) {
    }
    return {};
  }
  if (isControlSequence && byte == '~' && parameters == "200") {
    inPaste_ = true;
    return fromPaste();
  }
  const char final = static_cast<char>(byte);
  Key key = isControlSequence ? controlSequenceKey(parameters, final) : singleShiftKey(parameters, final);
  key.alt = key.alt || alt;
  return key;
}

/// Drops a string that the terminal has sent, up to BEL or ESC \.
Key KeyDecoder::swallowString() {
  constexpr unsigned char kBell = 7;
  unsigned char byte = 0;
  unsigned char before = 0;
  while (take(kEscapeWaitMs, byte) && byte != kBell && !(before == kEscapeByte && byte == '\\')) {
    before = byte;
  }
  return {};
}

Key KeyDecoder::fromText(unsigned char lead) {
  Key key{KeyCode::kText};
  key.text += static_cast<char>(lead);
  const std::size_t length = sequenceLength(lead);
  unsigned char byte = 0;
  while (key.text.size() < length && take(kSequenceWaitMs, byte)) {
    if ((byte & 0xC0) != 0x80) {
      readAhead_.push_front(byte);
      break;
    }
    key.text += static_cast<char>(byte);
  }
  return key;
}

Key KeyDecoder::fromPaste() {
  Key key{KeyCode::kPaste};
  key.text = std::move(pasteRest_);
  pasteRest_.clear();
  bool idle = false;
  std::size_t markBegins = 0;  // a dropped mark does not join the bytes around it to a new one
  while (true) {
    const std::size_t undecided = undecidedTail(key.text);
    const bool deliverable = key.text.size() > undecided;
    const Input input = readByte(deliverable ? 0 : (idle ? kForever : kPasteIdleMs));
    if (input.kind == InputKind::kTimeout && !deliverable) {
      idle = true;
    } else if (input.kind == InputKind::kTimeout || (input.kind == InputKind::kResized && deliverable)) {
      resized_ = resized_ || input.kind == InputKind::kResized;
      pasteRest_ = key.text.substr(key.text.size() - undecided);
      key.text.resize(key.text.size() - undecided);
      return key;
    } else if (input.kind == InputKind::kResized) {
      pasteRest_ = std::move(key.text);
      return {KeyCode::kResized};
    } else if (input.kind == InputKind::kEnd) {
      inPaste_ = false;
      return key;
    } else if (idle && input.byte == control('C') && !pending()) {
      inPaste_ = false;
      return {KeyCode::kControl, input.byte};
    } else {
      idle = false;
      key.text += static_cast<char>(input.byte);
      if (std::string_view(key.text).substr(markBegins).ends_with(kPasteEnd)) {
        key.text.resize(key.text.size() - kPasteEnd.size());
        if (endOfPasteIsReal()) {
          inPaste_ = false;
          return key;
        }
        markBegins = key.text.size();
      }
    }
  }
}

/// The terminal sends no byte after its end mark until the user presses a key. Bytes that follow at once and
/// hold another end mark show that the first mark was pasted text. The look ends at the next mark, so each
/// byte of a paste is looked at once, however many marks the paste holds.
bool KeyDecoder::endOfPasteIsReal() {
  std::string more;
  bool endsHere = true;
  bool decided = false;
  unsigned char byte = 0;
  while (!decided && take(kPasteQuietMs, byte)) {
    more += static_cast<char>(byte);
    const bool another = more.ends_with(kPasteEnd) || more.size() >= kMaxLookAhead;
    endsHere = !another;
    decided = another || more.ends_with(kPasteStart);
  }
  pushBack(more);
  return endsHere;
}

}  // namespace lineeditor
