#pragma once

#include <map>
#include <set>
#include <string>

#include "TreeWalk.h"

namespace shell {

/// Executes a line: calls the handlers of matched nodes and collects missing options.
class ParseWalk : public TreeWalk {
 public:
  explicit ParseWalk(const std::string& line) : TreeWalk(line) {}
  /// Prints the required options that the line lacks, in name order. Returns false when nothing was printed.
  /// A line without any matched word gets no report.
  bool reportMissing() const;

 private:
  bool matched(CliTreeNode& node, std::int32_t* result) override;
  void unmatched(CliTreeNode& node) override;
  std::int32_t levelEnded() override { return 0; }

  bool anyMatch_ = false;
  bool valueMissing_ = false;
  std::map<std::string, std::string> missing_;  ///< the name and help of each missing option
  std::set<std::string> satisfied_;             ///< the names of options that an alternative has satisfied
};

}  // namespace shell
