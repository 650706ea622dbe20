#pragma once

#include <cstddef>

#include "platform/Expected.h"

namespace agent {

/// Reads the directory of a zip file. Fails, with the reason, when libclamav would silently leave content
/// out: sizes of the 64-bit format, methods that it cannot unpack, members or a directory beyond the end of
/// the file, an incomplete directory, members whose local header differs from the directory. Never reads
/// outside the buffer.
platform::Expected<void> auditZip(const char* data, std::size_t size);

}  // namespace agent
