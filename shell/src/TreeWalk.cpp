#include "TreeWalk.h"

#include <strings.h>

#include <sstream>

namespace shell {

namespace {

enum class Mode {
  kTry,   ///< the node is a first child, or stands behind a node that did not match
  kSkip,  ///< the walk came from a skipped node, or from a level below
};

}  // namespace

TreeWalk::TreeWalk(const std::string& line) {
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    words_.push_back(std::move(word));
  }
}

bool TreeWalk::matchesFront(const CliTreeNode& node) const {
  return !words_.empty() && strcasecmp(words_.front().c_str(), node.info->name.c_str()) == 0;
}

std::int32_t TreeWalk::run(CliTreeNode* first) {
  CliTreeNode* node = first;
  CliTreeNode* cameFrom = nullptr;
  Mode mode = Mode::kTry;
  bool triedAtThisLevel = false;
  for (;;) {
    if (node == nullptr) {
      if (triedAtThisLevel) {
        return levelEnded();
      }
      // The walk goes back to the level of the parent: further options may follow in any order.
      CliTreeNode* const parent = cameFrom == nullptr ? nullptr : cameFrom->parent;
      if (parent == nullptr || parent->parent == nullptr) {
        return 0;
      }
      node = parent->parent->firstChild.get();
      mode = Mode::kSkip;
      continue;
    }
    cameFrom = node;
    if ((mode == Mode::kSkip && node->info->alternative != 0) || node->info->matched != 0) {
      node = node->nextSibling.get();
      mode = Mode::kSkip;
      continue;
    }
    mode = Mode::kTry;
    if (!matchesFront(*node)) {
      triedAtThisLevel = true;
      unmatched(*node);
      node = node->nextSibling.get();
      continue;
    }
    triedAtThisLevel = false;
    node->info->matched = 1;
    words_.pop_front();
    std::int32_t result = 0;
    if (!matched(*node, &result)) {
      return result;
    }
    node = node->firstChild.get();
  }
}

}  // namespace shell
