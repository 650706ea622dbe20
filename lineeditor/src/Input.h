#pragma once

#include <string_view>

#include "Key.h"
#include "KeyDecoder.h"

namespace lineeditor {

/// The terminal's settings are taken when the outermost scope begins and put back when it ends.
class RawScope {
 public:
  RawScope();
  ~RawScope();
  RawScope(const RawScope&) = delete;
  RawScope& operator=(const RawScope&) = delete;
};

/// What is typed, as keys or as bytes. Flushes the output before it waits.
class InputReader {
 public:
  static InputReader& instance();

  Key readKey();  ///< inside a RawScope
  bool drawingCanWait() { return decoder_.drawingCanWait(); }
  Input readByte();  ///< inside a RawScope where the terminal is usable; as it comes, not decoded
  void giveBack(std::string_view bytes) { decoder_.giveBack(bytes); }  ///< the next to be read
  int readByteStandingAlone();                                         ///< 0 when the read failed
  Key readKeyStandingAlone();  ///< a change of the window is no key here
  void reset() { decoder_ = KeyDecoder(); }

 private:
  KeyDecoder decoder_;
};

}  // namespace lineeditor
