#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "platform/Descriptor.h"

namespace agent {

/// A file as a walk found it, open for reading. The same object goes on to the workers, the detections and
/// the quarantine.
struct EncounteredFile {
  std::string path;           ///< bytes; how the walk reached the file
  std::string resolved;       ///< bytes; where the file is, when a link led there; else empty
  platform::Descriptor fd;    ///< empty for a path that was named and is neither a file nor a folder
  std::int64_t statusNs = 0;  ///< the clock just before the status was read, since 1970-01-01
  struct stat status {};
  bool folderWritable = false;  ///< with the rights of the walk
};

}  // namespace agent
