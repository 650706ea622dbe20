#include "Input.h"

#include "TerminalIo.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {
int rawDepth = 0;  // open RawScopes; main thread only
}

RawScope::RawScope() {
  if (rawDepth++ == 0) {
    terminal().enterRawMode();
  }
}

RawScope::~RawScope() {
  if (--rawDepth == 0) {
    terminal().leaveRawMode();
  }
}

InputReader& InputReader::instance() {
  static InputReader reader;
  return reader;
}

Key InputReader::readKey() {
  flushOutput();
  return decoder_.next();
}

Input InputReader::readByte() {
  flushOutput();
  return decoder_.readByte(kForever);
}

int InputReader::readSingleByte() {
  const RawScope raw;
  while (true) {
    const Input input = readByte();
    if (input.kind == InputKind::kByte) {
      return input.byte;
    }
    if (input.kind != InputKind::kResized) {
      return 0;
    }
  }
}

Key InputReader::readSingleKey() {
  const RawScope raw;
  Key key = readKey();
  while (key.code == KeyCode::kResized) {
    key = readKey();
  }
  return key;
}

}  // namespace lineeditor
