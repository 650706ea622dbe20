#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/Bytes.h"
#include "platform/Expected.h"

namespace agent {

struct AuditedZip {
  /// Why libclamav would silently leave content out that another unpacker may unpack, or empty. Such content
  /// has sizes of the 64-bit format or a method that libclamav cannot unpack.
  std::string leftOut;
  struct Range {
    std::uint64_t begin = 0, end = 0;
  };
  /// Members with content that are marked as symbolic links of Unix, each with its header and what follows
  /// its data.
  std::vector<Range> links;
};

/// Reads the directory of a zip file. Fails, with the reason, when the zip is damaged or forged. Then members
/// or the directory lie beyond the end of the file, members overlap, the directory is incomplete, a local
/// header differs from the directory, or a second directory or a member without an entry is in the file.
/// Never reads outside the buffer.
platform::Expected<AuditedZip> auditZip(const char* data, std::size_t size);

/// Whether a directory with members ends near the end of the data, whatever stands in front. Other programs
/// unpack such a file as a zip.
bool hasZipDirectory(const char* data, std::size_t size);

/// Whether the bytes are a member's header. Its name is short and holds no control characters.
bool isZipMember(const Bytes& header);

}  // namespace agent
