#include "shell/CliTree.h"

#include "CompletionWalk.h"
#include "ParseWalk.h"
#include "lineeditor/Terminal.h"

namespace {

CliTreeNode* findBelow(CliTreeNode* node, const CliNodeInfo* info) {
  for (; node != nullptr; node = node->nextSibling.get()) {
    if (node->info == info) {
      return node;
    }
    if (CliTreeNode* found = findBelow(node->firstChild.get(), info)) {
      return found;
    }
  }
  return nullptr;
}

void clearMatched(CliTreeNode* node) {
  for (; node != nullptr; node = node->nextSibling.get()) {
    node->info->matched = 0;
    clearMatched(node->firstChild.get());
  }
}

/// Clears the marks of a walk at its end, even when a handler throws.
class MatchedMarks {
 public:
  explicit MatchedMarks(CliTreeNode& root) : root_(root) {}
  ~MatchedMarks() { clearMatched(&root_); }
  MatchedMarks(const MatchedMarks&) = delete;
  MatchedMarks& operator=(const MatchedMarks&) = delete;

 private:
  CliTreeNode& root_;
};

}  // namespace

CliTree::CliTree()
    : rootInfo_("root", 1, 1, 0), tree_(&rootInfo_, nullptr), hintColour_(lineeditor::kWhiteOnCyan) {}

CliTreeNode* CliTree::append(CliNodeInfo* parent, CliNodeInfo* child) {
  CliTreeNode* const above = findBelow(&tree_, parent);
  if (above == nullptr || child == nullptr) {
    return nullptr;
  }
  std::unique_ptr<CliTreeNode>* place = &above->firstChild;
  while (*place) {
    place = &(*place)->nextSibling;
  }
  *place = std::make_unique<CliTreeNode>(child, above);
  return place->get();
}

void CliTree::addChild(CliNodeInfo* parent, CliNodeInfo* child, std::uint32_t tag) {
  CliTreeNode* const added = append(parent, child);
  if (added != nullptr && added->parent->firstChild.get() != added) {
    added->tag = tag;
  }
}

const CliTreeNode* CliTree::find(const CliNodeInfo* info) const {
  return findBelow(const_cast<CliTreeNode*>(&tree_), info);
}

std::int32_t CliTree::parse(const std::string& line) {
  const MatchedMarks marks(tree_);
  shell::ParseWalk walk(line);
  const std::int32_t result = walk.run(tree_.firstChild.get());
  return walk.reportMissing() ? -1 : result;
}

std::int32_t CliTree::complete(const std::string& text, lineeditor::CompletionState* state) {
  const MatchedMarks marks(tree_);
  shell::CompletionWalk(text, state, hintColour_).run(tree_.firstChild.get());
  return 1;
}
