#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "shell/CliTree.h"

namespace shell {

/// Flags of a row; the rest of an option keyword's meaning is in CliNodeInfo.
enum GrammarFlags : std::uint32_t {
  kOption = 0,
  kAlternative = 1,
  kRequired = 2,
  kChoice = kAlternative | kRequired,
  kDetached = 4,  ///< built, but not attached: it cannot be typed
};

enum ValueKind : std::int32_t { kNoValue = 0, kIntValue = 1, kStringValue = 2 };

inline constexpr const char* kNoHelp = "";
inline constexpr const char* kNoHint = "";

/// One node of a command's grammar.
struct GrammarRow {
  std::string path;  ///< the keywords from the command down to this one, one blank between them
  const char* help;
  const char* hint;
  std::uint32_t flags;
  std::int32_t valueKind;
  CliNodeInfo::Handler handler;
};

/// A module's grammar: makes a record of each row, attaches them in the order of the rows, and owns them.
class GrammarTable {
 public:
  /// A row whose parent does not stand before it, or a second row of the same path, is a bug:
  /// std::logic_error names it.
  void build(CliTree& tree, std::span<const GrammarRow> rows);
  /// The record of a row; null when there is none.
  const CliNodeInfo* find(const std::string& path) const;

 private:
  std::map<std::string, std::unique_ptr<CliNodeInfo>> records_;
};

}  // namespace shell
