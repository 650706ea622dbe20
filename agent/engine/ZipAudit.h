#pragma once

#include <cstddef>
#include <string>

#include "engine/Bytes.h"
#include "platform/Expected.h"

namespace agent {

/// Reads the directory of a zip file. The value is the reason why libclamav would silently leave content out
/// that another unpacker may unpack, or empty. Such content has sizes of the 64-bit format or a method that
/// libclamav cannot unpack. Fails, with the reason, when the zip is damaged or forged. Then members or the
/// directory lie beyond the end of the file, members overlap, the directory is incomplete, a local header
/// differs from the directory, or a second directory or a member without an entry is in the file. Never reads
/// outside the buffer.
platform::Expected<std::string> auditZip(const char* data, std::size_t size);

/// Whether a directory with members ends near the end of the data, whatever stands in front. Other programs
/// unpack such a file as a zip.
bool hasZipDirectory(const char* data, std::size_t size);

/// Whether the bytes are a member's header. Its name is short and holds no control characters.
bool isZipMember(const Bytes& header);

}  // namespace agent
