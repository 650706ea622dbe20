#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What a path names, links followed.
class CFileInfo {
 public:
  explicit CFileInfo(std::string path);
  bool exists() const;
  bool isFile() const;  ///< a regular file
  bool isDir() const;
  std::string fileName() const;  ///< the last component
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// Whole files. Errors come as errno values: 0 is success.
class CFile {
 public:
  /// What a whole file may hold: all that is read so is far smaller, and a device never ends.
  static constexpr std::size_t kReadLimitBytes = 16u << 20;
  /// Nothing when it cannot be read (*error says why, when given): EFBIG when it holds more than the limit,
  /// EISDIR when it is a folder, EINVAL when it is a device, pipe or socket.
  static std::optional<std::string> readAll(const std::string& path, int* error = nullptr,
                                            std::size_t limitBytes = kReadLimitBytes);
  /// Puts the file in place whole or not at all: a temporary file in the same folder (no link followed, made
  /// with `mode` from the start), written, synced, renamed, the folder synced (unless this user may write
  /// but not read it, or its file system syncs no folders). Returns 0 or an errno value; then the temporary
  /// file is gone and the old file, if any, stands as it was. Only when the sync of the folder fails for
  /// another reason (EIO) is the new file in its place all the same.
  static int replaceAtomically(const std::string& path, std::string_view content, std::uint32_t mode);
};

class CDir {
 public:
  static std::optional<std::string> current();
  static bool setCurrent(const std::string& path);
  /// With parents, mode for each that is made. True when it stands afterwards.
  static bool make(const std::string& path, std::uint32_t mode);
  /// What stands there, a link that leads nowhere included, or else the nearest folder above it.
  static std::string nearestExisting(const std::string& path);
  /// The path with its links resolved, when nobody else can make it lead elsewhere: the file, and every
  /// folder and link on the way from /, those that links lead through among them, belong to root or this
  /// process's effective user and can be written by nobody else (a sticky folder counts as safe). Else empty,
  /// and one line in *why, when given, that says which and why.
  static std::string resolveSafe(const std::string& path, std::string* why = nullptr);
  /// The same for what may have to be made yet: what is missing at the end stays as it is written.
  static std::string resolveForMaking(const std::string& path, std::string* why = nullptr);
  /// Empty when resolveSafe gives a path; else its line.
  static std::string whyUnsafe(const std::string& path);
  /// resolveSafe of a folder, for files that are opened in it by name: none where somebody else could put a
  /// link where the file goes, which a sticky folder keeps nobody from. The file would be written wherever
  /// that leads.
  static std::string resolveForFiles(const std::string& path, std::string* why = nullptr);
  /// resolveForMaking (makeForFiles: resolveForFiles), having made what is missing: the folder and its
  /// parents, mode for each that is made. Nothing is made where others decide.
  static std::string makeSafe(const std::string& path, std::uint32_t mode, std::string* why = nullptr);
  static std::string makeForFiles(const std::string& path, std::uint32_t mode, std::string* why = nullptr);
};

namespace utils {
/// Doubled separators and "." taken out, ".." resolved by text; withSeparator: ends in '/'.
std::string FormatDir(const std::string& path, bool withSeparator);
/// The same for a file: never ends in '/'.
std::string FormatFilePath(const std::string& path);
}  // namespace utils
