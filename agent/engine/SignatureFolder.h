#pragma once

#include <string>
#include <vector>

namespace agent {

/// The signature files of a folder at the time of construction.
class SignatureFolder {
 public:
  /// A missing or unreadable folder has no files.
  explicit SignatureFolder(std::string path);
  const std::string& path() const { return path_; }
  bool empty() const { return files_.empty(); }
  /// The folder has files, or cannot be read.
  bool present() const { return !empty() || unreadable_; }
  /// The reason when the folder has no files, or when not all files were listed.
  const std::string& problem() const { return problem_; }
  /// Names and content hashes of all signature files, one line each.
  std::string contentKey() const;
  /// Whether any signature compares pictures; always true with a packed database. Decoding pictures is slow,
  /// and left out otherwise.
  bool comparesPictures() const;

 private:
  std::string path_;
  std::string problem_;
  bool unreadable_ = false;
  std::vector<std::string> files_;  // full paths, sorted
};

}  // namespace agent
