#pragma once

#include <map>
#include <string>
#include <vector>

namespace testsupport {

/// A program with its arguments and its environment, ready before a fork. The child of a process with several
/// threads must not allocate: another thread may hold the allocator at the fork.
class Command {
 public:
  /// `environment` is added to the test's own; an empty value unsets.
  Command(std::vector<std::string> words, const std::map<std::string, std::string>& environment);

  /// Becomes the program, or ends with 127. Allocates nothing.
  [[noreturn]] void exec();

 private:
  std::vector<std::string> words_;
  std::vector<std::string> settings_;  ///< "NAME=VALUE"
  std::vector<char*> arguments_;
  std::vector<char*> environment_;
};

}  // namespace testsupport
