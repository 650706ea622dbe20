// The keys that step through the history, search it, show it or clear it.
#include <algorithm>

#include "Display.h"
#include "HistoryRing.h"
#include "Input.h"
#include "KeyLoop.h"
#include "Output.h"
#include "lineeditor/History.h"

namespace lineeditor {

namespace {

constexpr const char* kConfirmClear = "!!! Confirm to clear history [y]:";

}  // namespace

/// Shows the entry with this number, counted back from the newest; 0 is the new line. An edited entry keeps
/// its edit until a line is accepted. Editing never changes the history.
void KeyLoop::browseTo(std::size_t back) {
  const std::vector<std::size_t> slots = historySlots();
  back = std::min(back, slots.size());
  if (back == back_) {
    return;
  }
  saveEditAndGoTo(back);
  const auto edit = edits_.find(back);
  state_.set(edit != edits_.end() ? edit->second : historyRing[slots[slots.size() - back]]);
}

void KeyLoop::saveEditAndGoTo(std::size_t back) {
  edits_[back_] = state_.line();
  back_ = back;
}

void KeyLoop::previousEntry() {
  browseTo(back_ + 1);
}
void KeyLoop::nextEntry() {
  if (back_ > 0) {
    browseTo(back_ - 1);
  }
}
void KeyLoop::firstEntry() {
  browseTo(kHistorySlots);
}
void KeyLoop::lastEntry() {
  browseTo(1);
}

void KeyLoop::search(const char* initial) {
  Display& display = Display::instance();
  display.beginTranscript();
  const std::int32_t found = historySearch(initial);
  display.endTranscript();
  if (found > 0) {
    saveEditAndGoTo(0);
    state_.set(historyRing[static_cast<std::size_t>(found) - 1]);
  }
}

void KeyLoop::searchAll() {
  search(nullptr);
}
void KeyLoop::searchCurrent() {
  search(state_.line().c_str());
}

void KeyLoop::showHistory() {
  Display::instance().leave(content(), Ending::kNewLine);
  historyShow();
  Display::instance().freshRow();
}

void KeyLoop::confirmClear() {
  Display& display = Display::instance();
  display.leave(content(), Ending::kSameRow);
  writeBuffered("\b\n");
  Content question;
  question.prompt = kConfirmClear;
  display.show(question);
  const Key answer = InputReader::instance().readSingleKey();
  display.leave(question, Ending::kSameRow);
  if (answer.code == KeyCode::kText && (answer.text == "y" || answer.text == "Y")) {
    historyClear();
    back_ = 0;
    writeBuffered("\b\nHistory are cleared!");
  }
  writeBuffered("\n");
  display.freshRow();
}

}  // namespace lineeditor
