#include "store/OriginalFile.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include "store/FolderWalk.h"
#include "store/Sqlite.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

constexpr const char* kChanged = "it was changed after it was scanned";

std::string ownPath(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

std::string privateName(const std::string& uuid) {
  return ".tav-" + uuid;
}

int renameWithin(int folder, const std::string& from, const std::string& to) {
  if (::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL) {
    return errno;
  }
  // The file system lacks this flag. A new link cannot replace an entry either.
  if (::linkat(folder, from.c_str(), folder, to.c_str(), 0) != 0) {
    return errno;
  }
  return ::unlinkat(folder, from.c_str(), 0) == 0 ? 0 : errno;
}

OriginalFile::OriginalFile(const QuarantineRequest& request) {
  openFile(request);
  const FileIdentity now = FileIdentity::of(st_);
  if (!(now == request.identity)) {
    if (!now.sameContent(request.identity) || request.md5.empty()) {
      throw StoreError(kChanged);
    }
    needsProof_ = true;
  }
  findFolder();
  struct statvfs place {};
  if (::fstatvfs(file_.get(), &place) == 0 && (place.f_flag & ST_RDONLY) != 0) {
    throw StoreError("it is on a read-only file system");
  }
}

void OriginalFile::openFile(const QuarantineRequest& request) {
  if (request.fd < 0) {
    file_ = platform::openRegular(request.path, &st_);
  } else if (::fstat(request.fd, &st_) != 0) {
    throw StoreError("its descriptor is no good: " + platform::errnoText(errno));
  } else if (!S_ISREG(st_.st_mode)) {
    throw StoreError("it is not a regular file");
  } else {
    file_ = platform::openAgain(request.fd);
  }
  if (!file_) {
    throw StoreError(errno == EINVAL   ? "it is not a regular file"
                     : errno == ENOENT ? "it is no longer there"
                                       : "cannot open it: " + platform::errnoText(errno));
  }
}

void OriginalFile::findFolder() {
  // The kernel's path of the open file: without links, and up to date after a move of a folder.
  std::string path(PATH_MAX, '\0');
  const ssize_t size = ::readlink(ownPath(file_.get()).c_str(), path.data(), path.size());
  if (size <= 0 || path[0] != '/' || static_cast<std::size_t>(size) >= path.size()) {
    throw StoreError("where it is cannot be told");
  }
  path.resize(static_cast<std::size_t>(size));
  realPath_ = path;
  const platform::SplitPath split = platform::splitPath(path);
  name_ = split.name;
  auto folder = openFolder(split.folder);
  if (!folder) {
    throw StoreError(folder.error());
  }
  folder_ = std::move(*folder);
  checkEntry(name_, "it is no longer there");
}

void OriginalFile::checkEntry(const std::string& name, const char* ifAnother) const {
  struct stat entry {};
  if (::fstatat(folder_.get(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) != 0) {
    throw StoreError(errno == ENOENT ? "it is no longer there"
                                     : "cannot look at it: " + platform::errnoText(errno));
  }
  if (entry.st_dev != st_.st_dev || entry.st_ino != st_.st_ino) {
    throw StoreError(ifAnother);
  }
  if (!FileIdentity::of(entry).sameContent(FileIdentity::of(st_))) {
    throw StoreError(kChanged);
  }
}

void OriginalFile::checkUnchanged() const {
  struct stat now {};
  if (::fstat(file_.get(), &now) != 0 || !(FileIdentity::of(now) == FileIdentity::of(st_))) {
    throw StoreError("it was changed while it was copied");
  }
}

void OriginalFile::setAside(const std::string& privateName) {
  const int error = renameWithin(folder_.get(), name_, privateName);
  if (error != 0) {
    throw StoreError(error == ENOENT ? "it is no longer there"
                                     : "cannot remove it: " + platform::errnoText(error));
  }
  aside_ = privateName;
  reached("moved");
  try {
    checkEntry(aside_, "another file took its place while it was handled");
  } catch (const StoreError& error2) {
    const std::string why = error2.what();
    putBack();
    throw StoreError(why);
  }
}

void OriginalFile::putBack() {
  const int error = renameWithin(folder_.get(), aside_, name_);
  if (error != 0 && error != ENOENT) {
    throw StoreError("another file took its place while it was handled, and could not be put back (" +
                     platform::errnoText(error) + "): it stands as " + platform::quoted(aside_));
  }
}

void OriginalFile::remove() {
  if (::unlinkat(folder_.get(), aside_.c_str(), 0) != 0) {
    const std::string why = "cannot remove it: " + platform::errnoText(errno);
    putBack();
    throw StoreError(why);
  }
  // A failed sync is harmless. A power cut may bring the file back: the item is whole, and the next scan
  // finds the file.
  platform::syncFolder(folder_.get(), file_.get());
}

}  // namespace agent::store
