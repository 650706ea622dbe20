#include "task/Walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/Posix.h"

namespace agent {

namespace {

constexpr std::size_t kOpenFolders = 64;  // of the folders on the way down, the deepest ones

constexpr const char* kOwnFolder = "kept by the agent itself";

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

bool mayWrite(int folder, const char* name) {
  return faccessat(folder, name, W_OK | X_OK, AT_EACCESS) == 0;
}

std::string resolvedPath(int fd) {
  char text[4096];
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text);
  return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

bool isWithin(const std::string& path, const std::string& folder) {
  return path == folder || (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
                            path[folder.size()] == '/');
}

}  // namespace

Walker::Walker(Options options, WalkSink& sink) : options_(std::move(options)), sink_(sink) {
  for (const std::string& folder : options_.excludedFolders) {
    struct stat status {};
    if (stat(folder.c_str(), &status) == 0) {
      excluded_.emplace(status.st_dev, status.st_ino);
    }
  }
}

const char* specialKind(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFLNK:
      return "symbolic link";
    case S_IFIFO:
      return "fifo";
    case S_IFSOCK:
      return "socket";
    case S_IFBLK:
      return "block device";
    case S_IFCHR:
      return "character device";
    default:
      return "special file";
  }
}

Walker::Named Walker::open(const std::string& path, std::string* error) {
  Named named;
  error->clear();
  if (path.empty() || path.front() != '/') {
    *error = "not an absolute path";
    return named;
  }
  named.path = path;
  while (named.path.size() > 1 && named.path.back() == '/') {
    named.path.pop_back();
  }
  if (stat(path.c_str(), &named.status) != 0) {
    *error = platform::errnoText(errno);
    return named;
  }
  if (!S_ISREG(named.status.st_mode) && !S_ISDIR(named.status.st_mode)) {
    named.skipReason = specialKind(named.status.st_mode);
    return named;
  }
  named.fd = platform::openQuietly(AT_FDCWD, path.c_str(), 0);
  named.statusNs = platform::nowNs();
  if (!named.fd || fstat(named.fd.get(), &named.status) != 0) {
    *error = platform::errnoText(errno);
    return named;
  }
  if (!S_ISREG(named.status.st_mode) && !S_ISDIR(named.status.st_mode)) {
    named.fd.reset();
    named.skipReason = specialKind(named.status.st_mode);
    return named;
  }
  named.resolved = resolvedPath(named.fd.get());
  return named;
}

void Walker::walk(Named named, double share) {
  if (!sink_.keepGoing()) {
    return;
  }
  const std::string reason = whyNotWalked(named);
  if (!reason.empty()) {
    sink_.skipped(named.path, reason);
    sink_.advanced(share);
    return;
  }
  begin(named);
  if (S_ISDIR(named.status.st_mode)) {
    walkFolder(std::move(named.fd), named.status, share);
    return;
  }
  MetFile met{path_, resolvedName(), std::move(named.fd), named.statusNs, named.status, false};
  met.folderWritable =
      mayWrite(AT_FDCWD, platform::splitPath(met.resolved.empty() ? path_ : met.resolved).folder.c_str());
  sink_.file(std::move(met));
  sink_.advanced(share);
}

void Walker::begin(const Named& named) {
  path_ = named.path;
  throughLink_ = !named.resolved.empty() && named.resolved != named.path;
  namedLength_ = named.path == "/" ? 0 : named.path.size();
  resolvedBase_ = named.resolved == "/" ? "" : named.resolved;
}

/// Where the entry path_ is, when the named path led there through a link; else empty.
std::string Walker::resolvedName() const {
  return throughLink_ ? resolvedBase_ + path_.substr(namedLength_) : std::string();
}

std::string Walker::refusal(int fd, bool networkAllowed) const {
  const FileSystem system = options_.fileSystem(fd);
  if (system.kind == FileSystemKind::kPseudo) {
    return std::string("pseudo file system ") + system.name;
  }
  if (system.kind == FileSystemKind::kNetwork && !networkAllowed) {
    return std::string("network file system ") + system.name;
  }
  return {};
}

void Walker::walkFolder(platform::Descriptor fd, const struct stat& status, double share) {
  stack_.clear();
  if (!enter(std::move(fd), status, share, true)) {
    return;
  }
  while (!stack_.empty()) {
    if (!stack_.back().subfolders.empty()) {
      if (!sink_.keepGoing() || !enterNext()) {
        break;
      }
      continue;
    }
    const Folder done = std::move(stack_.back());
    stack_.pop_back();
    if (!stack_.empty() && !stack_.back().fd && !reopenParent(done, stack_.back())) {
      loseTheRest();
    }
  }
  stack_.clear();
}

/// The way back up leads elsewhere by now: what was left to do above cannot be reached any more.
void Walker::loseTheRest() {
  while (!stack_.empty()) {
    for (const auto& [name, part] : stack_.back().subfolders) {
      setName(stack_.back(), name);
      sink_.failed(path_, "its folder was moved while it was scanned");
      sink_.advanced(part);
    }
    stack_.pop_back();
  }
}

/// True when the walk goes on.
bool Walker::enter(platform::Descriptor fd, const struct stat& status, double share, bool named) {
  if (!entered_.emplace(status.st_dev, status.st_ino).second) {
    if (!named) {
      sink_.skipped(path_, "the same folder was met before");
    }
    sink_.advanced(share);
    return true;
  }
  if (stack_.size() >= kOpenFolders) {
    stack_[stack_.size() - kOpenFolders].fd.reset();
  }
  Folder folder;
  folder.fd = std::move(fd);
  folder.device = status.st_dev;
  folder.inode = status.st_ino;
  folder.pathLength = path_.size();
  stack_.push_back(std::move(folder));
  return readEntries(stack_.back(), share);
}

