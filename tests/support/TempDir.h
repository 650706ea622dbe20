#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace testsupport {

/// A private folder (0700) below /tmp or below another folder. The destructor removes the folder.
class TempDir {
 public:
  TempDir() : TempDir("/tmp") {}
  explicit TempDir(const std::string& parent);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  /// path() + "/" + name
  std::string at(std::string_view name) const;
  /// Writes a file below the folder and makes its parents. Returns the path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::string path_;
};

/// A place for temporary folders on a disk, even where /tmp is kept in memory. Files of /tmp in memory keep
/// their times when a mapping writes them, so the scan cache remembers no such file.
std::string diskFolder();

std::string readFile(const std::string& path);  ///< empty for a file that cannot be read

}  // namespace testsupport
