#pragma once

#include <string>
#include <vector>

namespace agent {

/// A folder of signature files as it stands now.
class SignatureFolder {
 public:
  /// A folder that is missing or cannot be read is one without files; problem() says why.
  explicit SignatureFolder(std::string path);
  const std::string& path() const { return path_; }
  bool empty() const { return files_.empty(); }
  /// There is something to load, or something that cannot be read.
  bool present() const { return !empty() || unreadable_; }
  const std::string& problem() const { return problem_; }
  /// Names and content hashes of all signature files, one line each.
  std::string contentKey() const;
  /// Whether any signature compares pictures: only then are pictures decoded, which is dear. Packed
  /// databases count as if one did.
  bool comparesPictures() const;

 private:
  std::string path_;
  std::string problem_;
  bool unreadable_ = false;
  std::vector<std::string> files_;  // full paths, sorted
};

}  // namespace agent
