#include "KeyLoop.h"

#include <cctype>
#include <cstdio>

#include "Display.h"
#include "EditorSettings.h"
#include "Input.h"
#include "Output.h"
#include "Sequences.h"
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
  while (result_ == Result::kRunning) {
    if (!InputReader::instance().drawingCanWait()) {
      refresh();
    }
    handle(InputReader::instance().readKey());
  }
  if (result_ == Result::kEndOfInput && !display().inTranscript()) {
    display().leaveOpen();
  }
  if (!display().inTranscript()) {
    writeBuffered(sequence::kPasteMarksOff);
  }
  flushOutput();
  return result_;
}

void KeyLoop::handle(Key key) {
  if (key.code == KeyCode::kEndOfInput) {
    result_ = Result::kEndOfInput;
    return;
  }
  if (key.code == KeyCode::kResized) {
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
  escapeBefore_ = key.code == KeyCode::kEscape;
  if (afterEscape && (key.code == KeyCode::kUp || key.code == KeyCode::kDown || key.code == KeyCode::kHome ||
                      key.code == KeyCode::kEnd)) {
    key.alt = true;  // the user has pressed ESC before the key
  }
  if (key.code == KeyCode::kText) {
    type(key.text);
  } else if (key.code == KeyCode::kPaste) {
    paste(key.text);
  } else if (const Binding* const binding = bindingFor(key);
             binding != nullptr && (question_.isMainPrompt || !binding->mainPromptOnly)) {
    (this->*binding->action)();
  }
}

/// Blank and Enter show the next page of a list that does not fit into the window. Any other key closes the
/// list and has its usual effect.
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

void KeyLoop::beepUnless(bool changed) {
  if (!changed) {
    writeBuffered("\a");
  }
}

void KeyLoop::type(const std::string& text) {
  beepUnless(state_.insert(text));
}

/// A line end in a paste becomes a blank, so a paste never accepts the line.
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
  beepUnless(state_.insertWhatFits(text));
}

void KeyLoop::accept() {
  std::string line = state_.line();
  if (line.ends_with(' ')) {
    line.pop_back();
  }
  display().leave(content(), Ending::kNewLine);
  state_.set(line);
  result_ = Result::kAccepted;
}

void KeyLoop::cancel() {
  display().leave(content(), Ending::kCancelled);
  state_.set({});
  result_ = Result::kCancelled;
}

void KeyLoop::endOrEraseAt() {
  if (!state_.line().empty()) {
    beepUnless(state_.eraseAt());
  } else if (question_.isMainPrompt || !display().inTranscript()) {
    refresh();
    result_ = Result::kEndOfInput;
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
    display().leave(content(), Ending::kSameRow);
  }
  help();
  display().freshRow();
}

void KeyLoop::debugKeys() {
  display().leave(content(), Ending::kSameRow);
  writeBuffered("\b\nEnter keyboard debug mode, <Ctrl-C> to exit debug\n");
  Input input = InputReader::instance().readByte();
  while (input.kind != InputKind::kEnd && !(input.kind == InputKind::kByte && input.byte == control('C'))) {
    if (input.kind == InputKind::kByte) {
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
