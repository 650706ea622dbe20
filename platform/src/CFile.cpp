#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/Descriptor.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace {

using platform::Descriptor;

int writeAndSync(int fd, std::string_view content, std::uint32_t mode) {
  if (const int error = platform::writeAll(fd, content); error != 0) {
    return error;
  }
  if (fchmod(fd, mode) != 0 || fsync(fd) != 0) {
    return errno;
  }
  return 0;
}

/// A folder that cannot be read cannot be synced, and some file systems cannot sync folders. The new file is
/// whole all the same.
bool isSyncImpossible(int error) {
  return error == EACCES || error == EINVAL || error == ENOTSUP;
}

/// 0 or an errno value.
int syncIfPossible(int folder) {
  const int error = platform::syncFolder(folder, -1);
  return isSyncImpossible(error) ? 0 : error;
}

}  // namespace

tl::expected<std::string, int> CFile::readAll(const std::string& path, std::size_t limitBytes) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat st {};
  if (!file || fstat(file.get(), &st) != 0) {
    return tl::unexpected(errno);
  }
  if (!S_ISREG(st.st_mode)) {
    return tl::unexpected(S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
  }
  std::string content;
  char block[16384];
  for (;;) {
    const ssize_t count = read(file.get(), block, sizeof block);
    if (count == 0) {
      return content;
    }
    if (count < 0 && errno != EINTR) {
      return tl::unexpected(errno);
    }
    if (count > 0) {
      if (static_cast<std::size_t>(count) > limitBytes - content.size()) {
        return tl::unexpected(EFBIG);
      }
      content.append(block, static_cast<std::size_t>(count));
    }
  }
}

int CFile::replaceAtomically(const std::string& path, std::string_view content, std::uint32_t mode) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty()) {
    return EISDIR;
  }
  const Descriptor directory(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    return errno;
  }
  const std::string temporary = ".tmp-" + CUuid::generate();
  const Descriptor file(openat(directory.get(), temporary.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode & 0700));
  if (!file) {
    return errno;
  }
  int error = writeAndSync(file.get(), content, mode);
  if (error == 0 && renameat(directory.get(), temporary.c_str(), directory.get(), name.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    unlinkat(directory.get(), temporary.c_str(), 0);
    return error;
  }
  return syncIfPossible(directory.get());
}
