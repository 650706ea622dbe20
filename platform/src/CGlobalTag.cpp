#include "platform/CGlobalTag.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace {

using platform::Descriptor;

std::mutex gDirectoryLock;
std::string gUserDirectory;  // guarded by gDirectoryLock

std::string describe(const char* what, const std::string& path) {
  return std::string(what) + " " + platform::visibleText(path) + ": " + platform::errnoText(errno);
}

/// Makes the folder of the marks: private until the bus opens the folder to a group. The folders above are
/// readable.
platform::Expected<std::string> makeDirectory(const std::string& directory) {
  const std::size_t slash = directory.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    if (auto parent = CDir::makeSafe(directory.substr(0, slash), 0755); !parent) {
      return parent;
    }
  }
  if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return platform::failure(describe("cannot make the folder", directory));
  }
  return CDir::resolveSafe(directory);
}

/// Opens the file of the mark, never through a link. In a folder that a group may write, the group may also
/// write its pid into the mark.
Descriptor openMark(int directory, const std::string& name) {
  struct stat folder {};
  const bool shared = fstat(directory, &folder) == 0 && (folder.st_mode & S_IWGRP) != 0;
  for (int attempt = 0; attempt < 8; ++attempt) {
    // First without O_CREAT: in a sticky folder the kernel refuses O_CREAT on another user's file.
    Descriptor file(openat(directory, name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file && errno == EACCES) {
      file = Descriptor(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    }
    if (file || errno != ENOENT) {
      return file;
    }
    const mode_t mode = shared ? 0664 : 0644;
    file =
        Descriptor(openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (file) {
      (void)fchmod(file.get(), mode);
      return file;
    }
    if (errno != EEXIST) {
      return file;
    }
  }
  return Descriptor();
}

std::string valueOf(const std::string& content, const std::string& key) {
  const std::string wanted = key + "=";
  for (const std::string_view line : CStr::split(content, '\n')) {
    if (line.starts_with(wanted)) {
      return std::string(line.substr(wanted.size()));
    }
  }
  return {};
}

}  // namespace

CGlobalTag::TagConfig CGlobalTag::TagConfig::getUserConfig() {
  const std::lock_guard<std::mutex> guard(gDirectoryLock);
  if (!gUserDirectory.empty()) {
    return {gUserDirectory};
  }
  return {"/tmp/tavcli-" + std::to_string(geteuid())};
}

void CGlobalTag::TagConfig::setUserDirectory(std::string directory) {
  const std::lock_guard<std::mutex> guard(gDirectoryLock);
  gUserDirectory = std::move(directory);
}

CGlobalTag::CGlobalTag(const std::string& name, const TagConfig& config)
    : path_(utils::FormatDir(config.directory, true) + name + ".mark") {}

CGlobalTag::~CGlobalTag() {
  if (file_) {
    (void)ftruncate(file_.get(), 0);
  }
}

int CGlobalTag::trylock(bool wait) {
  constexpr int kFailed = 0;
  if (file_) {
    return kAcquired;
  }
  const std::string directory = path_.substr(0, path_.rfind('/'));
  const platform::Expected<std::string> made = makeDirectory(directory);
  lastError_ = made ? "" : made.error();
  if (!made) {
    return kFailed;
  }
  const Descriptor folder(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Descriptor file = folder ? openMark(folder.get(), path_.substr(directory.size() + 1)) : Descriptor();
  struct stat st {};
  if (!file || fstat(file.get(), &st) != 0) {
    lastError_ = describe("cannot open the mark", path_);
    return kFailed;
  }
  if (!S_ISREG(st.st_mode) || st.st_nlink != 1) {
    lastError_ = "the mark " + platform::visibleText(path_) + " is not a file of its own";
    return kFailed;
  }
  while (flock(file.get(), wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      return kHeldElsewhere;
    }
    if (errno != EINTR) {
      lastError_ = describe("cannot lock the mark", path_);
      return kFailed;
    }
  }
  file_ = std::move(file);
  (void)ftruncate(file_.get(), 0);  // removes the attributes of a crashed holder
  return kAcquired;
}

bool CGlobalTag::setAttribute(const std::string& key, const std::string& value) {
  if (!file_ || key.empty() || (key + value).find('\n') != std::string::npos) {
    return false;
  }
  const std::string line = key + "=" + value + "\n";
  return lseek(file_.get(), 0, SEEK_END) >= 0 && platform::writeAll(file_.get(), line) == 0;
}

std::string CGlobalTag::attribute(const std::string& key) const {
  return valueOf(CFile::readAll(path_).value_or(""), key);
}
