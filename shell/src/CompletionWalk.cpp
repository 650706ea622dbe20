#include "CompletionWalk.h"

#include <strings.h>

#include <algorithm>

#include "lineeditor/Completion.h"
#include "lineeditor/Terminal.h"

namespace shell {

namespace {

constexpr std::size_t kFirstNames = 8;  // the number of names in the first colour

// A word that no keyword begins with. Behind an unfinished word, this word keeps the walk from offering the
// keywords that would follow.
const std::string kStillTyping = " ";

}  // namespace

CompletionWalk::CompletionWalk(const std::string& text, lineeditor::CompletionState* state,
                               std::uint32_t hintColour)
    : TreeWalk(text), state_(state), hintColour_(hintColour) {
  expectAWord();
  if (text.empty() || text.back() != ' ') {
    words_.push_back(kStillTyping);
  }
}

void CompletionWalk::expectAWord() {
  if (words_.empty()) {
    words_.emplace_back();
  }
}

bool CompletionWalk::matched(CliTreeNode& node, std::int32_t* result) {
  collected_.clear();
  *result = 1;
  if (node.info->valueKind == 0) {
    expectAWord();
    return true;
  }
  if (words_.empty()) {
    lineeditor::setHint(state_, node.info->hint.c_str(), hintColour_);
    return false;
  }
  if (words_.front() == kStillTyping) {
    return false;
  }
  words_.pop_front();
  expectAWord();
  return true;
}

void CompletionWalk::unmatched(CliTreeNode& node) {
  collected_.push_back(node.info);
}

std::int32_t CompletionWalk::levelEnded() {
  const std::string beginning = words_.empty() ? std::string() : words_.front();
  const bool withHelp = std::any_of(collected_.begin(), collected_.end(),
                                    [](const CliNodeInfo* info) { return !info->help.empty(); });
  for (std::size_t position = 0; position < collected_.size(); ++position) {
    const CliNodeInfo& info = *collected_[position];
    if (strncasecmp(info.name.c_str(), beginning.c_str(), beginning.size()) != 0) {
      continue;
    }
    if (withHelp) {
      lineeditor::addCandidate(state_, info.name.c_str(),
                               position < kFirstNames ? lineeditor::kBrightYellow : lineeditor::kBrightCyan,
                               info.help.c_str(), position % 2 == 0 ? lineeditor::kCyan : lineeditor::kWhite);
    } else {
      lineeditor::addCandidate(state_, info.name.c_str(), lineeditor::kBrightMagenta, nullptr, 0);
    }
  }
  return 1;
}

}  // namespace shell
