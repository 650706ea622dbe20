#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "shell/CliTree.h"

namespace shell {

/// The walk through the tree, which execution and completion share. The base class decides which node is
/// tried next and where the walk ends. The derived classes act on matched and unmatched nodes. The walk
/// leaves each matched node marked.
class TreeWalk {
 public:
  virtual ~TreeWalk() = default;
  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;

  /// first: the first node of the top level. Returns the result of the walk.
  std::int32_t run(CliTreeNode* first);

 protected:
  explicit TreeWalk(const std::string& line);

  /// Called when the front word matches the node; the word has been removed. False ends the walk with
  /// *result.
  virtual bool matched(CliTreeNode& node, std::int32_t* result) = 0;
  /// Called when the front word does not match the node.
  virtual void unmatched(CliTreeNode& node) = 0;
  /// Called when no node of a level has matched. The walk ends with the result.
  virtual std::int32_t levelEnded() = 0;

  std::deque<std::string> words_;

 private:
  bool matchesFront(const CliTreeNode& node) const;
};

}  // namespace shell
