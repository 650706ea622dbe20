#pragma once

#include <string>
#include <vector>

#include "TreeWalk.h"

namespace shell {

/// Walks the text before the cursor and offers the keywords that may come next, or a value's hint.
class CompletionWalk : public TreeWalk {
 public:
  CompletionWalk(const std::string& text, lineeditor::CompletionState* state, std::uint32_t hintColour);

 private:
  bool matched(CliTreeNode& node, std::int32_t* result) override;
  void missed(CliTreeNode& node) override;
  std::int32_t levelEnded() override;

  lineeditor::CompletionState* state_;
  std::uint32_t hintColour_;
  std::vector<const CliNodeInfo*> collected_;  ///< visited without a match since the last match
};

}  // namespace shell
