#include "KeyLoop.h"

#include <cctype>
#include <cstdio>

#include "Display.h"
#include "EditorSettings.h"
#include "HistoryRing.h"
#include "Input.h"
#include "Output.h"
#include "Sequences.h"
#include "Utf8.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {

Display& display() {
  return Display::instance();
}

}  // namespace

KeyLoop::KeyLoop(const Question& question) : question_(question), state_(question.maxBytes) {
  state_.set(question.initial);
}

Content KeyLoop::content() const {
  Content content;
  content.prompt = question_.prompt;
  content.promptColour = settings().promptColour;
  content.line = state_.line();
  content.cursor = state_.cursor();
  content.list = list_;
  content.listFrom = listFrom_;
  return content;
}

void KeyLoop::refresh() {
  display().show(content());
}

KeyLoop::Result KeyLoop::run() {
  const RawScope raw;
  display().freshRow();
  writeBuffered(sequence::kPasteMarksOn);
  while (result_ == Result::Running) {
    if (!InputReader::instance().drawingCanWait()) {
      refresh();  // while more lies there the line is not drawn: a paste is drawn once
    }
    handle(InputReader::instance().readKey());
  }
  if (result_ == Result::EndOfInput && !display().inTranscript()) {
    display().leaveOpen();
  }
  if (!display().inTranscript()) {
    writeBuffered(sequence::kPasteMarksOff);
  }
  flushOutput();
  return result_;
}

void KeyLoop::handle(Key key) {
  if (key.code == KeyCode::EndOfInput) {
    result_ = Result::EndOfInput;
    return;
  }
  if (key.code == KeyCode::Resized) {
    refresh();
    return;
  }
  if (turnsListPage(key)) {
    return;
  }
  list_ = nullptr;
  if (question_.isMainPrompt) {
    display().dropTranscript();
  }
  const bool afterEscape = escapeBefore_;
  escapeBefore_ = key.code == KeyCode::Escape;
  if (afterEscape && (key.code == KeyCode::Up || key.code == KeyCode::Down || key.code == KeyCode::Home ||
                      key.code == KeyCode::End)) {
    key.alt = true;  // ESC pressed by hand before the key
  }
  if (key.code == KeyCode::Text) {
    type(key.text);
  } else if (key.code == KeyCode::Paste) {
    paste(key.text);
  } else if (const Action action = actionFor(key)) {
    (this->*action)();
  }
}

/// A list that does not fit is turned like a page of the pager; any other key closes it and does what it
/// does.
bool KeyLoop::turnsListPage(const Key& key) {
  if (!list_ || !continuesListing(key)) {
    return false;
  }
  const ListPage page = listPage(content(), terminal().size());
  if (listFrom_ + page.shown >= page.total) {
    return false;
  }
  listFrom_ += page.shown;
  return true;
}

void KeyLoop::act(bool changed) {
  if (!changed) {
    writeBuffered("\a");
  }
}

void KeyLoop::type(const std::string& text) {
  act(state_.insert(text));
}

/// A line end in a paste becomes a blank and waits for Enter like the rest of it.
void KeyLoop::paste(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    if (c == '\r' || (c == '\n' && !carriageReturnBefore_)) {
      text += ' ';
    } else if (c != '\n' && c != '\0') {
      text += c;
    }
    carriageReturnBefore_ = c == '\r';
  }
  act(state_.insertWhatFits(text));
}

void KeyLoop::accept() {
  std::string line = state_.line();
  if (line.ends_with(' ')) {
    line.pop_back();
  }
  display().leave(content(), Ending::NewLine);
  state_.set(line);
  result_ = Result::Accepted;
}

void KeyLoop::cancel() {
  display().leave(content(), Ending::Cancelled);
  state_.set({});
  result_ = Result::Cancelled;
}

void KeyLoop::endOrEraseAt() {
  if (!state_.line().empty()) {
    act(state_.eraseAt());
  } else if (question_.isMainPrompt || !display().inTranscript()) {
    refresh();
    result_ = Result::EndOfInput;
  } else {
    cancel();
  }
}

void KeyLoop::clearWindow() {
  display().remove();
  clearScreen();
  display().forget();
}

void KeyLoop::showHelp() {
  const std::function<void()>& help = question_.help ? question_.help : settings().keyHelp;
  if (!help) {
    return;
  }
  if (!display().inTranscript()) {
    display().leave(content(), Ending::SameRow);
  }
  help();
  display().freshRow();
}

void KeyLoop::debugKeys() {
  if (!question_.isMainPrompt) {
    return;
  }
  display().leave(content(), Ending::SameRow);
  writeBuffered("\b\nEnter keyboard debug mode, <Ctrl-C> to exit debug\n");
  Input input = InputReader::instance().readByte();
  while (input.kind != InputKind::End && !(input.kind == InputKind::Byte && input.byte == control('C'))) {
    if (input.kind == InputKind::Byte) {
      char shown[32];
      std::snprintf(shown, sizeof shown, "%3d 0x%02x (%c)\n", input.byte, input.byte,
                    input.byte < 0x80 && std::isprint(input.byte) != 0 ? input.byte : ' ');
      writeBuffered(shown);
    }
    input = InputReader::instance().readByte();
  }
  display().freshRow();
}

}  // namespace lineeditor
