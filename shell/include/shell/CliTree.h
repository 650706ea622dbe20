#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace lineeditor {
struct CompletionState;
}

/// What a grammar node says. Made and owned by the module that builds the grammar (the root's by the tree);
/// must live as long as the tree is used.
struct CliNodeInfo {
  /// Called when the node is matched, with its value (empty for a plain keyword). The result is not
  /// looked at: a handler cannot stop the walk, it reports problems through the task it builds.
  using Handler = std::function<std::uint8_t(const CliNodeInfo& node, const std::string& value)>;

  CliNodeInfo(std::string nodeName, std::uint8_t isAlternative, std::uint8_t isRequired, std::int32_t kind)
      : valueKind(kind), name(std::move(nodeName)), alternative(isAlternative), required(isRequired) {}

  Handler handler;
  std::int32_t valueKind;    ///< 0: a plain keyword; else the keyword is followed by exactly one value
  std::string name;          ///< as displayed; matched whole, in any letter case
  std::uint8_t alternative;  ///< one of a group of mutually exclusive choices among its siblings
  std::uint8_t required;     ///< it, or one of its alternative siblings, must appear in a complete command
  std::uint8_t matched = 0;  ///< only during a walk
  std::string help;          ///< one line, shown in completion lists and in the missing-option report
  std::string hint;          ///< shown when the cursor stands after a keyword that takes a value
};

/// The link record: first child, next sibling; siblings share their parent.
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

/// The grammar of the keyword commands: walked whole to execute a line, and up to the cursor to complete one.
/// Main thread only.
class CliTree {
 public:
  CliTree();
  virtual ~CliTree();
  CliTree(const CliTree&) = delete;
  CliTree& operator=(const CliTree&) = delete;

  /// The node under which modules attach their command keywords.
  CliNodeInfo* root() { return &rootInfo_; }

  /// Appends as the last child. A parent (compared by identity) that is not in the tree: nothing happens.
  void addChild(CliNodeInfo* parent, CliNodeInfo* child);
  void addChild(CliNodeInfo* child);
  /// The same; the tag is kept only by a child that goes behind existing siblings, a first child has 0.
  void addChild(CliNodeInfo* parent, CliNodeInfo* child, std::uint32_t tag);
  void addChild(CliNodeInfo* child, std::uint32_t tag);

  /// Walks the line and calls the handlers of what it matches. 0 when the walk ended, whether or not every
  /// word was used; -1 when a value is missing, or a required option (then the report of these is printed).
  std::int32_t parse(const std::string& line);
  /// Fills the editor's candidates and hint for the text before the cursor. Returns 1.
  std::int32_t complete(const std::string& text, lineeditor::CompletionState* state);

  /// The link record of a node, by identity; null when it is not in the tree.
  const CliTreeNode* find(const CliNodeInfo* info) const;

 private:
  CliTreeNode* append(CliNodeInfo* parent, CliNodeInfo* child);

  CliNodeInfo rootInfo_;
  CliTreeNode tree_;
  std::uint32_t hintColour_;
};
