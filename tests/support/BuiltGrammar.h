#pragma once

#include <gtest/gtest.h>

#include <string>

#include "shell/CliTree.h"
#include "shell/GrammarTable.h"
#include "support/Golden.h"
#include "support/TestNames.h"

namespace testsupport {

/// A command module whose grammar stands alone in a tree.
template <class Module>
struct BuiltGrammar {
  BuiltGrammar() { module.buildTree(&tree); }
  Module module;
  CliTree tree;
};

/// A node as a line: "PATH | flags | value | help", and " | hint" where there is one.
inline std::string grammarLine(const std::string& path, const CliNodeInfo& info) {
  std::string flags = info.alternative != 0 ? "alternative" : "";
  if (info.required != 0) {
    flags += flags.empty() ? "required" : " required";
  }
  const char* const value = info.valueKind == shell::kNoValue    ? "no value"
                            : info.valueKind == shell::kIntValue ? "int"
                                                                 : "string";
  return path + " | " + (flags.empty() ? "optional" : flags) + " | " + value + " | " +
         (info.help.empty() ? "(no help)" : info.help) + (info.hint.empty() ? "" : " | " + info.hint) + "\n";
}

inline std::string grammarText(const CliTreeNode* node, const std::string& above = "") {
  std::string text;
  for (; node != nullptr; node = node->nextSibling.get()) {
    const std::string path = above + node->info->name;
    text += grammarLine(path, *node->info) + grammarText(node->firstChild.get(), path + " ");
  }
  return text;
}

/// Every node of the tree, a line each, in the order of attachment.
inline std::string grammarText(CliTree& tree) {
  return grammarText(tree.find(tree.root())->firstChild.get());
}

/// One line of a grammar's golden file; the rows' test names are their paths.
template <class Module>
class GrammarRow : public testing::TestWithParam<std::string> {
 protected:
  void expectInTree() {
    BuiltGrammar<Module> built;
    EXPECT_NE(("\n" + grammarText(built.tree)).find("\n" + GetParam() + "\n"), std::string::npos)
        << GetParam();
  }
};

inline std::string grammarRowName(const testing::TestParamInfo<std::string>& row) {
  return testNameOf(row.param.substr(0, row.param.find(" |")));
}

}  // namespace testsupport
