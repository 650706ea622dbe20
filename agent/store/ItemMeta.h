#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/StoreTypes.h"

namespace agent::store {

/// The meta data of a quarantined file. The item's row and the item's file both hold the meta data: the file
/// alone is enough for a restore.
struct ItemMeta {
  std::string uuid;
  std::string path;      ///< bytes; the path under which the scan encountered the file
  std::string realPath;  ///< bytes; without links; the target of a restore
  std::uint64_t device = 0, inode = 0, size = 0, links = 0;
  std::uint32_t uid = 0, gid = 0, mode = 0;  ///< mode: permission bits with setuid, setgid and sticky
  std::int64_t accessTimeNs = 0, modifyTimeNs = 0;
  std::int64_t isolateTimeSec = 0;
  std::string md5, sha256, fileType;
  Detection detection;
  std::vector<std::pair<std::string, std::string>> xattrs;  ///< name, value as bytes

  std::string toText() const;
  /// Nothing for a text that toText() did not make.
  static std::optional<ItemMeta> fromText(const std::string& text);
  /// JsonReflect::IsolationItem.
  Json::Value toIsolationItem() const;
};

/// Reads owner, group, mode, times and attributes of an open file.
void readFileMeta(int fd, const struct stat& st, ItemMeta* meta);
/// A short word for the kind of a file, from its first bytes, else its ending: "ELF", "PE", "script", "zip",
/// …
std::string fileTypeOf(const std::string& firstBytes, const std::string& name);

}  // namespace agent::store
