#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "Key.h"
#include "TerminalIo.h"

namespace lineeditor {

/// Makes keys of bytes. A sequence is taken whole, known or not; what stays half is given up after a short
/// wait, and a change of the window never tears one. Bytes read ahead stay for the next call.
class KeyDecoder {
 public:
  Key next();
  bool pending();
  /// Whether to draw only when more has been read: it lies there, and came in a burst. Does not look without
  /// need.
  bool drawingCanWait();
  Input readByte(int waitMs);  ///< one byte, those read ahead first
  void giveBack(std::string_view bytes) { ahead_.insert(ahead_.begin(), bytes.begin(), bytes.end()); }

 private:
  bool take(int waitMs, unsigned char& byte);  ///< false: nothing came in time, or the input ended
  Key fromEscape();
  Key fromControlSequence(bool alt);
  Key fromSingleShift(bool alt);
  Key swallowString();
  Key fromText(unsigned char lead);
  Key fromPaste();
  bool endOfPasteIsReal();

  std::deque<unsigned char> ahead_;
  bool inPaste_ = false;
  std::string pasteRest_;  ///< of a paste: what may become a mark or a character with the next bytes
  bool resized_ = false;
};

}  // namespace lineeditor
