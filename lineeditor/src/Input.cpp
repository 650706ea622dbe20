#include "Input.h"

#include "TerminalIo.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {
int rawDepth = 0;  // main thread only
}

RawScope::RawScope() {
  if (rawDepth++ == 0) {
    terminal().takeRaw();
  }
}

RawScope::~RawScope() {
  if (--rawDepth == 0) {
    terminal().restore();
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

int InputReader::readByteStandingAlone() {
  const RawScope raw;
  while (true) {
    const Input input = readByte();
    if (input.kind == InputKind::Byte) {
      return input.byte;
    }
    if (input.kind != InputKind::Resized) {
      return 0;
    }
  }
}

Key InputReader::readKeyStandingAlone() {
  const RawScope raw;
  Key key = readKey();
  while (key.code == KeyCode::Resized) {
    key = readKey();
  }
  return key;
}

}  // namespace lineeditor
