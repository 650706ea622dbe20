#include "worker/TempFolders.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/Posix.h"

namespace agent {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMemory = "/dev/shm";
constexpr const char* kPrefix = "tavagent-";

bool isInMemory(const char* path) {
  struct statfs status {};
  return statfs(path, &status) == 0 && status.f_type == TMPFS_MAGIC;
}

platform::Descriptor openFolder(const std::string& path) {
  return platform::openQuietly(AT_FDCWD, path.c_str(), O_DIRECTORY | O_NOFOLLOW);
}

// Locks the folder of an agent that was killed: ours, and not locked. Empty for any other folder. The lock
// keeps an agent that has just made the folder from using it.
platform::Descriptor lockLeftBehind(const std::string& path) {
  platform::Descriptor folder = openFolder(path);
  struct stat status {};
  const bool leftBehind = folder && fstat(folder.get(), &status) == 0 && status.st_uid == geteuid() &&
                          flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
  return leftBehind ? std::move(folder) : platform::Descriptor();
}

std::vector<std::string> entriesBeginningWith(const std::string& parent, const std::string& beginning) {
  std::error_code error;
  std::vector<std::string> found;
  for (fs::directory_iterator entry(parent, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().starts_with(beginning)) {
      found.push_back(entry->path().string());
    }
  }
  return found;
}

void removeAll(const std::string& folder) {
  std::error_code error;  // the next agent tries again
  if (!folder.empty()) {
    fs::remove_all(folder, error);
  }
}

void removeLeftBehind(const std::string& parent) {
  for (const auto& path : entriesBeginningWith(parent, kPrefix)) {
    if (const platform::Descriptor locked = lockLeftBehind(path)) {
      removeAll(path);
    }
  }
}

// False when another agent's clean-up took the folder before it was locked.
bool lockFolder(const std::string& path, platform::Descriptor& lock) {
  lock = openFolder(path);
  struct stat held {};
  struct stat named {};
  return lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0 && fstat(lock.get(), &held) == 0 &&
         lstat(path.c_str(), &named) == 0 && held.st_ino == named.st_ino && held.st_dev == named.st_dev;
}

std::string diskParent(const std::string& wanted) {
  if (!wanted.empty()) {
    return wanted;
  }
  const char* fromEnvironment = std::getenv("TMPDIR");
  return fromEnvironment != nullptr && *fromEnvironment == '/' ? fromEnvironment : "/tmp";
}

platform::Expected<std::string> makeLocked(const std::string& parent, platform::Descriptor& lock) {
  const std::string failed = "no folder for temporary files in " + parent + ": ";
  removeLeftBehind(parent);
  for (int attempt = 0; attempt < 5; ++attempt) {
    std::string path = parent + "/" + kPrefix + "XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
      return platform::failure(failed + platform::errnoText(errno));
    }
    if (lockFolder(path, lock)) {
      return path;
    }
  }
  return platform::failure(failed + "it is taken away as soon as it is made");
}

}  // namespace

TempFolders::TempFolders(const std::string& disk) {
  if (isInMemory(kMemory)) {
    quick_ = makeLocked(kMemory, quickLock_).value_or("");
  }
  disk_ = makeLocked(diskParent(disk), diskLock_);
}

void TempFolders::remove() {
  removeAll(quick_);
  removeAll(disk_.value_or(""));
}

void TempFolders::clear() const {
  for (const std::string& folder : {quick_, disk_.value_or("")}) {
    for (const auto& path : folder.empty() ? std::vector<std::string>{} : entriesBeginningWith(folder, "")) {
      removeAll(path);
    }
  }
}

std::optional<WorkerFolders> WorkerFolders::make(const TempFolders& parents, unsigned number) {
  return make(WorkerFolders{parents.quick(), parents.disk().value_or("")}, number);
}

std::optional<WorkerFolders> WorkerFolders::make(const WorkerFolders& parents, unsigned number) {
  const auto makeBelow = [number](const std::string& parent) -> std::string {
    const std::string path = parent + "/" + std::to_string(getpid()) + "-" + std::to_string(number);
    return !parent.empty() && mkdir(path.c_str(), 0700) == 0 ? path : std::string{};
  };
  const WorkerFolders made{makeBelow(parents.quick), makeBelow(parents.disk)};
  if (made.disk.empty()) {
    made.remove();
    return std::nullopt;
  }
  return made;
}

void WorkerFolders::remove() const {
  removeAll(quick);
  removeAll(disk);
}

void WorkerFolders::removeOf(const WorkerFolders& parents, int pid) {
  for (const std::string& parent : {parents.quick, parents.disk}) {
    if (!parent.empty()) {
      for (const auto& path : entriesBeginningWith(parent, std::to_string(pid) + "-")) {
        removeAll(path);
      }
    }
  }
}

}  // namespace agent
