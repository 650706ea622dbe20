#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "shell/CliTree.h"

namespace shell {

/// The way through the tree that execution and completion share: which node is tried next, and where the walk
/// ends. What a match and a miss mean is the derived walk's. Every node that a walk matches stays marked.
class TreeWalk {
 public:
  virtual ~TreeWalk() = default;
  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;

  /// From the first node of the top level. The walk's result.
  std::int32_t run(CliTreeNode* first);

 protected:
  explicit TreeWalk(const std::string& line);

  /// The front word is this node's. It has been taken off the queue. False ends the walk with *result.
  virtual bool matched(CliTreeNode& node, std::int32_t* result) = 0;
  /// The node was visited without a match.
  virtual void missed(CliTreeNode& node) = 0;
  /// The end of a level was reached with words tried in vain: the walk ends here.
  virtual std::int32_t levelEnded() = 0;

  std::deque<std::string> words_;

 private:
  bool matchesFront(const CliTreeNode& node) const;
};

}  // namespace shell
