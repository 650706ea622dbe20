#pragma once

#include <map>
#include <set>
#include <string>

#include "TreeWalk.h"

namespace shell {

/// Executes a line: calls the handlers of what it matches, collects what is missing.
class ParseWalk : public TreeWalk {
 public:
  explicit ParseWalk(const std::string& line) : TreeWalk(line) {}
  /// Prints the required options that were not given, in name order; false when there is none to report. A
  /// line of which no word matched is not told what it lacks.
  bool reportMissing() const;

 private:
  bool matched(CliTreeNode& node, std::int32_t* result) override;
  void missed(CliTreeNode& node) override;
  std::int32_t levelEnded() override { return 0; }

  bool anyMatch_ = false;
  bool valueMissing_ = false;
  std::map<std::string, std::string> missing_;  ///< name to help
  std::set<std::string> satisfied_;             ///< by name, for the length of one line
};

}  // namespace shell
