#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Descriptor.h"

/// Small wrappers of system calls that every folder shares. An errno value leaves a caller of these only as
/// the text of errnoText. Any thread.
namespace platform {

/// The text of an errno value.
std::string errnoText(int error);

/// A path in single quotes, control characters visible: for a reason that people read.
std::string quoted(std::string_view path);

/// The flags of every opening that reads what others wrote: never waits for the other end of a pipe, never
/// makes a terminal the controlling one.
int readingFlags();

/// openat with readingFlags and `flags`. The access time stays as it is where this process has the right to
/// that. Empty with errno set.
Descriptor openQuietly(int folder, const char* name, int flags);

/// openQuietly of an entry that must not be a link.
Descriptor openReading(int folder, const std::string& name);

/// The same file once more, for reading, with a position of its own. Empty with errno set.
Descriptor openAgain(int fd);

/// Opens a regular file for reading; a link in the last component is not followed. Nothing but a regular file
/// is ever opened, so that no device or pipe is touched. Empty with errno set: EINVAL when `path` is no
/// regular file.
Descriptor openRegular(const std::string& path, struct stat* st);

/// Writes all of it. 0 or an errno value. Allocates nothing.
int writeAll(int fd, std::string_view bytes);

/// Reads up to `size` bytes, fewer only at the end. -1 with errno set on an error. Allocates nothing.
std::int64_t readFully(int fd, void* buffer, std::size_t size);

/// Makes the last change of the folder's entries survive a power cut. 0 or an errno value. `file`: any
/// descriptor on the same file system, for a folder that this process may not read; -1 for none. Allocates
/// nothing.
int syncFolder(int folder, int file);

/// "/a/b" and "c" of "/a/b/c"; an empty folder for a name without a separator.
struct SplitPath {
  std::string folder, name;
};
SplitPath splitPath(const std::string& path);

/// Wall clock since 1970-01-01, with the precision that file times have: the kernel stamps files with the
/// same clock.
std::int64_t nowSec();
std::int64_t nowNs();

}  // namespace platform
