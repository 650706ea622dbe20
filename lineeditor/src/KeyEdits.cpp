// The keys that move the cursor and change the line.
#include "EditorSettings.h"
#include "KeyLoop.h"
#include "TerminalIo.h"

namespace lineeditor {

void KeyLoop::left() {
  state_.left();
}
void KeyLoop::right() {
  state_.right();
}
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

void KeyLoop::rowUp() {
  if (const auto offset = otherRow(content(), terminal().size().cols, -1)) {
    state_.moveTo(*offset);
  }
}

void KeyLoop::rowDown() {
  if (const auto offset = otherRow(content(), terminal().size().cols, 1)) {
    state_.moveTo(*offset);
  }
}

void KeyLoop::upOrPrevious() {
  if (const auto offset = otherRow(content(), terminal().size().cols, -1)) {
    state_.moveTo(*offset);
  } else {
    previousEntry();
  }
}

void KeyLoop::downOrNext() {
  if (const auto offset = otherRow(content(), terminal().size().cols, 1)) {
    state_.moveTo(*offset);
  } else {
    nextEntry();
  }
}

void KeyLoop::eraseBefore() {
  state_.eraseBefore();
}
void KeyLoop::eraseAt() {
  state_.eraseAt();
}
void KeyLoop::upperWord() {
  state_.upperWord();
}
void KeyLoop::lowerWord() {
  state_.lowerWord();
}
void KeyLoop::capitalise() {
  state_.capitalise();
}
void KeyLoop::eraseBlanksAround() {
  state_.eraseBlanksAround();
}
void KeyLoop::transpose() {
  state_.transposeBefore();
}
void KeyLoop::emptyLine() {
  state_.set({});
}

/// An empty cut leaves what was cut last.
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
  act(state_.insertWhatFits(question_.toPaste.empty() ? settings().lastCut : question_.toPaste));
}

}  // namespace lineeditor
