#pragma once

#include <string>
#include <vector>

namespace agent {

/// Sees when signature files have changed and have settled: names, sizes and times of what lies in some
/// folders, twice the same and other than what is in use. One thread.
class SignatureWatch {
 public:
  explicit SignatureWatch(std::vector<std::string> folders);
  /// True once for each change that has settled.
  bool changed();

 private:
  std::string look() const;
  const std::vector<std::string> folders_;
  std::string inUse_;
  std::string last_;
};

}  // namespace agent
