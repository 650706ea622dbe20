#include "store/Vault.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "store/Sqlite.h"

namespace agent::store {
namespace {

constexpr const char* kPart = ".part";
constexpr const char* kItem = ".item";
constexpr const char* kGone = ".gone";

}  // namespace

Vault::Vault(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    throw StoreError("cannot make " + platform::quoted(path) + ": " + platform::errnoText(errno));
  }
  folder_.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder_ || ::fchmod(folder_.get(), 0700) != 0) {
    throw StoreError("cannot open " + platform::quoted(path) + ": " + platform::errnoText(errno));
  }
}

platform::Descriptor Vault::create(const std::string& uuid) const {
  platform::Descriptor file(::openat(folder_.get(), (uuid + kPart).c_str(),
                                     O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) {
    throw StoreError("cannot write into the quarantine: " + platform::errnoText(errno));
  }
  return file;
}

platform::Descriptor Vault::open(const std::string& uuid) const {
  const auto tryOpen = [&](const char* ending) {
    return platform::Descriptor(
        ::openat(folder_.get(), (uuid + ending).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  };
  platform::Descriptor file = tryOpen(kItem);
  if (!file && errno == ENOENT && (file = tryOpen(kPart))) {
    name(uuid);
  }
  if (!file) {
    throw StoreError(errno == ENOENT
                         ? "its file in the quarantine is missing"
                         : "its file in the quarantine cannot be opened: " + platform::errnoText(errno));
  }
  return file;
}

void Vault::rename(const std::string& from, const std::string& to) const {
  if (::renameat(folder_.get(), from.c_str(), folder_.get(), to.c_str()) != 0 ||
      ::fsync(folder_.get()) != 0) {
    throw StoreError("cannot rename in the quarantine: " + platform::errnoText(errno));
  }
}

void Vault::name(const std::string& uuid) const {
  rename(uuid + kPart, uuid + kItem);
}

bool Vault::isWhole(const std::string& uuid) const {
  return ::faccessat(folder_.get(), (uuid + kItem).c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

void Vault::setBusy(bool busy) const noexcept {
  ::flock(folder_.get(), busy ? LOCK_SH : LOCK_UN);
}

bool Vault::waitIdle(std::chrono::milliseconds limit) const {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (::flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::flock(folder_.get(), LOCK_UN);
  return true;
}

void Vault::markGone(const std::string& uuid) const {
  rename(uuid + kItem, uuid + kGone);
}

void Vault::revive(const std::string& uuid) const {
  rename(uuid + kGone, uuid + kItem);
}

void Vault::discardPart(const std::string& uuid) const noexcept {
  ::unlinkat(folder_.get(), (uuid + kPart).c_str(), 0);
}

void Vault::discardGone(const std::string& uuid) const noexcept {
  ::unlinkat(folder_.get(), (uuid + kGone).c_str(), 0);
}

std::vector<Vault::File> Vault::files() const {
  platform::Descriptor again(::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(again ? ::fdopendir(again.get()) : nullptr, ::closedir);
  if (!folder) {
    throw StoreError("cannot read the quarantine's folder: " + platform::errnoText(errno));
  }
  again.release();
  std::vector<File> files;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string name = static_cast<const char*>(entry->d_name);
    for (const auto& [ending, kind] : {std::pair{std::string_view(kPart), File::Kind::kPart},
                                       std::pair{std::string_view(kItem), File::Kind::kItem},
                                       std::pair{std::string_view(kGone), File::Kind::kGone}}) {
      if (name.size() > ending.size() && name.ends_with(ending)) {
        files.push_back({name.substr(0, name.size() - ending.size()), kind});
      }
    }
  }
  return files;
}

}  // namespace agent::store
