#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Expected.h"

/// Files and folders. Classes are defined in the files of their names, the functions in utils.cpp.

/// The file that a path names. Follows links.
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

/// Whole files. Errors are errno values: 0 is success.
class CFile {
 public:
  /// The largest file that readAll reads by default.
  static constexpr std::size_t kReadLimitBytes = 16u << 20;
  /// The content or an errno value. EFBIG: more bytes than the limit. EISDIR: a folder. EINVAL: a device,
  /// pipe or socket.
  static tl::expected<std::string, int> readAll(const std::string& path,
                                                std::size_t limitBytes = kReadLimitBytes);
  /// Puts the whole file in place, or changes nothing. Steps: a temporary file in the same folder (with
  /// `mode` from the start, without following a link), write, sync, rename, sync of the folder. The sync of
  /// the folder is left out where this user cannot read the folder, and on a file system without this sync.
  /// Returns 0 or an errno value. After a failure the temporary file is gone and the old file stands.
  /// Exception: when the sync of the folder fails otherwise (EIO), the new file is in place.
  static int replaceAtomically(const std::string& path, std::string_view content, std::uint32_t mode);
};

/// Folders, and paths that other users may try to redirect.
class CDir {
 public:
  static std::optional<std::string> current();
  static bool setCurrent(const std::string& path);
  /// Makes the folder and its missing parents, all with `mode`. True when the folder exists afterwards.
  static bool make(const std::string& path, std::uint32_t mode);
  /// The path itself if anything has that name, even a dangling link; else the nearest existing folder above.
  static std::string nearestExisting(const std::string& path);
  /// The path with its links resolved, if no other user can make the path lead elsewhere. The file, and every
  /// folder and link on the way from /, must belong to root or the effective user. No other user may write
  /// there; a sticky folder is safe.
  static platform::Expected<std::string> resolveSafe(const std::string& path);
  /// The same for a path whose end may be missing: the missing part stays as written.
  static platform::Expected<std::string> resolveForMaking(const std::string& path);
  /// resolveSafe of a folder for files to be written there. Refuses sticky folders as well: another user
  /// could plant a link under the name of the file.
  static platform::Expected<std::string> resolveForFiles(const std::string& path);
  /// resolveForMaking, then makes the folder and its missing parents, all with `mode`. makeForFiles ends with
  /// resolveForFiles. Makes nothing below a folder that other users can change.
  static platform::Expected<std::string> makeSafe(const std::string& path, std::uint32_t mode);
  static platform::Expected<std::string> makeForFiles(const std::string& path, std::uint32_t mode);
};

namespace utils {
/// The path without doubled separators and ".", with ".." resolved by text. withSeparator: ends in '/'.
std::string FormatDir(const std::string& path, bool withSeparator);
/// The same for a file: does not end in '/'.
std::string FormatFilePath(const std::string& path);
}  // namespace utils
