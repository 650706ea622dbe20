#pragma once

#include <cstddef>

#include "platform/Expected.h"

namespace agent {

/// Reads the directory of a zip file. Fails, with the reason, when libclamav would silently leave content
/// out. Such content has sizes of the 64-bit format or a method that libclamav cannot unpack. Or members or
/// the directory lie beyond the end of the file, the directory is incomplete, or a local header differs from
/// the directory. Never reads outside the buffer.
platform::Expected<void> auditZip(const char* data, std::size_t size);

}  // namespace agent
