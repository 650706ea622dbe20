#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace testsupport {

/// A private folder (0700) below /tmp, or another folder, removed with all that is in it.
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
  /// Writes a file below the folder, with its parents; returns its path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::string path_;
};

/// Where temporary folders lie on a disk, also when /tmp is kept in memory: what is there keeps its times
/// when it is written through a mapping, so that the scan cache takes none of it.
std::string diskFolder();

std::string readFile(const std::string& path);  ///< empty when it cannot be read

}  // namespace testsupport
