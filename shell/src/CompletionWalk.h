#pragma once

#include <string>
#include <vector>

#include "TreeWalk.h"

namespace shell {

/// Walks the text before the cursor. Offers the keywords that may come next, or the hint of a value.
class CompletionWalk : public TreeWalk {
 public:
  CompletionWalk(const std::string& text, lineeditor::CompletionState* state, std::uint32_t hintColour);

 private:
  void expectAWord();  ///< adds an empty word when no word is left
  bool matched(CliTreeNode& node, std::int32_t* result) override;
  void unmatched(CliTreeNode& node) override;
  std::int32_t levelEnded() override;

  lineeditor::CompletionState* state_;
  std::uint32_t hintColour_;
  std::vector<const CliNodeInfo*> collected_;  ///< the nodes tried since the last match
};

}  // namespace shell
