#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace lineeditor {
struct CompletionState;
}

/// The content of a grammar node. The module that builds the grammar makes and owns the record; the tree owns
/// the record of the root. Each record must live as long as the tree is used.
struct CliNodeInfo {
  /// The walk calls the handler of each node matched. value is empty for a plain keyword. The tree ignores
  /// the result, so a handler cannot stop the walk. A handler reports problems through the task that it
  /// builds.
  using Handler = std::function<std::uint8_t(const CliNodeInfo& node, const std::string& value)>;

  CliNodeInfo(std::string nodeName, std::uint8_t isAlternative, std::uint8_t isRequired, std::int32_t kind)
      : valueKind(kind), name(std::move(nodeName)), alternative(isAlternative), required(isRequired) {}

  Handler handler;
  std::int32_t valueKind;    ///< 0: a plain keyword; otherwise exactly one value follows the keyword
  std::string name;          ///< the keyword as displayed; the whole word must match, in any letter case
  std::uint8_t alternative;  ///< the node belongs to a group of mutually exclusive siblings
  std::uint8_t required;     ///< a complete command has the node or one of its alternative siblings
  std::uint8_t matched = 0;  ///< set during a walk only
  std::string help;          ///< one line, shown in completion lists and in the missing-option report
  std::string hint;          ///< shown when the cursor stands behind a keyword that takes a value
};

/// The links of a node: its parent, its first child and its next sibling.
struct CliTreeNode {
  CliTreeNode(CliNodeInfo* nodeInfo, CliTreeNode* nodeParent) : info(nodeInfo), parent(nodeParent) {}
  ~CliTreeNode() { firstChild.reset(); }  // children go before siblings
  CliTreeNode(const CliTreeNode&) = delete;
  CliTreeNode& operator=(const CliTreeNode&) = delete;

  CliNodeInfo* info;
  CliTreeNode* parent;
  std::unique_ptr<CliTreeNode> firstChild;
  std::unique_ptr<CliTreeNode> nextSibling;
  std::uint32_t tag = 0;
};

/// The grammar of the keyword commands. parse() executes a whole line; complete() offers words for the text
/// before the cursor. Main thread only.
class CliTree {
 public:
  CliTree();
  virtual ~CliTree() = default;
  CliTree(const CliTree&) = delete;
  CliTree& operator=(const CliTree&) = delete;

  /// The node under which modules attach their command keywords.
  CliNodeInfo* root() { return &rootInfo_; }

  /// Appends the child behind the other children of the parent. The parent is found by identity, not by name.
  /// Nothing happens when the parent is not in the tree.
  void addChild(CliNodeInfo* parent, CliNodeInfo* child) { append(parent, child); }
  void addChild(CliNodeInfo* child) { append(&rootInfo_, child); }
  /// The same with a tag. A first child does not keep the tag: its tag is 0.
  void addChild(CliNodeInfo* parent, CliNodeInfo* child, std::uint32_t tag);
  void addChild(CliNodeInfo* child, std::uint32_t tag) { addChild(&rootInfo_, child, tag); }

  /// Walks the line and calls the handler of each node matched. Returns 0 at the end of the walk, even when
  /// some words were not used. Returns -1 when a value or a required option is missing. Missing options are
  /// reported on standard output.
  std::int32_t parse(const std::string& line);
  /// Fills the candidates and the hint for the text before the cursor. Returns 1.
  std::int32_t complete(const std::string& text, lineeditor::CompletionState* state);

  /// The links of the node with this record; null when the record is not in the tree.
  const CliTreeNode* find(const CliNodeInfo* info) const;

 private:
  CliTreeNode* append(CliNodeInfo* parent, CliNodeInfo* child);

  CliNodeInfo rootInfo_;
  CliTreeNode tree_;
  std::uint32_t hintColour_;
};
