#include "platform/Posix.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/Text.h"

namespace platform {

std::string errnoText(int error) {
  return std::generic_category().message(error);
}

std::string quoted(std::string_view path) {
  return "'" + visibleText(path) + "'";
}

int readingFlags() {
  return O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
}

Descriptor openQuietly(int folder, const char* name, int flags) {
  const int all = flags | readingFlags();
  const int fd = ::openat(folder, name, all | O_NOATIME);
  return Descriptor(fd < 0 && errno == EPERM ? ::openat(folder, name, all) : fd);
}

Descriptor openReading(int folder, const std::string& name) {
  return openQuietly(folder, name.c_str(), O_NOFOLLOW);
}

Descriptor openAgain(int fd) {
  return openQuietly(AT_FDCWD, ("/proc/self/fd/" + std::to_string(fd)).c_str(), 0);
}

Descriptor openRegular(const std::string& path, struct stat* st) {
  const Descriptor found(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!found || ::fstat(found.get(), st) != 0) {
    return {};
  }
  if (!S_ISREG(st->st_mode)) {
    errno = EINVAL;
    return {};
  }
  return openAgain(found.get());
}

int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno != EINTR) {
      return errno;
    }
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  return 0;
}

std::int64_t readFully(int fd, void* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, static_cast<char*>(buffer) + done, size - done);
    if (n == 0) {
      break;
    }
    if (n < 0 && errno != EINTR) {
      return -1;
    }
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    }
  }
  return static_cast<std::int64_t>(done);
}

int syncFolder(int folder, int file) {
  const int readable = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (readable < 0) {
    return file >= 0 && ::syncfs(file) == 0 ? 0 : errno;
  }
  const int error = ::fsync(readable) == 0 ? 0 : errno;
  ::close(readable);
  return error;
}

SplitPath splitPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {"", path};
  }
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

std::string joinPath(const std::string& folder, const std::string& name) {
  return folder + (folder == "/" ? "" : "/") + name;
}

std::int64_t nowSec() {
  return nowNs() / 1'000'000'000;
}

std::int64_t nowNs() {
  timespec now{};
  // The finer clock may run ahead of file times.
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace platform
