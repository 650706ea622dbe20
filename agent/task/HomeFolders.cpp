#include "task/HomeFolders.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>

#include "platform/Posix.h"
#include "task/CallerRights.h"
#include "task/Walker.h"

namespace agent {

namespace {

using Opened = platform::Expected<std::optional<EncounteredFile>>;

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

/// Links are followed below the folder, and never those of /proc.
platform::Descriptor openBeneath(int folder, const std::string& below, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return platform::Descriptor(
      static_cast<int>(syscall(SYS_openat2, folder, below.c_str(), &how, sizeof how)));
}

/// Keeps the access time if this process may do so.
platform::Descriptor openToRead(int folder, const std::string& below) {
  platform::Descriptor fd = openBeneath(folder, below, platform::readingFlags() | O_NOATIME);
  return !fd && errno == EPERM ? openBeneath(folder, below, platform::readingFlags()) : std::move(fd);
}

std::vector<gid_t> groupsOf(const HomeFolder& home) {
  constexpr std::size_t kMost = 65536;  // as the kernel allows
  std::vector<gid_t> groups(64);
  int count = 64;
  while (getgrouplist(home.user.c_str(), home.gid, groups.data(), &count) < 0 && groups.size() < kMost) {
    groups.resize(groups.size() * 2);
    count = static_cast<int>(groups.size());
  }
  groups.resize(std::min(groups.size(), static_cast<std::size_t>(count)));
  return groups;
}

Opened openBelow(const HomeFolder& home, const std::string& below, bool keepRights) {
  EncounteredFile found;
  found.path = home.path + "/" + below;
  const platform::Descriptor folder(::open(home.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const platform::Descriptor place =
      folder ? openBeneath(folder.get(), below, O_PATH) : platform::Descriptor();
  if (!place) {
    const int error = errno;
    if (error == EXDEV || error == ELOOP) {  // a link that leads out of the folder, or nowhere
      found.status.st_mode = S_IFLNK;
      return std::optional(std::move(found));
    }
    if (error == ENOENT || error == ENOTDIR || (error == EACCES && keepRights)) {
      return std::nullopt;
    }
    return platform::failure(platform::errnoText(error));
  }
  if (fstat(place.get(), &found.status) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  if (!S_ISREG(found.status.st_mode) && !S_ISDIR(found.status.st_mode)) {
    return std::optional(std::move(found));
  }
  const struct stat seen = found.status;
  found.fd = openToRead(folder.get(), below);
  found.statusNs = platform::nowNs();
  if (!found.fd || fstat(found.fd.get(), &found.status) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  if (found.status.st_dev != seen.st_dev || found.status.st_ino != seen.st_ino) {
    return platform::failure("was exchanged while it was opened");
  }
  found.resolved = pathOf(found.fd.get());
  return std::optional(std::move(found));
}

}  // namespace

std::vector<HomeFolder> homeFolders() {
  // The reading position in the user database belongs to the whole process.
  static std::mutex reading;
  const std::lock_guard guard(reading);
  std::map<std::string, HomeFolder> homes;
  setpwent();
  while (const passwd* entry = getpwent()) {
    std::string home = entry->pw_dir;
    while (home.size() > 1 && home.back() == '/') {
      home.pop_back();
    }
    const bool person = entry->pw_uid == 0 || entry->pw_uid >= 1000;
    if (person && home.size() > 1 && home.front() == '/' && exists(home)) {
      homes.try_emplace(home, HomeFolder{home, entry->pw_name, entry->pw_uid, entry->pw_gid});
    }
  }
  endpwent();
  std::vector<HomeFolder> result;
  result.reserve(homes.size());
  for (auto& [path, home] : homes) {
    result.push_back(std::move(home));
  }
  return result;
}

std::optional<HomeFolder> homeFolderOf(const std::string& user) {
  std::vector<char> buffer(4096);
  passwd entry{};
  passwd* found = nullptr;
  while (getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr
             ? std::optional(HomeFolder{found->pw_dir, found->pw_name, found->pw_uid, found->pw_gid})
             : std::nullopt;
}

const HomeFolder* homeOf(const std::string& path, const std::vector<HomeFolder>& homes) {
  const HomeFolder* found = nullptr;
  for (const HomeFolder& home : homes) {
    if (path != home.path && isWithin(path, home.path) &&
        (found == nullptr || home.path.size() > found->path.size())) {
      found = &home;
    }
  }
  return found;
}

std::string belowHome(const HomeFolder& home, const std::string& path) {
  const std::size_t begin = path.find_first_not_of('/', home.path.size());
  return begin == std::string::npos ? "." : path.substr(begin);
}

template <class Open>
Opened HomeAccess::asUser(const HomeFolder& home, const Open& open) const {
  if (keepRights_ || geteuid() != 0 || home.uid == 0) {
    return open();
  }
  const auto rights = CallerRights::take(CallerId{home.uid, home.gid, groupsOf(home), getpid()});
  if (!rights) {
    return platform::failure(rights.error());
  }
  return open();
}

Opened HomeAccess::open(const HomeFolder& home, const std::string& below) const {
  return asUser(home, [&] { return openBelow(home, below, keepRights_); });
}

Opened HomeAccess::openAny(const HomeFolder& home, const std::string& path) const {
  return asUser(home, [&]() -> Opened {
    if (!exists(path)) {
      return std::nullopt;
    }
    platform::Expected<EncounteredFile> file = Walker::open(path);
    return file ? Opened(std::optional(std::move(*file))) : Opened(platform::failure(file.error()));
  });
}

}  // namespace agent
