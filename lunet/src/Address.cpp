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
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/Posix.h"
#include "platform/Text.h"

namespace lunet {

namespace {

using platform::Descriptor;

constexpr int kBacklog = 128;
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
/// Attempts to get a lock file that other processes replace meanwhile.
constexpr int kAttempts = 100;
/// A process that clears leftovers takes each free lock for a moment, so a held lock is tried for 100 ms.
constexpr int kLockTries = 20;
constexpr std::chrono::milliseconds kLockPause{5};

/// "PATH WHAT: errno's text".
std::string because(const std::string& path, const char* what) {
  return platform::visibleText(path) + " " + what + ": " + platform::errnoText(errno);
}

/// True while the open file still has that name. A holder that releases its lock removes the file first.
bool isNamed(int fd, const std::string& path, struct stat& st) {
  struct stat named {};
  return fstat(fd, &st) == 0 && lstat(path.c_str(), &named) == 0 && st.st_ino == named.st_ino &&
         st.st_dev == named.st_dev && S_ISREG(st.st_mode);
}

/// False when another process kept the lock for all of kLockTries.
bool lockFile(int fd) {
  for (int tries = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; ++tries) {
    if (tries == kLockTries) {
      return false;
    }
    std::this_thread::sleep_for(kLockPause);
  }
  return true;
}

/// Renames and removes a foreign file at a name of the bus. With such a file, a group member without a
/// process could block an address. A non-empty folder stays under its new name. type: of the bus's own file,
/// which stays. False, with errno, for users whom the kernel does not let rename the file.
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
  if (lstat(aside.c_str(), &st) == 0 && (st.st_mode & S_IFMT) == type) {  // made between lstat and rename
    (void)renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
  } else {
    (void)std::remove(aside.c_str());
  }
  return true;
}

/// Opens without O_CREAT first: in a sticky folder the kernel refuses O_CREAT on another user's file, to root
/// too.
Descriptor openOrMake(const std::string& path) {
  Descriptor file(open(path.c_str(), kOpenFlags));
  if (!file && errno == ENOENT) {
    file = Descriptor(open(path.c_str(), kOpenFlags | O_CREAT | O_EXCL, 0600));
  }
  return file;
}

}  // namespace

Result<void> Address::claim(const SocketFolder& folder, const Guid& guid) {
  const bool agents = guid == parseGuid(kAgentGuid);
  Result<void> claimed = lock(folder.lockPath(guid), folder.asidePath(guid), agents).and_then([&] {
    return listen(folder, guid);
  });
  if (!claimed) {
    release();
  }
  return claimed;
}

/// agents: for the agent's address. Root and the folder's owner take that address from a group member, who
/// could keep the agent from starting.
Result<void> Address::lock(const std::string& path, const std::string& aside, bool agents) {
  const std::string shown = platform::visibleText(path);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (!clearWay(path, aside, S_IFREG)) {
      return failed(kErrPath, because(path, "is no regular file and cannot be renamed"));
    }
    Descriptor file = openOrMake(path);
    const int error = file ? 0 : errno;
    if (error == ENOENT || error == EEXIST || error == ELOOP) {
      continue;  // another process was faster
    }
    const bool denied = error == EACCES;
    const bool leased = error == EWOULDBLOCK;  // by the file's user (F_SETLEASE)
    if (error != 0 && !denied && !leased) {
      return failed(kErrPath, because(path, "cannot be opened"));
    }
    struct stat st {};
    const bool held = !file || !lockFile(file.get());
    if (file ? !isNamed(file.get(), path, st) : lstat(path.c_str(), &st) != 0) {
      continue;
    }
    const bool foreign = st.st_uid != geteuid();
    if (held && !(agents && foreign && st.st_uid != 0)) {
      std::string reason = shown + (denied ? " belongs to " : " is held by a live process of ");
      reason += "user " + std::to_string(st.st_uid);
      if (denied) {
        reason += ": the address is in use, or left by a crash (then that user or root can take it)";
      }
      return failed(kErrInUse, reason);
    }
    if (!held && !foreign) {
      lock_ = std::move(file);
      lockPath_ = path;
      return {};
    }
    if (unlink(path.c_str()) != 0) {
      return failed(kErrInUse, because(path, "cannot be removed"));
    }
  }
  return failed(kErrInUse, shown + " changes hands too often");
}

Result<void> Address::listen(const SocketFolder& folder, const Guid& guid) {
  const mode_t mode = folder.group ? 0660 : 0600;
  const std::string path = folder.socketPath(guid);
  const std::string made = folder.newSocketPath(guid);
  const std::optional<sockaddr_un> address = socketAddress(made);
  if (!address) {
    return failed(kErrPath, platform::visibleText(made) + " is longer than the system allows");
  }
  Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) {
    return failed(kErrSystem, "no socket: " + platform::errnoText(errno));
  }
  (void)clearWay(made, folder.asidePath(guid), S_IFSOCK);  // unlink below reports a failure
  if (unlink(made.c_str()) != 0 && errno != ENOENT) {
    return failed(kErrPath, because(made, "is in the way"));
  }
  struct stat st {};
  // The socket gets its name when it is ready, so that no caller is refused for a moment.
  if (fchmod(fd.get(), mode) != 0 ||
      bind(fd.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0 ||
      chmod(made.c_str(), mode) != 0 || lstat(made.c_str(), &st) != 0 || ::listen(fd.get(), kBacklog) != 0) {
    return failed(kErrPath, because(made, "cannot be made"));
  }
  (void)clearWay(path, folder.asidePath(guid), S_IFSOCK);
  if (rename(made.c_str(), path.c_str()) != 0) {
    const Error error = errno == EPERM || errno == EACCES ? kErrInUse : kErrPath;
    std::string reason = because(path, "cannot be replaced");
    (void)unlink(made.c_str());
    return failed(error, std::move(reason));
  }
  listener_ = std::move(fd);
  socketPath_ = path;
  socketInode_ = st.st_ino;
  return {};
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
  const std::string_view suffix = SocketFolder::kLockSuffix;
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
