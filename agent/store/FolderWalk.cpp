#include "store/FolderWalk.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace agent::store {
namespace {

constexpr int kFolderFlags = O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;

int stepInto(int folder, const char* name) {
  const int next = ::openat(folder, name, kFolderFlags);
  if (next >= 0) {
    return next;
  }
  const int error = errno;
  struct stat st {};
  const bool link =
      error == ENOTDIR && ::fstatat(folder, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
  return link ? -ELOOP : -error;
}

bool isDots(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

int walkToFolder(const char* path, std::size_t* failedEnd) {
  *failedEnd = 0;
  int folder = path[0] == '/' ? ::open("/", kFolderFlags) : -1;
  if (folder < 0) {
    return path[0] == '/' ? -errno : -EINVAL;
  }
  std::array<char, NAME_MAX + 1> name{};
  const char* at = path;
  while (*(at += std::strspn(at, "/")) != '\0') {
    const std::size_t length = std::strcspn(at, "/");
    int next = length > NAME_MAX ? -ENAMETOOLONG : 0;
    if (next == 0) {
      std::memcpy(name.data(), at, length);
      name[length] = '\0';
      next = isDots(name.data()) ? -EINVAL : stepInto(folder, name.data());
    }
    ::close(folder);
    at += length;
    if (next < 0) {
      *failedEnd = static_cast<std::size_t>(at - path);
      return next;
    }
    folder = next;
  }
  return folder;
}

std::string walkFailure(const std::string& path, int error, std::size_t failedEnd) {
  const std::string where = platform::quoted(std::string_view(path).substr(0, failedEnd));
  switch (error) {
    case ELOOP:
      return where + " is a symbolic link";
    case ENOENT:
      return "the folder " + where + " is not there";
    case EINVAL:
      return platform::quoted(path) + " is not an absolute path without . and ..";
    default:
      return where + ": " + platform::errnoText(error);
  }
}

platform::Expected<platform::Descriptor> openFolder(const std::string& path) {
  std::size_t failedEnd = 0;
  const int folder = walkToFolder(path.c_str(), &failedEnd);
  if (folder < 0) {
    return platform::failure(walkFailure(path, -folder, failedEnd));
  }
  return platform::Descriptor(folder);
}

}  // namespace agent::store
