#pragma once

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "shell/GrammarTable.h"
#include "shell/TavCliCompletion.h"
#include "support/Capture.h"
#include "support/Golden.h"
#include "support/TestNames.h"

namespace testsupport {

/// Command modules whose grammars stand alone in a tree.
template <class Module, class... More>
struct BuiltGrammar {
  BuiltGrammar() {
    module.buildTree(&tree);
    std::apply([this](auto&... others) { (others.buildTree(&tree), ...); }, more);
  }
  Module module;
  std::tuple<More...> more;
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
template <class... Modules>
class GrammarRow : public testing::TestWithParam<std::string> {
 protected:
  void expectInTree() {
    BuiltGrammar<Modules...> built;
    EXPECT_NE(("\n" + grammarText(built.tree)).find("\n" + GetParam() + "\n"), std::string::npos)
        << GetParam();
  }
};

inline std::string grammarRowName(const testing::TestParamInfo<std::string>& row) {
  return testNameOf(row.param.substr(0, row.param.find(" |")));
}

/// The grammar of a module without the shell around the grammar, and the task that the words of a line build.
/// The handlers write into the shell's pending task.
template <class Module, class Task>
class GrammarTask : public testing::Test {
 protected:
  ~GrammarTask() override { TavCliCompletion::instance().setPendingTask(nullptr); }

  static Task* pending() { return TavCliCompletion::instance().pendingTaskAs<Task>(); }
  /// The task of the line, whether or not the line is complete.
  const Task& built(const std::string& line) {
    outputOf([&] { tree_.parse(line); });
    return *pending();
  }
  const CliNodeInfo* row(const std::string& path) { return built_.module.grammar().find(path); }
  /// Visits the row of each keyword behind the command's name that has a handler.
  template <class Visit>
  void forEachHandler(Visit visit) {
    visitBelow(tree_.find(tree_.root())->firstChild->firstChild.get(), visit);
  }
  void expectHandlersGiveZeroWithoutATask(const std::string& value) {
    TavCliCompletion::instance().setPendingTask(nullptr);
    forEachHandler([&](const CliNodeInfo& node) { EXPECT_EQ(node.handler(node, value), 0) << node.name; });
  }

 private:
  template <class Visit>
  static void visitBelow(const CliTreeNode* node, Visit visit) {
    for (; node != nullptr; node = node->nextSibling.get()) {
      if (node->info->handler) {
        visit(*node->info);
      }
      visitBelow(node->firstChild.get(), visit);
    }
  }

  BuiltGrammar<Module> built_;

 protected:
  CliTree& tree_ = built_.tree;
};

}  // namespace testsupport
