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

tl::unexpected<Failure> unusable(const std::string& reason) {
  return failed(kErrPath, "the socket folder cannot be used: " + reason);
}

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

Result<void> checkLength(const SocketFolder& folder) {
  const std::string longest = folder.socketPath(Guid{});
  if (longest.size() <= kPathLimit) {
    return {};
  }
  return unusable("the path of a socket in it, " + platform::visibleText(longest) + ", would have " +
                  std::to_string(longest.size()) + " bytes, the system's limit is " +
                  std::to_string(kPathLimit) + "; name a shorter \"socket_dir\" in the bus configuration");
}

/// "<GUID>" with the ending of a file of the bus or of a console's mark; "<GUID>.<anything>.bad".
bool belongsToABus(std::string_view name) {
  if (name.ends_with(SocketFolder::kAsideSuffix)) {
    return parseGuid(std::string(name.substr(0, name.find('.'))).c_str()) != Guid{};
  }
  for (const std::string_view suffix : {SocketFolder::kSocketSuffix, SocketFolder::kLockSuffix,
                                        SocketFolder::kNewSuffix, SocketFolder::kMarkSuffix}) {
    if (name.ends_with(suffix)) {
      const std::string stem(name.substr(0, name.size() - suffix.size()));
      return parseGuid(stem.c_str()) != Guid{};
    }
  }
  return false;
}

/// True for a folder with files of a bus only. Another one, say /etc by mistake, must keep its group and
/// mode.
bool holdsOnlyABus(int folder) {
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

/// Checks group and mode, after setting them where `mayChange`. hint: the end of the line of a failed check.
Result<void> settle(int fd, const SocketFolder& folder, struct stat& st, bool mayChange, const char* hint) {
  const std::string path = platform::visibleText(folder.path);
  const mode_t mode = folder.group ? kGroupMode : kPrivateMode;
  if (mayChange && folder.group && st.st_gid != *folder.group &&
      fchown(fd, static_cast<uid_t>(-1), *folder.group) != 0) {
    return unusable(path + " cannot be given to group " + std::to_string(*folder.group) + ": " +
                    platform::errnoText(errno));
  }
  if (mayChange && (st.st_mode & 07777) != mode && fchmod(fd, mode) != 0) {
    return unusable(path + " cannot be set to mode " + octal(mode) + ": " + platform::errnoText(errno));
  }
  if (fstat(fd, &st) != 0 || (st.st_mode & 07777) != mode || (folder.group && st.st_gid != *folder.group)) {
    return unusable(path + " has group " + std::to_string(st.st_gid) + " and mode " + octal(st.st_mode) +
                    ", it must have " +
                    (folder.group ? "group " + std::to_string(*folder.group) + " and " : "") + "mode " +
                    octal(mode) + hint);
  }
  return {};
}

Result<uid_t> examine(const SocketFolder& folder, bool change) {
  const std::string path = platform::visibleText(folder.path);
  struct stat st {};
  if (lstat(folder.path.c_str(), &st) != 0 && errno == ENOENT) {
    return failed(kErrNoTarget, "the socket folder " + path + " does not exist");
  }
  // After this check nobody else can make the path lead elsewhere. The path keeps its links: resolved, it
  // could pass the length limit.
  if (const auto safe = CDir::resolveSafe(folder.path); !safe) {
    return unusable(safe.error());
  }
  const platform::Descriptor fd(open(folder.path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd || fstat(fd.get(), &st) != 0) {
    return unusable(path + ": " + platform::errnoText(errno));
  }
  const bool mine = st.st_uid == geteuid();
  if (!mine && !folder.group) {
    return unusable(path + " is private to user " + std::to_string(st.st_uid) +
                    "; the bus configuration names no \"group\" that may join");
  }
  platform::Descriptor readable;
  if (change && mine) {
    readable =
        platform::Descriptor(open(folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  const bool mayChange = readable && holdsOnlyABus(readable.get());
  const char* const hint = readable && !mayChange ? "; it holds other files, so it is left as it is" : "";
  return settle(readable ? readable.get() : fd.get(), folder, st, mayChange, hint).map([&] {
    return st.st_uid;
  });
}

}  // namespace

std::string SocketFolder::named(const Guid& guid, const char* suffix) const {
  return path + "/" + formatGuid(guid) + suffix;
}

std::string SocketFolder::asidePath(const Guid& guid) const {
  return named(guid, ".") + CUuid::generate() + kAsideSuffix;
}

Result<uid_t> checkFolder(const SocketFolder& folder) {
  return checkLength(folder).and_then([&] { return examine(folder, false); });
}

Result<uid_t> prepareFolder(const SocketFolder& folder) {
  if (const Result<void> fits = checkLength(folder); !fits) {
    return tl::unexpected(fits.error());
  }
  if (const auto made = CDir::makeSafe(platform::splitPath(folder.path).folder, kParentMode); !made) {
    return unusable(made.error());
  }
  if (mkdir(folder.path.c_str(), kPrivateMode) != 0 && errno != EEXIST) {
    return unusable(platform::visibleText(folder.path) + " cannot be made: " + platform::errnoText(errno));
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
