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

/// All that is known of a quarantined file but its content. Stands in the item's file, so that the file is
/// enough to restore from, and in the item's row.
struct ItemMeta {
  std::string uuid;
  std::string path;      ///< bytes; as it was reached when it was found
  std::string realPath;  ///< bytes; without links: where it is restored to
  std::uint64_t device = 0, inode = 0, size = 0, links = 0;
  std::uint32_t uid = 0, gid = 0, mode = 0;  ///< mode: permission bits with setuid, setgid and sticky
  std::int64_t accessTimeNs = 0, modifyTimeNs = 0;
  std::int64_t isolateTimeSec = 0;
  std::string md5, sha256, fileType;
  Detection detection;
  std::vector<std::pair<std::string, std::string>> xattrs;  ///< name, value as bytes

  std::string toText() const;
  /// Nothing when the text is not one that toText() made.
  static std::optional<ItemMeta> fromText(const std::string& text);
  /// As JsonReflect::IsolationItem.
  Json::Value listed() const;
};

/// Owner, group, mode, times and attributes of an open file.
void readFileMeta(int fd, const struct stat& st, ItemMeta* meta);
/// A short word for what a file is, from its first bytes, else its ending: "ELF", "PE", "script", "zip", …
std::string fileTypeOf(const std::string& firstBytes, const std::string& name);

}  // namespace agent::store
