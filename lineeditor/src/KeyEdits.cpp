// The keys that move the cursor and change the line.
#include "EditorSettings.h"
#include "KeyLoop.h"
#include "TerminalIo.h"

namespace lineeditor {

void KeyLoop::wordLeft() {
  state_.moveTo(state_.wordStart());
}
void KeyLoop::wordRight() {
  state_.moveTo(state_.wordEnd());
}
void KeyLoop::lineStart() {
  state_.moveTo(0);
}
void KeyLoop::lineEnd() {
  state_.moveTo(state_.line().size());
}

bool KeyLoop::moveRows(int rows) {
  const std::optional<std::size_t> offset = offsetInOtherRow(content(), terminal().size().cols, rows);
  if (offset) {
    state_.moveTo(*offset);
  }
  return offset.has_value();
}

void KeyLoop::rowUp() {
  moveRows(-1);
}
void KeyLoop::rowDown() {
  moveRows(1);
}
void KeyLoop::upOrPrevious() {
  if (!moveRows(-1)) {
    previousEntry();
  }
}
void KeyLoop::downOrNext() {
  if (!moveRows(1)) {
    nextEntry();
  }
}

void KeyLoop::emptyLine() {
  state_.set({});
}

/// An empty cut does not replace the text cut last.
void KeyLoop::keepCut(std::string text) {
  if (!text.empty()) {
    settings().lastCut = std::move(text);
    question_.toPaste.clear();
  }
}

void KeyLoop::cutToEnd() {
  keepCut(state_.cut(state_.cursor(), state_.line().size()));
}
void KeyLoop::cutToStart() {
  keepCut(state_.cut(0, state_.cursor()));
}
void KeyLoop::cutAll() {
  keepCut(state_.cut(0, state_.line().size()));
}
void KeyLoop::cutWordBefore() {
  keepCut(state_.cut(state_.wordStart(), state_.cursor()));
}
void KeyLoop::cutWordAfter() {
  keepCut(state_.cut(state_.cursor(), state_.wordEnd()));
}
void KeyLoop::pasteCut() {
  beepUnless(state_.insertWhatFits(question_.toPaste.empty() ? settings().lastCut : question_.toPaste));
}

}  // namespace lineeditor
