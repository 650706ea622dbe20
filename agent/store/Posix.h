#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Descriptor.h"

/// Small things of the system interface that the whole store uses.
namespace agent::store {

using UniqueFd = platform::Descriptor;

/// The text of an errno value.
std::string errnoText(int error);
/// A path in single quotes, control characters visible: for a reason that people read.
std::string quoted(std::string_view path);

/// Opens for reading, never waiting for a pipe's other end nor following a link in the last component. The
/// access time stays as it is where the caller has the right to that. Empty with errno set.
UniqueFd openReading(int folder, const std::string& name);

/// The same file once more, for reading, with a position of its own.
UniqueFd openAgain(int fd);

/// Opens a regular file for reading, the last component not followed when it is a link; nothing else is ever
/// opened, so that no device or pipe is touched. Empty with errno set: EINVAL when it is no regular file.
UniqueFd openRegular(const std::string& path, struct stat* st);

/// Writes all of it. 0 or an errno value.
int writeAll(int fd, std::string_view bytes);
/// Reads up to `size` bytes, fewer only at the end. -1 with errno set on an error.
std::int64_t readFully(int fd, void* buffer, std::size_t size);

std::int64_t nowSec();  ///< wall clock, since 1970-01-01
std::int64_t nowNs();   ///< the same in nanoseconds, with the precision that file times have

}  // namespace agent::store
