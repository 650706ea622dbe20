#include "TreeWalk.h"

#include <strings.h>

#include <sstream>

namespace shell {

namespace {

enum class Mode {
  Try,   ///< reached as a first child, or behind a node that did not match
  Skip,  ///< reached by passing a node over, or by climbing
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
  Mode mode = Mode::Try;
  bool missedAtThisLevel = false;
  for (;;) {
    if (node == nullptr) {
      if (missedAtThisLevel) {
        return levelEnded();
      }
      // Back to the level that holds the parent, so that further options can follow in any order.
      CliTreeNode* const parent = cameFrom == nullptr ? nullptr : cameFrom->parent;
      if (parent == nullptr || parent->parent == nullptr) {
        return 0;
      }
      node = parent->parent->firstChild.get();
      mode = Mode::Skip;
      continue;
    }
    cameFrom = node;
    if ((mode == Mode::Skip && node->info->alternative != 0) || node->info->matched != 0) {
      node = node->nextSibling.get();
      mode = Mode::Skip;
      continue;
    }
    mode = Mode::Try;
    if (!matchesFront(*node)) {
      missedAtThisLevel = true;
      missed(*node);
      node = node->nextSibling.get();
      continue;
    }
    missedAtThisLevel = false;
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
