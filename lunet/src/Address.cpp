#include "Address.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

#include "platform/Posix.h"
#include "platform/Text.h"

namespace lunet {

namespace {

using platform::Descriptor;

constexpr int kBacklog = 128;
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
/// How often what stands in the way, or changes hands, is dealt with before that is given up.
constexpr int kAttempts = 100;
/// Who clears leftovers has each free lock for a moment: one that is held is tried for 100 ms.
constexpr int kLockTries = 20;
constexpr std::chrono::milliseconds kLockPause{5};

std::string because(const std::string& path, const char* what) {
  return platform::visibleText(path) + " " + what + ": " + platform::errnoText(errno);
}

/// Still the file of that name: a holder that gives its lock back removes the file first.
bool isNamed(int fd, const std::string& path, struct stat& st) {
  struct stat named {};
  return fstat(fd, &st) == 0 && lstat(path.c_str(), &named) == 0 && st.st_ino == named.st_ino &&
         st.st_dev == named.st_dev && S_ISREG(st.st_mode);
}

/// False when it stayed locked by another for all of kLockTries.
bool lockFile(int fd) {
  for (int tries = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; ++tries) {
    if (tries == kLockTries) {
      return false;
    }
    std::this_thread::sleep_for(kLockPause);
  }
  return true;
}

/// Something may stand at a name that the bus does not put there: a member of the group could keep an address
/// from everybody that way, without a process. It is renamed and removed; a folder that holds something stays
/// under its new name. Who may rename it, says the kernel: root, the folder's owner and its own user. False
/// for others (errno). `type`: what belongs there and is left.
bool clearWay(const std::string& path, const std::string& aside, mode_t type) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    return errno == ENOENT;
  }
  if ((st.st_mode & S_IFMT) == type) {
    return true;
  }
  if (rename(path.c_str(), aside.c_str()) != 0) {
    return errno == ENOENT;
  }
  if (lstat(aside.c_str(), &st) == 0 && (st.st_mode & S_IFMT) == type) {  // it came between look and rename
    (void)renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
  } else {
    (void)std::remove(aside.c_str());
  }
  return true;
}

/// First without O_CREAT: in a sticky folder the kernel refuses O_CREAT on another user's file, to root too.
Descriptor openOrMake(const std::string& path) {
  Descriptor file(open(path.c_str(), kOpenFlags));
  if (!file && errno == ENOENT) {
    file = Descriptor(open(path.c_str(), kOpenFlags | O_CREAT | O_EXCL, 0600));
  }
  return file;
}

std::string ownerOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? "user " + std::to_string(st.st_uid) : "another user";
}

}  // namespace

Error Address::claim(const SocketFolder& folder, const Guid& guid, std::string* why) {
  const bool agents = guid == parseGuid(kAgentGuid);
  Error error = lock(folder.lockPath(guid), folder.asidePath(guid), agents, why);
  if (error == kOk) {
    error = listen(folder, guid, why);
  }
  if (error != kOk) {
    release();
  }
  return error;
}

/// agents: the agent's address, which root and the folder's owner take from a mere member: nobody would
/// talk to him there, and he must not be able to keep the agent from starting.
Error Address::lock(const std::string& path, const std::string& aside, bool agents, std::string* why) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (!clearWay(path, aside, S_IFREG)) {
      *why = because(path, "is no regular file and cannot be renamed");
      return kErrPath;
    }
    Descriptor file = openOrMake(path);
    if (!file && (errno == ENOENT || errno == EEXIST || errno == ELOOP)) {
      continue;  // another was faster
    }
    if (!file && errno == EACCES) {
      *why = platform::visibleText(path) + " belongs to " + ownerOf(path) +
             ": the address is in use, or left by a crash (then that user or root can take it)";
      return kErrInUse;
    }
    if (!file) {
      *why = because(path, "cannot be opened");
      return kErrPath;
    }
    struct stat st {};
    const bool held = !lockFile(file.get());
    if (!isNamed(file.get(), path, st)) {
      continue;
    }
    const bool foreign = st.st_uid != geteuid();
    if (held && !(agents && foreign && st.st_uid != 0)) {
      *why = platform::visibleText(path) + " is held by a live process of user " + std::to_string(st.st_uid);
      return kErrInUse;
    }
    if (!held && !foreign) {
      lock_ = std::move(file);
      lockPath_ = path;
      return kOk;
    }
    if (unlink(path.c_str()) != 0) {
      *why = because(path, "cannot be removed");
      return kErrInUse;
    }
  }
  *why = platform::visibleText(path) + " changes hands too often";
  return kErrInUse;
}

Error Address::listen(const SocketFolder& folder, const Guid& guid, std::string* why) {
  const mode_t mode = folder.group ? 0660 : 0600;
  const std::string path = folder.socketPath(guid);
  const std::string made = folder.newSocketPath(guid);
  const std::optional<sockaddr_un> address = socketAddress(made);
  if (!address) {
    *why = platform::visibleText(made) + " is longer than the system allows";
    return kErrPath;
  }
  Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) {
    *why = std::string("no socket: ") + platform::errnoText(errno);
    return kErrSystem;
  }
  (void)clearWay(made, folder.asidePath(guid), S_IFSOCK);  // what cannot be cleared shows below
  if (unlink(made.c_str()) != 0 && errno != ENOENT) {
    *why = because(made, "is in the way");
    return kErrPath;
  }
  struct stat st {};
  // Ready to be used before it has its name: nobody finds a socket that refuses him for a moment.
  if (fchmod(fd.get(), mode) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0 ||
      chmod(made.c_str(), mode) != 0 || lstat(made.c_str(), &st) != 0 || ::listen(fd.get(), kBacklog) != 0) {
    *why = because(made, "cannot be made");
    return kErrPath;
  }
  (void)clearWay(path, folder.asidePath(guid), S_IFSOCK);
  if (rename(made.c_str(), path.c_str()) != 0) {
    *why = because(path, "cannot be replaced");
    (void)unlink(made.c_str());
    return errno == EPERM || errno == EACCES ? kErrInUse : kErrPath;
  }
  listener_ = std::move(fd);
  socketPath_ = path;
  socketInode_ = st.st_ino;
  return kOk;
}

void Address::hide() {
  struct stat st {};
  if (listener_ && lstat(socketPath_.c_str(), &st) == 0 && st.st_ino == socketInode_) {
    (void)unlink(socketPath_.c_str());
  }
}

void Address::release() {
  struct stat st {};
  hide();
  listener_.reset();
  if (lock_ && isNamed(lock_.get(), lockPath_, st)) {
    (void)unlink(lockPath_.c_str());
  }
  lock_.reset();
}

void clearLeftovers(const SocketFolder& folder) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.path.c_str()), &closedir);
  const std::string_view suffix = kLockSuffix;
  while (const dirent* entry = entries ? readdir(entries.get()) : nullptr) {
    const std::string_view name = entry->d_name;
    if (!name.ends_with(suffix)) {
      continue;
    }
    const std::string stem(name.substr(0, name.size() - suffix.size()));
    const Guid guid = parseGuid(stem.c_str());
    if (formatGuid(guid) != stem) {
      continue;
    }
    const std::string path = folder.lockPath(guid);
    const Descriptor file(open(path.c_str(), kOpenFlags));
    struct stat st {};
    if (file && flock(file.get(), LOCK_EX | LOCK_NB) == 0 && isNamed(file.get(), path, st)) {
      (void)unlink(folder.socketPath(guid).c_str());
      (void)unlink(path.c_str());
    }
  }
}

}  // namespace lunet
