#include "Display.h"

#include "Output.h"
#include "Sequences.h"
#include "TerminalIo.h"
#include "lineeditor/Terminal.h"

namespace lineeditor {

namespace {

/// The first bytes of a help screen. A terminal shows nothing for these bytes.
constexpr std::string_view kBlankTakenBack = " \b";

const char* endingText(Ending ending) {
  switch (ending) {
    case Ending::kNewLine:
      return "\n";
    case Ending::kCancelled:
      return " \b^C\n";
    default:
      return "";
  }
}

}  // namespace

Display& Display::instance() {
  static Display& display = *new Display;  // never destroyed: notices may come while the program ends
  return display;
}

void Display::freshRow() {
  const std::lock_guard guard(outputMutex());
  if (promptShown_ || !transcriptRows_.empty()) {
    return;
  }
  // A full row of blanks ends on the same row where the row was empty, and on the next row otherwise.
  outputBuffer.append(static_cast<std::size_t>(terminal().size().cols), ' ');
  outputBuffer += '\r';
  outputBuffer += sequence::kEraseBelow;
  painter_.start();
  rowLeftOpen_ = false;
}

void Display::show(Content content) {
  const std::lock_guard guard(outputMutex());
  const bool appends = appendsOneCharacter(content);
  content_ = std::move(content);
  if (!appends || !painter_.append(content_.line.back(), terminal().size(), outputBuffer)) {
    showLocked();
  }
}

/// Most keys append one character. Skipping the layout for these keys saves about 5 % of the time from key to
/// echo (bench/editor_bench).
bool Display::appendsOneCharacter(const Content& content) const {
  const std::string& before = content_.line;
  return promptShown_ && !drawnWithTranscript_ && transcriptRows_.empty() && !content.list &&
         !content_.list && content.line.size() == before.size() + 1 && content_.cursor == before.size() &&
         content.cursor == content.line.size() && content.line.back() >= ' ' && content.line.back() <= '~' &&
         content.prompt == content_.prompt && content.line.starts_with(before);
}

void Display::showLocked() {
  const TerminalSize size = terminal().size();
  if (!promptShown_) {
    painter_.start();
    promptShown_ = true;
  } else if (!painter_.drawnFor(size)) {
    outputBuffer += painter_.erase(size);
  }
  if (!transcript_.empty() && transcriptCols_ != size.cols) {
    const std::vector<std::string> lines = std::move(transcript_);
    clearTranscript();
    for (const std::string& line : lines) {
      addToTranscript(line);
    }
  }
  outputBuffer += painter_.paint(layout(content_, transcriptRows_, size), size);
  drawnWithTranscript_ = !transcriptRows_.empty();
}

void Display::leave(Content content, Ending ending) {
  content.list = nullptr;
  content.cursor = content.line.size();
  const std::lock_guard guard(outputMutex());
  content_ = std::move(content);
  if (transcriptOpen_) {
    addToTranscript(content_.prompt + content_.line + (ending == Ending::kCancelled ? "^C" : ""));
    content_ = Content{};
    showLocked();
    return;
  }
  showLocked();
  outputBuffer += painter_.toEnd();
  outputBuffer += endingText(ending);
  promptShown_ = false;
  flushOutputLocked();  // the commands that follow print straight to standard output
}

void Display::remove() {
  const std::lock_guard guard(outputMutex());
  if (promptShown_ && !transcriptOpen_) {
    outputBuffer += painter_.erase(terminal().size());
    promptShown_ = false;
  }
}

void Display::forget() {
  const std::lock_guard guard(outputMutex());
  promptShown_ = false;
}

void Display::print(std::string_view lines) {
  const std::lock_guard guard(outputMutex());
  if (!transcriptOpen_) {
    terminal().print(lines);
    return;
  }
  addToTranscript(lines.starts_with(kBlankTakenBack) ? lines.substr(kBlankTakenBack.size()) : lines);
  content_ = Content{};
  showLocked();
}

void Display::addToTranscript(std::string_view lines) {
  transcriptCols_ = terminal().size().cols;
  while (!lines.empty()) {
    const std::size_t end = lines.find('\n');
    const std::string_view line = lines.substr(0, end);
    transcript_.emplace_back(line);
    for (Row& row : textRows(line, 0, transcriptCols_)) {
      transcriptRows_.push_back(std::move(row));
    }
    lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
  }
}

void Display::clearTranscript() {
  transcript_.clear();
  transcriptRows_.clear();
}

void Display::beginTranscript() {
  const std::lock_guard guard(outputMutex());
  clearTranscript();
  transcriptOpen_ = true;
}

bool Display::inTranscript() {
  const std::lock_guard guard(outputMutex());
  return transcriptOpen_;
}

void Display::endTranscript() {
  const std::lock_guard guard(outputMutex());
  transcriptOpen_ = false;
}

void Display::dropTranscript() {
  const std::lock_guard guard(outputMutex());
  clearTranscript();
}

void Display::notice(const std::string& block) {
  const std::lock_guard guard(outputMutex());
  if (!promptShown_) {
    terminal().print(block);
    terminal().write({});
    rowLeftOpen_ = false;
    return;
  }
  outputBuffer += painter_.erase(terminal().size());
  outputBuffer += block;
  if (!block.empty() && block.back() != '\n') {
    outputBuffer += '\n';
  }
  promptShown_ = false;
  showLocked();
  flushOutputLocked();
}

void Display::leaveOpen() {
  const std::lock_guard guard(outputMutex());
  rowLeftOpen_ = promptShown_;
  promptShown_ = false;
  clearTranscript();
}

void Display::closeOpenRow() {
  const std::lock_guard guard(outputMutex());
  if (rowLeftOpen_) {
    outputBuffer += painter_.toEnd();
    outputBuffer += '\n';
    rowLeftOpen_ = false;
  }
}

}  // namespace lineeditor
