#include "task/Walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/Posix.h"

namespace agent {

namespace {

constexpr std::size_t kOpenFolders = 64;  // the deepest folders on the way down stay open

constexpr const char* kOwnFolder = "kept by the agent itself";

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

bool mayWrite(int folder, const char* name) {
  return faccessat(folder, name, W_OK | X_OK, AT_EACCESS) == 0;
}

bool isFileOrFolder(const struct stat& status) {
  return S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
}

bool isMountedWithoutSetuid(int fd) {
  struct statvfs info {};
  return fstatvfs(fd, &info) == 0 && (info.f_flag & ST_NOSUID) != 0;
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

std::string pathOf(int fd) {
  char text[4096];
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), text, sizeof text);
  return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

bool isWithin(const std::string& path, const std::string& folder) {
  return path == folder || (path.starts_with(folder) && path[folder.size()] == '/');
}

bool mayWriteFolderOf(const std::string& path) {
  return mayWrite(AT_FDCWD, platform::splitPath(path).folder.c_str());
}

platform::Expected<EncounteredFile> Walker::open(const std::string& path) {
  if (!path.starts_with('/')) {
    return platform::failure("not an absolute path");
  }
  EncounteredFile named;
  named.path = path;
  while (named.path.size() > 1 && named.path.back() == '/') {
    named.path.pop_back();
  }
  if (stat(path.c_str(), &named.status) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  if (!isFileOrFolder(named.status)) {
    return named;
  }
  named.fd = platform::openQuietly(AT_FDCWD, path.c_str(), 0);
  named.statusNs = platform::nowNs();
  if (!named.fd || fstat(named.fd.get(), &named.status) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  if (!isFileOrFolder(named.status)) {
    named.fd.reset();
    return named;
  }
  named.resolved = pathOf(named.fd.get());
  return named;
}

void Walker::walk(EncounteredFile named, double share, NamedBy by, Wanted wanted) {
  if (!sink_.keepGoing()) {
    return;
  }
  begin(named, wanted);
  if (const auto walkable = checkWalkable(named, by); !walkable) {
    reportSkipped(walkable.error());
    sink_.advanced(share);
    return;
  }
  if (S_ISDIR(named.status.st_mode)) {
    walkFolder(std::move(named.fd), named.status, share);
    return;
  }
  named.resolved = resolvedPath();
  named.folderWritable = mayWriteFolderOf(named.resolved.empty() ? named.path : named.resolved);
  sink_.file(std::move(named));
  sink_.advanced(share);
}

void Walker::begin(const EncounteredFile& named, Wanted wanted) {
  wanted_ = wanted;
  path_ = named.path;
  throughLink_ = !named.resolved.empty() && named.resolved != named.path;
  namedLength_ = named.path == "/" ? 0 : named.path.size();
  resolvedBase_ = named.resolved == "/" ? "" : named.resolved;
}

/// The place of the entry path_, when the named path leads through a link; else empty.
std::string Walker::resolvedPath() const {
  return throughLink_ ? resolvedBase_ + path_.substr(namedLength_) : std::string();
}

platform::Expected<void> Walker::checkFileSystem(int fd, bool networkAllowed) const {
  const FileSystem system = options_.fileSystem(fd);
  if (system.kind == FileSystemKind::kPseudo) {
    return platform::failure(std::string("pseudo file system ") + system.name);
  }
  if (system.kind == FileSystemKind::kNetwork && !networkAllowed) {
    return platform::failure(std::string("network file system ") + system.name);
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
      failRemaining();
    }
  }
  stack_.clear();
}

/// Reports the folders above that were not entered yet. The way back up leads elsewhere by now.
void Walker::failRemaining() {
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
      reportSkipped("the same folder was met before");
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
  if (const auto mountable = checkMountPoint(folder, name); !mountable) {
    reportSkipped(mountable.error());
    sink_.advanced(share);
    return true;
  }
  platform::Descriptor fd = platform::openQuietly(folder.fd.get(), name.c_str(), O_DIRECTORY | O_NOFOLLOW);
  struct stat status {};
  if (!fd || fstat(fd.get(), &status) != 0) {
    const int error = errno;
    reportUnopened(error == ENOTDIR ? ELOOP : error);
    sink_.advanced(share);
    return true;
  }
  platform::Expected<void> walkable;
  if (excluded_.count({status.st_dev, status.st_ino}) != 0) {
    walkable = platform::failure(kOwnFolder);
  } else if (status.st_dev != folder.device) {
    walkable = checkFileSystem(fd.get(), options_.networkFileSystems);
    if (walkable && wanted_ == Wanted::kSetuidFiles && isMountedWithoutSetuid(fd.get())) {
      walkable = platform::failure("setuid has no effect here");
    }
  }
  if (!walkable) {
    reportSkipped(walkable.error());
    sink_.advanced(share);
    return true;
  }
  return enter(std::move(fd), status, share, false);
}

/// An autofs mounts what is opened for reading. A look by status and O_PATH mounts nothing.
platform::Expected<void> Walker::checkMountPoint(const Folder& folder, const std::string& name) const {
  struct stat status {};
  if (options_.networkFileSystems ||
      fstatat(folder.fd.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0 ||
      status.st_dev == folder.device) {
    return {};
  }
  const platform::Descriptor place(openat(folder.fd.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  return place ? checkFileSystem(place.get(), false) : platform::Expected<void>();
}

platform::Expected<void> Walker::checkWalkable(const EncounteredFile& named, NamedBy by) const {
  if (!named.fd) {
    return platform::failure(specialKind(named.status.st_mode));
  }
  for (const std::string& excluded : options_.excludedFolders) {
    if (isWithin(named.resolved, excluded)) {
      return platform::failure(kOwnFolder);
    }
  }
  return checkFileSystem(named.fd.get(), by == NamedBy::kCaller || options_.networkFileSystems);
}

/// Reports path_. A search is no encounter of the entries that it passes over.
void Walker::reportSkipped(const std::string& reason) {
  if (wanted_ == Wanted::kEverything) {
    sink_.skipped(path_, reason);
  }
}

/// Reports an entry of a folder that could not be opened.
void Walker::reportUnopened(int error) {
  if (error == ENOENT) {
    reportSkipped("was removed while its folder was read");
  } else if (error == ELOOP || error == ENXIO) {
    reportSkipped("was exchanged while its folder was read");
  } else {
    sink_.failed(path_, platform::errnoText(error));
  }
}

/// Visits the files of a folder and keeps the subfolders for later. Each batch of entries gets half of the
/// share that is left; the last batch gets the rest. False when the walk must end.
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
      visitEntry(folder, name, type, part / static_cast<double>(batch.size()), writable);
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

void Walker::visitEntry(Folder& folder, const std::string& name, unsigned char type, double share,
                        bool writable) {
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
  if (!S_ISREG(mode)) {
    reportSkipped(specialKind(mode));
  } else if (wanted_ == Wanted::kEverything || isSetuidFile(folder, name)) {
    visitFile(folder, name, writable);
  }
  sink_.advanced(share);
}

/// Opens nothing: a search looks at every file of a disk.
bool Walker::isSetuidFile(const Folder& folder, const std::string& name) {
  struct stat status {};
  if (fstatat(folder.fd.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    reportUnopened(errno);
    return false;
  }
  constexpr mode_t kSetgid = S_ISGID | S_IXGRP;
  return S_ISREG(status.st_mode) &&
         ((status.st_mode & S_ISUID) != 0 || (status.st_mode & kSetgid) == kSetgid);
}

void Walker::visitFile(const Folder& folder, const std::string& name, bool writable) {
  platform::Descriptor fd = platform::openQuietly(folder.fd.get(), name.c_str(), O_NOFOLLOW);
  if (!fd) {
    reportUnopened(errno);
    return;
  }
  EncounteredFile file{path_, resolvedPath(), std::move(fd), platform::nowNs(), {}, writable};
  if (fstat(file.fd.get(), &file.status) != 0) {
    sink_.failed(path_, platform::errnoText(errno));
  } else if (!S_ISREG(file.status.st_mode)) {
    reportSkipped("was exchanged while its folder was read");
  } else {
    sink_.file(std::move(file));
  }
}

/// Opens the parent of a folder again by "..". False when ".." leads to another folder than before.
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
