#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/Expected.h"

namespace agent {

/// A file that a process has mapped: a library, a program, data.
struct MappedFile {
  std::string path;   ///< bytes; ends in " (deleted)" when the name is gone
  std::string range;  ///< of addresses, as the kernel writes it: the name of its link in map_files
  dev_t device = 0;   ///< as the kernel lists it; stat() differs on some file systems
  ino_t inode = 0;
};

/// The mapped files of a process, each once. Empty for a process that has ended.
platform::Expected<std::vector<MappedFile>> mappedFiles(pid_t pid);
/// Reads the text of /proc/<pid>/maps. A file without a name counts when it is mapped as a program: the rest
/// is memory that processes share.
std::vector<MappedFile> readMaps(std::string_view text);

}  // namespace agent
