#pragma once

#include <string>
#include <vector>

namespace agent {

/// Detects changes of signature files that are complete: two looks see the same names, sizes and times, which
/// differ from those in use. One thread.
class SignatureWatch {
 public:
  explicit SignatureWatch(std::vector<std::string> folders);
  /// True once for each complete change.
  bool changed();

 private:
  std::string look() const;

  const std::vector<std::string> folders_;
  std::string inUse_;
  std::string last_;
};

}  // namespace agent
