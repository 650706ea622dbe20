#include "SocketFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/Descriptor.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace lunet {

namespace {

constexpr std::size_t kPathLimit = sizeof(sockaddr_un{}.sun_path) - 1;
constexpr mode_t kPrivateMode = 0700;
constexpr mode_t kGroupMode = 03770;
constexpr mode_t kParentMode = 0755;

FolderCheck refuse(std::string why) {
  return {kErrPath, "the socket folder cannot be used: " + std::move(why), 0};
}

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

std::string whyTooLong(const SocketFolder& folder) {
  const std::string longest = folder.socketPath(Guid{});
  if (longest.size() <= kPathLimit) {
    return {};
  }
  return "the path of a socket in it, " + platform::visibleText(longest) + ", would have " +
         std::to_string(longest.size()) + " bytes, the system's limit is " + std::to_string(kPathLimit) +
         "; name a shorter \"socket_dir\" in the bus configuration";
}

/// "<GUID>" with the ending of a file of the bus or of a console's mark; "<GUID>.<anything>.bad".
bool belongsToABus(std::string_view name) {
  if (name.ends_with(kAsideSuffix)) {
    return parseGuid(std::string(name.substr(0, name.find('.'))).c_str()) != Guid{};
  }
  for (const std::string_view suffix : {kSocketSuffix, kLockSuffix, kNewSuffix, kMarkSuffix}) {
    if (name.ends_with(suffix)) {
      const std::string stem(name.substr(0, name.size() - suffix.size()));
      return parseGuid(stem.c_str()) != Guid{};
    }
  }
  return false;
}

/// The folder that stands there may be somebody's own (the configuration named /etc): only what holds nothing
/// but files of a bus may be given another group and mode.
bool holdsNothingElse(int folder) {
  const int copy = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(copy < 0 ? nullptr : fdopendir(copy), &closedir);
  if (!entries) {
    return false;
  }
  while (const dirent* entry = readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != ".." && !belongsToABus(name)) {
      return false;
    }
  }
  return true;
}

/// Group and mode as they must be; set when they are not and this process may. whyLeft: the end of the line
/// that says that they are not.
std::string settle(int fd, const SocketFolder& folder, struct stat& st, bool mayChange, const char* whyLeft) {
  const mode_t mode = folder.group ? kGroupMode : kPrivateMode;
  if (mayChange && folder.group && st.st_gid != *folder.group &&
      fchown(fd, static_cast<uid_t>(-1), *folder.group) != 0) {
    return platform::visibleText(folder.path) + " cannot be given to group " + std::to_string(*folder.group) +
           ": " + platform::errnoText(errno);
  }
  if (mayChange && (st.st_mode & 07777) != mode && fchmod(fd, mode) != 0) {
    return platform::visibleText(folder.path) + " cannot be set to mode " + octal(mode) + ": " +
           platform::errnoText(errno);
  }
  if (fstat(fd, &st) != 0 || (st.st_mode & 07777) != mode || (folder.group && st.st_gid != *folder.group)) {
    return platform::visibleText(folder.path) + " has group " + std::to_string(st.st_gid) + " and mode " +
           octal(st.st_mode) + ", it must have " +
           (folder.group ? "group " + std::to_string(*folder.group) + " and " : "") + "mode " + octal(mode) +
           whyLeft;
  }
  return {};
}

FolderCheck examine(const SocketFolder& folder, bool change) {
  using platform::visibleText;
  struct stat st {};
  if (lstat(folder.path.c_str(), &st) != 0 && errno == ENOENT) {
    return {kErrNoTarget, "the socket folder " + visibleText(folder.path) + " does not exist", 0};
  }
  // From here on nobody else can make the path lead elsewhere. It stays as it is written: with its links
  // resolved it could pass the limit.
  if (auto safe = CDir::resolveSafe(folder.path); !safe) {
    return refuse(std::move(safe.error()));
  }
  const platform::Descriptor fd(open(folder.path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd || fstat(fd.get(), &st) != 0) {
    return refuse(visibleText(folder.path) + ": " + platform::errnoText(errno));
  }
  platform::Descriptor readable;
  const bool mine = st.st_uid == geteuid();
  if (!mine && !folder.group) {
    return refuse(visibleText(folder.path) + " is private to user " + std::to_string(st.st_uid) +
                  "; the bus configuration names no \"group\" that may join");
  }
  if (change && mine) {
    readable =
        platform::Descriptor(open(folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  const bool mayChange = readable && holdsNothingElse(readable.get());
  const char* const whyLeft = readable && !mayChange ? "; it holds other files, so it is left as it is" : "";
  if (std::string why = settle(readable ? readable.get() : fd.get(), folder, st, mayChange, whyLeft);
      !why.empty()) {
    return refuse(std::move(why));
  }
  return {kOk, "", st.st_uid};
}

}  // namespace

std::string SocketFolder::socketPath(const Guid& guid) const {
  return path + "/" + formatGuid(guid) + kSocketSuffix;
}

std::string SocketFolder::lockPath(const Guid& guid) const {
  return path + "/" + formatGuid(guid) + kLockSuffix;
}

std::string SocketFolder::newSocketPath(const Guid& guid) const {
  return path + "/" + formatGuid(guid) + kNewSuffix;
}

std::string SocketFolder::asidePath(const Guid& guid) const {
  std::string uuid;
  CUuid::generate(uuid);
  return path + "/" + formatGuid(guid) + "." + uuid + kAsideSuffix;
}

FolderCheck checkFolder(const SocketFolder& folder) {
  if (std::string why = whyTooLong(folder); !why.empty()) {
    return refuse(std::move(why));
  }
  return examine(folder, false);
}

FolderCheck prepareFolder(const SocketFolder& folder) {
  std::string why = whyTooLong(folder);
  const std::size_t slash = folder.path.rfind('/');
  if (why.empty() && slash != std::string::npos && slash > 0) {
    if (auto made = CDir::makeSafe(folder.path.substr(0, slash), kParentMode); !made) {
      why = std::move(made.error());
    }
  }
  if (!why.empty()) {
    return refuse(std::move(why));
  }
  if (mkdir(folder.path.c_str(), kPrivateMode) != 0 && errno != EEXIST) {
    return refuse(platform::visibleText(folder.path) + " cannot be made: " + platform::errnoText(errno));
  }
  return examine(folder, true);
}

std::optional<sockaddr_un> socketAddress(const std::string& path) {
  if (path.size() > kPathLimit) {
    return std::nullopt;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace lunet
