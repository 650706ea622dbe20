#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "shell/CliTree.h"
#include "support/TestNames.h"

namespace testsupport {

/// A grammar node as its table has it.
struct GrammarRowExpected {
  const char* path;
  const char* help;
  const char* hint;
  int alternative;
  int required;
  int valueKind;
};

inline void PrintTo(const GrammarRowExpected& row, std::ostream* out) {
  *out << row.path;
}

inline const CliTreeNode* findPath(CliTree& tree, const std::string& path) {
  const CliTreeNode* node = tree.find(tree.root());
  std::size_t start = 0;
  while (node != nullptr && start < path.size()) {
    const std::size_t end = std::min(path.find(' ', start), path.size());
    const std::string name = path.substr(start, end - start);
    node = node->firstChild.get();
    while (node != nullptr && node->info->name != name) {
      node = node->nextSibling.get();
    }
    start = end + 1;
  }
  return node;
}

/// Names of the children, in their order.
inline std::vector<std::string> childrenOf(CliTree& tree, const std::string& path) {
  std::vector<std::string> names;
  const CliTreeNode* const node = findPath(tree, path);
  for (const CliTreeNode* child = node == nullptr ? nullptr : node->firstChild.get(); child != nullptr;
       child = child->nextSibling.get()) {
    names.push_back(child->info->name);
  }
  return names;
}

inline void expectRow(CliTree& tree, const GrammarRowExpected& row) {
  const CliTreeNode* const node = findPath(tree, row.path);
  ASSERT_NE(node, nullptr) << row.path << " is not in the tree";
  EXPECT_EQ(node->info->help, row.help);
  EXPECT_EQ(node->info->hint, row.hint);
  EXPECT_EQ(int{node->info->alternative}, row.alternative);
  EXPECT_EQ(int{node->info->required}, row.required);
  EXPECT_EQ(node->info->valueKind, row.valueKind);
}

/// Every node of the tree, by path.
inline void collectPaths(const CliTreeNode* node, const std::string& above, std::vector<std::string>& paths) {
  for (; node != nullptr; node = node->nextSibling.get()) {
    const std::string path = above.empty() ? node->info->name : above + " " + node->info->name;
    paths.push_back(path);
    collectPaths(node->firstChild.get(), path, paths);
  }
}

inline std::vector<std::string> allPaths(CliTree& tree) {
  std::vector<std::string> paths;
  collectPaths(tree.find(tree.root())->firstChild.get(), "", paths);
  return paths;
}

}  // namespace testsupport
