#pragma once

#include <string>

namespace agent {

/// What kind of file system holds a folder, as far as a scan cares. Known by its magic number.
enum class FileSystemKind { kOrdinary, kPseudo, kNetwork };

struct FileSystem {
  FileSystemKind kind = FileSystemKind::kOrdinary;
  const char* name = "";  ///< "proc", "nfs", …; empty when ordinary
  bool inMemory = false;  ///< a file there can be written through a mapping and keep its times
};

/// Of an open descriptor. One that cannot be told counts as ordinary: it is walked, not left out.
FileSystem fileSystemOf(int fd);
/// The row of the table for a magic number (statfs f_type).
FileSystem fileSystemByMagic(unsigned long magic);

}  // namespace agent
