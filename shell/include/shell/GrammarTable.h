#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "shell/CliTree.h"

namespace shell {

/// Flags of a row. CliNodeInfo explains alternative and required.
enum GrammarFlags : std::uint32_t {
  kOption = 0,
  kAlternative = 1,
  kRequired = 2,
  kChoice = kAlternative | kRequired,
  kDetached = 4,  ///< the record is made but not attached, so nobody can type the keyword
};

enum ValueKind : std::int32_t { kNoValue = 0, kIntValue = 1, kStringValue = 2 };

inline constexpr const char* kNoHelp = "";
inline constexpr const char* kNoHint = "";

/// One node of the grammar of a command.
struct GrammarRow {
  std::string path;  ///< the keywords from the command to this node, one blank between them
  const char* help;
  const char* hint;
  std::uint32_t flags;
  std::int32_t valueKind;
  CliNodeInfo::Handler handler;
};

/// The grammar of a module. The table makes a record for each row, attaches the records in the order of the
/// rows, and owns the records.
class GrammarTable {
 public:
  /// Throws std::logic_error with the path of a row that stands before its parent, or that stands twice. Such
  /// a row is a bug.
  void build(CliTree& tree, std::span<const GrammarRow> rows);
  /// The record of the row with this path; null when no row has the path.
  const CliNodeInfo* find(const std::string& path) const;

 private:
  std::map<std::string, std::unique_ptr<CliNodeInfo>> records_;
};

}  // namespace shell
