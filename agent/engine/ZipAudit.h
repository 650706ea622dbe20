#pragma once

#include <cstddef>
#include <string>

namespace agent {

/// Reads the directory of a zip file and says what libclamav will leave out without a word: sizes of the
/// 64-bit format, methods it cannot unpack, members or a directory that lie beyond the end of the file, a
/// directory that is not whole, and members that their own header describes otherwise than the directory.
/// Empty when there is nothing of the kind. Never reads outside the buffer.
std::string auditZip(const char* data, std::size_t size);

}  // namespace agent
