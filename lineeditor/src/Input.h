#pragma once

#include <string_view>

#include "Key.h"
#include "KeyDecoder.h"

namespace lineeditor {

/// Puts the terminal into raw mode. Scopes may nest: the outermost scope saves the settings and restores
/// them.
class RawScope {
 public:
  RawScope();
  ~RawScope();
  RawScope(const RawScope&) = delete;
  RawScope& operator=(const RawScope&) = delete;
};

/// Reads the keyboard, key by key or byte by byte. Each read flushes the output before waiting.
class InputReader {
 public:
  static InputReader& instance();

  Key readKey();  ///< the caller holds a RawScope
  bool drawingCanWait() { return decoder_.drawingCanWait(); }
  Input readByte();  ///< not decoded; the caller holds a RawScope where the terminal is usable
  void pushBack(std::string_view bytes) { decoder_.pushBack(bytes); }  ///< the next read gets these bytes
  int readSingleByte();  ///< enters raw mode for one byte; 0 when the read failed
  Key readSingleKey();   ///< enters raw mode for one key; ignores changes of the window's size
  void reset() { decoder_ = KeyDecoder(); }

 private:
  KeyDecoder decoder_;
};

}  // namespace lineeditor
