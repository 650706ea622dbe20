#include "store/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/Files.h"
#include "platform/Posix.h"
#include "store/Schema.h"

namespace agent {

using namespace store;

namespace {

/// Makes the folder if it is missing, checks that no other user can replace it, and closes it to other users.
/// Returns the path without links: the databases are opened without following any.
std::string prepareFolder(const std::string& path) {
  if (path.empty() || path.front() != '/') {
    throw StoreError("the state folder " + platform::quoted(path) + " is not an absolute path");
  }
  if (!CDir::make(path, 0700)) {
    throw StoreError("cannot make the state folder " + platform::quoted(path) + ": " +
                     platform::errnoText(errno));
  }
  const auto safe = CDir::resolveSafe(path);
  if (!safe) {
    throw StoreError("the state folder " + platform::quoted(path) + " is not safe: " + safe.error());
  }
  if (::chmod(safe->c_str(), 0700) != 0) {
    throw StoreError("cannot close the state folder " + platform::quoted(*safe) + ": " +
                     platform::errnoText(errno));
  }
  return *safe;
}

/// The single-instance lock of the store: two agents on one store would lose files.
platform::Descriptor lockFolder(const std::string& path) {
  const std::string file = path + "/agent.lock";
  platform::Descriptor fd(::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    throw StoreError("cannot open " + platform::quoted(file) + ": " + platform::errnoText(errno));
  }
  // A lock of the process: a child that outlives its agent does not keep it.
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (::fcntl(fd.get(), F_SETLK, &lock) != 0) {
    const bool taken = errno == EACCES || errno == EAGAIN;
    throw StoreError(taken ? "the store in " + platform::quoted(path) + " is in use by another agent"
                           : "cannot lock " + platform::quoted(file) + ": " + platform::errnoText(errno));
  }
  return fd;
}

std::unique_ptr<Database> openStore(const std::string& path) {
  auto database = std::make_unique<Database>(path, Durability::kFull);
  migrate(*database, storeSteps());
  return database;
}

std::unique_ptr<Database> openCacheOnce(const std::string& path) {
  auto database = std::make_unique<Database>(path, Durability::kNormal);
  migrate(*database, cacheSteps());
  return database;
}

/// A damaged cache database is made anew: its loss is no reason to refuse the start.
std::unique_ptr<Database> openCache(const std::string& path, std::vector<std::string>* notices) {
  try {
    return openCacheOnce(path);
  } catch (const StoreError& error) {
    notices->push_back(std::string(error.what()) + "; the scan cache starts anew");
  }
  for (const char* suffix : {"", "-wal", "-shm"}) {
    ::unlink((path + suffix).c_str());
  }
  return openCacheOnce(path);
}

}  // namespace

Store::Store(const std::string& stateDir, std::chrono::milliseconds restorePatience, AuditOptions audit)
    : lock_(lockFolder(stateDir)),
      database_(openStore(stateDir + "/agent.db")),
      cacheDatabase_(openCache(stateDir + "/cache.db", &notices_)),
      audit_(stateDir, std::move(audit)),
      settings_(*database_, &notices_),
      regions_(*database_),
      cache_(*cacheDatabase_),
      tasks_(*cacheDatabase_),
      workerDeaths_(*cacheDatabase_),
      quarantine_(*database_, stateDir + "/quarantine", settings_, regions_, audit_, restorePatience,
                  &notices_) {}

std::unique_ptr<Store> Store::open(const std::string& stateDir, std::chrono::milliseconds restorePatience,
                                   AuditOptions audit) {
  return std::unique_ptr<Store>(new Store(prepareFolder(stateDir), restorePatience, std::move(audit)));
}

}  // namespace agent
