#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Descriptor.h"

/// Wrappers of system calls for all folders. Callers pass an errno value on only as the text of errnoText.
/// Any thread.
namespace platform {

/// The text of an errno value.
std::string errnoText(int error);

/// A path in single quotes with its control characters visible, for the reason of a failure.
std::string quoted(std::string_view path);

/// The open flags for reading files of other users: without a wait for the other end of a pipe, and without a
/// new controlling terminal.
int readingFlags();

/// openat with readingFlags and `flags`. Keeps the access time if this process may do so. Empty with errno
/// set.
Descriptor openQuietly(int folder, const char* name, int flags);

/// openQuietly of an entry that must not be a link.
Descriptor openReading(int folder, const std::string& name);

/// Opens the same file again, for reading, with a position of its own. Empty with errno set.
Descriptor openAgain(int fd);

/// Opens a regular file for reading, without following a link in the last component. Devices and pipes are
/// never opened. Empty with errno set: EINVAL when `path` is no regular file.
Descriptor openRegular(const std::string& path, struct stat* st);

/// Writes all bytes. 0 or an errno value. Allocates nothing.
int writeAll(int fd, std::string_view bytes);

/// Reads up to `size` bytes, fewer only at the end. -1 with errno set on an error. Allocates nothing.
std::int64_t readFully(int fd, void* buffer, std::size_t size);

/// Makes the last change of the folder's entries durable. 0 or an errno value. `file`: any descriptor on the
/// same file system, for a folder that this process cannot read; -1: none. Allocates nothing.
int syncFolder(int folder, int file);

/// "/a/b" and "c" of "/a/b/c"; an empty folder for a name without a separator.
struct SplitPath {
  std::string folder, name;
};
SplitPath splitPath(const std::string& path);
/// The opposite of splitPath.
std::string joinPath(const std::string& folder, const std::string& name);

/// The wall clock since 1970-01-01, with the precision of file times: the kernel stamps files with this
/// clock.
std::int64_t nowSec();
std::int64_t nowNs();

}  // namespace platform
