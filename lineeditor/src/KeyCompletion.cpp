// The keys that complete a word or list the candidates.
#include <algorithm>
#include <cctype>

#include "EditorSettings.h"
#include "KeyLoop.h"
#include "Utf8.h"

namespace lineeditor {

namespace {

bool sameLetter(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

/// The longest common beginning of all names, spelled as in the first name.
std::string commonBeginning(const std::vector<Candidate>& candidates) {
  std::string_view common = candidates.front().name;
  for (const Candidate& candidate : candidates) {
    const std::string& name = candidate.name;
    const auto difference = std::mismatch(common.begin(), common.end(), name.begin(), name.end(), sameLetter);
    common = common.substr(0, static_cast<std::size_t>(difference.first - common.begin()));
  }
  return std::string(cutAtCharacter(candidates.front().name, common.size()));
}

}  // namespace

CompletionState KeyLoop::askHook() {
  CompletionState found;
  if (question_.isMainPrompt && settings().completionHook) {
    settings().completionHook(std::string(state_.beforeCursor()).c_str(), &found);
  }
  return found;
}

void KeyLoop::showList(CompletionState found) {
  if (found.candidates.empty() && found.hint.empty()) {
    beepUnless(false);
    return;
  }
  list_ = std::make_shared<const CompletionState>(std::move(found));
  listFrom_ = 0;
}

/// Replaces the word before the cursor with the common beginning of the candidates. A single candidate is
/// inserted whole, with a blank behind the name.
void KeyLoop::insertCandidate(const CompletionState& found) {
  const std::string_view before = state_.beforeCursor();
  const std::size_t blank = before.find_last_of(" \t");
  const std::size_t wordStart = blank == std::string_view::npos ? 0 : blank + 1;
  const std::size_t wordLength = before.size() - wordStart;
  std::string text = commonBeginning(found.candidates);
  if (text.size() < wordLength) {
    return;
  }
  std::size_t to = state_.cursor();
  if (found.candidates.size() == 1) {
    text += ' ';
    if (to < state_.line().size() && state_.line()[to] == ' ') {
      ++to;  // the blank already in the line is reused
    }
  }
  beepUnless(state_.replace(wordStart, to, text));
}

void KeyLoop::complete() {
  CompletionState found = askHook();
  if (!found.candidates.empty()) {
    insertCandidate(found);
  }
  if (found.candidates.size() != 1) {
    showList(std::move(found));
  }
}

void KeyLoop::listExpected() {
  showList(askHook());
}

}  // namespace lineeditor