bool Walker::enterNext() {
  Folder& folder = stack_.back();
  const auto [name, share] = std::move(folder.subfolders.back());
  folder.subfolders.pop_back();
  setName(folder, name);
  platform::Descriptor fd = platform::openQuietly(folder.fd.get(), name.c_str(), O_DIRECTORY | O_NOFOLLOW);
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) != 0) {
    const int error = errno;
    reportUnopened(error == ENOTDIR ? ELOOP : error);
    sink_.advanced(share);
    return true;
  }
  std::string reason;
  if (excluded_.count({status.st_dev, status.st_ino}) != 0) {
    reason = kOwnFolder;
  } else if (status.st_dev != folder.device) {
    reason = refusal(fd.get(), options_.networkFileSystems);
  }
  if (!reason.empty()) {
    sink_.skipped(path_, reason);
    sink_.advanced(share);
    return true;
  }
  return enter(std::move(fd), status, share, false);
}

std::string Walker::whyNotWalked(const Named& named) const {
  if (!named.fd) {
    return named.skipReason;
  }
  for (const std::string& excluded : options_.excludedFolders) {
    if (isWithin(named.resolved, excluded)) {
      return kOwnFolder;
    }
  }
  return refusal(named.fd.get(), named.asked || options_.networkFileSystems);
}

/// An entry of a folder that could not be opened.
void Walker::reportUnopened(int error) {
  if (error == ENOENT) {
    sink_.skipped(path_, "was removed while its folder was read");
  } else if (error == ELOOP || error == ENXIO) {
    sink_.skipped(path_, "was exchanged while its folder was read");
  } else {
    sink_.failed(path_, platform::errnoText(error));
  }
}

/// Files are met as they are read, folders are kept for later. The folder's share is dealt out a batch at a
/// time, half of what is left while more may follow. False when the walk must end.
bool Walker::readEntries(Folder& folder, double share) {
  const bool writable = mayWrite(folder.fd.get(), ".");
  const int copy = fcntl(folder.fd.get(), F_DUPFD_CLOEXEC, 0);
  const std::unique_ptr<DIR, CloseDirectory> directory(copy >= 0 ? fdopendir(copy) : nullptr);
  if (!directory) {
    const int error = errno;
    if (copy >= 0) {
      close(copy);
    }
    sink_.failed(path_, platform::errnoText(error));
    sink_.advanced(share);
    return true;
  }
  std::vector<std::pair<std::string, unsigned char>> batch;
  bool last = false;
  while (!last) {
    batch.clear();
    while (batch.size() < options_.entriesAtOnce) {
      errno = 0;
      const dirent* entry = readdir(directory.get());
      if (entry == nullptr) {
        last = true;
        reportUnreadEnd(folder, errno);
        break;
      }
      if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
        batch.emplace_back(entry->d_name, entry->d_type);
      }
    }
    const double part = last ? share : share / 2;
    share -= part;
    for (const auto& [name, type] : batch) {
      if (!sink_.keepGoing()) {
        return false;
      }
      meet(folder, name, type, part / static_cast<double>(batch.size()), writable);
    }
    if (batch.empty()) {
      sink_.advanced(part);
    }
  }
  return true;
}

void Walker::reportUnreadEnd(const Folder& folder, int error) {
  if (error != 0) {
    path_.resize(folder.pathLength);
    sink_.failed(path_, "cannot be read to its end: " + platform::errnoText(error));
  }
}

void Walker::meet(Folder& folder, const std::string& name, unsigned char type, double share, bool writable) {
  mode_t mode = static_cast<mode_t>(DTTOIF(type));
  setName(folder, name);
  if (type == DT_UNKNOWN) {
    struct stat status {};
    if (fstatat(folder.fd.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      reportUnopened(errno);
      sink_.advanced(share);
      return;
    }
    mode = status.st_mode;
  }
  if (S_ISDIR(mode)) {
    folder.subfolders.emplace_back(name, share);
    return;
  }
  if (S_ISREG(mode)) {
    meetFile(folder, name, writable);
  } else {
    sink_.skipped(path_, specialKind(mode));
  }
  sink_.advanced(share);
}

void Walker::meetFile(const Folder& folder, const std::string& name, bool writable) {
  platform::Descriptor fd = platform::openQuietly(folder.fd.get(), name.c_str(), O_NOFOLLOW);
  if (!fd) {
    reportUnopened(errno);
    return;
  }
  MetFile met{path_, resolvedName(), std::move(fd), platform::nowNs(), {}, writable};
  if (fstat(met.fd.get(), &met.status) != 0) {
    sink_.failed(path_, platform::errnoText(errno));
  } else if (!S_ISREG(met.status.st_mode)) {
    sink_.skipped(path_, "was exchanged while its folder was read");
  } else {
    sink_.file(std::move(met));
  }
}

/// Finds the parent of a folder again by "..", and makes sure that it is the one we came from.
bool Walker::reopenParent(const Folder& child, Folder& parent) {
  platform::Descriptor fd = platform::openQuietly(child.fd.get(), "..", O_DIRECTORY);
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) != 0 || status.st_dev != parent.device ||
      status.st_ino != parent.inode) {
    return false;
  }
  parent.fd = std::move(fd);
  return true;
}

void Walker::setName(const Folder& folder, const std::string& name) {
  path_.resize(folder.pathLength);
  if (path_ != "/") {
    path_ += '/';
  }
  path_ += name;
}

}  // namespace agent
