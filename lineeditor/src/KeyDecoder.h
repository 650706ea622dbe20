#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "Key.h"
#include "TerminalIo.h"

namespace lineeditor {

/// Makes keys out of bytes. The decoder consumes each escape sequence whole, whether known or not. After a
/// short wait, the decoder drops an unfinished sequence. A change of the window's size never splits a
/// sequence. Bytes read ahead are kept for the next call.
class KeyDecoder {
 public:
  Key next();
  bool pending();
  /// True when more input of a burst is waiting, so that drawing after each key would be wasted.
  bool drawingCanWait();
  Input readByte(int waitMs);  ///< bytes read ahead come first
  void pushBack(std::string_view bytes) { readAhead_.insert(readAhead_.begin(), bytes.begin(), bytes.end()); }

 private:
  bool take(int waitMs, unsigned char& byte);  ///< false: no byte came in time, or the input ended
  Key fromEscape();
  /// The rest of a sequence after ESC [ (a control sequence) or after ESC O (a single shift).
  Key fromSequence(bool isControlSequence, bool alt);
  Key swallowString();
  Key fromText(unsigned char lead);
  Key fromPaste();
  bool endOfPasteIsReal();

  std::deque<unsigned char> readAhead_;
  bool inPaste_ = false;
  std::string pasteRest_;  ///< the end of a paste's bytes: perhaps half an end mark or half a character
  bool resized_ = false;
};

}  // namespace lineeditor
