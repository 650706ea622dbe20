#include "support/FileCalls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string_view>

namespace {

constexpr std::size_t kLines = 1000, kLineBytes = 300;

struct SpinLock {
  std::atomic_flag taken;
  void lock() {
    while (taken.test_and_set()) {
    }
  }
  void unlock() { taken.clear(); }
};

/// The record; lies in memory that children share.
struct Record {
  SpinLock lock;
  std::size_t count = 0;
  std::array<std::array<char, kLineBytes>, kLines> lines;
  std::array<char, kLineBytes> failBegin, failEnd;
  int failError = 0, failTimes = 0;
};

std::atomic<Record*> gRecord{nullptr};

void put(std::array<char, kLineBytes>* to, std::string_view text) {
  to->at(text.copy(to->data(), to->size() - 1)) = '\0';
}

std::string lastOf(std::string_view path) {
  return std::string(path.substr(path.rfind('/') + 1));
}

std::string nameOf(int fd) {
  std::array<char, PATH_MAX> target{};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = ::readlink(link.c_str(), target.data(), target.size());
  const std::string name = lastOf({target.data(), size < 0 ? 0 : static_cast<std::size_t>(size)});
  return name.starts_with('#') ? "nameless" : name;
}

std::string nameOf(const char* path) {
  const std::string_view text = path;
  return text.starts_with("/proc/self/fd/") ? nameOf(std::stoi(lastOf(text))) : lastOf(text);
}

bool refused(const std::string& line) {
  Record* record = gRecord;
  const std::lock_guard lock(record->lock);
  if (record->failTimes == 0 || !line.starts_with(record->failBegin.data()) ||
      !line.ends_with(record->failEnd.data())) {
    return false;
  }
  --record->failTimes;
  errno = record->failError;
  return true;
}

void note(const std::string& line) {
  Record* record = gRecord;
  const std::lock_guard lock(record->lock);
  const bool again = record->count > 0 && line == record->lines[record->count - 1].data();
  if (record->count < kLines && !(again && line.starts_with("write "))) {
    put(&record->lines[record->count++], line);
  }
}

/// lineOf: runs before the call, because the call may remove the name.
template <class LineOf, class Call>
auto observed(const LineOf& lineOf, const Call& call) -> decltype(call()) {
  if (gRecord == nullptr) {
    return call();
  }
  const std::string line = lineOf();
  if (refused(line)) {
    return -1;
  }
  const auto result = call();
  if (result >= 0) {
    note(line);
  }
  return result;
}

int observedSync(int fd, long number) {
  return observed([fd] { return "sync " + nameOf(fd); },
                  [=] { return static_cast<int>(::syscall(number, fd)); });
}

int observedRename(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) {
  return observed(
      [=] { return "rename " + nameOf(from) + " to " + nameOf(to); },
      [=] { return static_cast<int>(::syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags)); });
}

bool isNameless(int flags) {
  return (flags & O_TMPFILE) == O_TMPFILE;
}

bool takesMode(int flags) {
  return isNameless(flags) || (flags & O_CREAT) != 0;
}

int observedOpen(int folder, const char* name, int flags, mode_t mode) {
  if (gRecord != nullptr && isNameless(flags) && refused("create nameless")) {
    return -1;
  }
  const int fd = static_cast<int>(::syscall(SYS_openat, folder, name, flags, mode));
  if (gRecord != nullptr && fd >= 0 && (flags & O_CLOEXEC) == 0) {
    note("open for children " + nameOf(name));
  }
  return fd;
}

}  // namespace

// These functions stand before the C library's.
extern "C" {

int fsync(int fd) {
  return observedSync(fd, SYS_fsync);
}

int fdatasync(int fd) {
  return observedSync(fd, SYS_fdatasync);
}

int syncfs(int fd) noexcept {
  return observed([fd] { return "syncfs " + nameOf(fd); },
                  [=] { return static_cast<int>(::syscall(SYS_syncfs, fd)); });
}

int flock(int fd, int operation) noexcept {
  const auto call = [=] { return static_cast<int>(::syscall(SYS_flock, fd, operation)); };
  return (operation & LOCK_EX) == 0 ? call() : observed([fd] { return "lock " + nameOf(fd); }, call);
}

ssize_t read(int fd, void* bytes, size_t size) {
  if (gRecord != nullptr && refused("read " + nameOf(fd))) {
    return -1;
  }
  return static_cast<ssize_t>(::syscall(SYS_read, fd, bytes, size));
}

ssize_t write(int fd, const void* bytes, size_t size) {
  return observed([fd] { return "write " + nameOf(fd); },
                  [=] { return static_cast<ssize_t>(::syscall(SYS_write, fd, bytes, size)); });
}

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset) {
  return observed([fd] { return "write " + nameOf(fd); },
                  [=] { return static_cast<ssize_t>(::syscall(SYS_pwrite64, fd, bytes, size, offset)); });
}

ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t offset) {
  return pwrite(fd, bytes, size, offset);
}

int rename(const char* from, const char* to) noexcept {
  return observedRename(AT_FDCWD, from, AT_FDCWD, to, 0);
}

int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept {
  return observedRename(fromFolder, from, toFolder, to, 0);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept {
  return observedRename(fromFolder, from, toFolder, to, flags);
}

int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept {
  return observed(
      [=] { return "link " + nameOf(from) + " to " + nameOf(to); },
      [=] { return static_cast<int>(::syscall(SYS_linkat, fromFolder, from, toFolder, to, flags)); });
}

int unlinkat(int folder, const char* name, int flags) noexcept {
  return observed([=] { return "unlink " + nameOf(name); },
                  [=] { return static_cast<int>(::syscall(SYS_unlinkat, folder, name, flags)); });
}

int openat(int folder, const char* name, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = takesMode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return observedOpen(folder, name, flags, mode);
}

int open(const char* name, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = takesMode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return observedOpen(AT_FDCWD, name, flags, mode);
}

ssize_t flistxattr(int fd, char* list, size_t size) noexcept {
  if (gRecord != nullptr && refused("list attributes of " + nameOf(fd))) {
    return -1;
  }
  return static_cast<ssize_t>(::syscall(SYS_flistxattr, fd, list, size));
}

int fchmod(int fd, mode_t mode) noexcept {
  if (gRecord != nullptr && refused("set mode of " + nameOf(fd))) {
    return -1;
  }
  return static_cast<int>(::syscall(SYS_fchmod, fd, mode));
}

int futimens(int fd, const timespec* times) noexcept {
  if (gRecord != nullptr && refused("set times of " + nameOf(fd))) {
    return -1;
  }
  return static_cast<int>(::syscall(SYS_utimensat, fd, nullptr, times, 0));
}

}  // extern "C"

namespace testsupport {

FileCalls::FileCalls() {
  void* memory = ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::runtime_error("no memory for the record of file calls");
  }
  gRecord = new (memory) Record;
}

FileCalls::~FileCalls() {
  ::munmap(gRecord.exchange(nullptr), sizeof(Record));
}

std::vector<std::string> FileCalls::seen() const {
  static const std::regex kUuid("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
  Record* record = gRecord;
  const std::lock_guard lock(record->lock);
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < record->count; ++i) {
    lines.push_back(std::regex_replace(record->lines[i].data(), kUuid, "ID"));
  }
  return lines;
}

void FileCalls::fail(const std::string& begin, const std::string& end, int error, int times) {
  Record* record = gRecord;
  const std::lock_guard lock(record->lock);
  put(&record->failBegin, begin);
  put(&record->failEnd, end);
  record->failError = error;
  record->failTimes = times;
}

}  // namespace testsupport
