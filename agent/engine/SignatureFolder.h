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
  bool empty() const { return names_.empty(); }
  /// The folder has files, or cannot be read.
  bool present() const { return !empty() || unreadable_; }
  bool unreadable() const { return unreadable_; }
  /// The reason when the folder has no files, or when not all files were listed.
  const std::string& problem() const { return problem_; }
  /// In the order of loading: first the files that change how others are loaded.
  const std::vector<std::string>& names() const { return names_; }
  std::string at(const std::string& name) const { return path_ + "/" + name; }
  /// Another text after each change of a file.
  const std::string& identity() const { return identity_; }

 private:
  std::string path_;
  std::string problem_;
  bool unreadable_ = false;
  std::vector<std::string> names_;
  std::string identity_;
};

/// A database of many files in one.
bool isPackedDatabase(const std::string& name);
/// The same for main.cvd, main.cld and main.cud, which are versions of one database; else the name.
std::string databaseOf(const std::string& name);
/// Whether any signature of the file compares pictures; always true for a packed database. Decoding pictures
/// is slow, and left out otherwise.
bool comparesPictures(const std::string& path);

}  // namespace agent
