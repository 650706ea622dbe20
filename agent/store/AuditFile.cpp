#include "store/AuditFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "platform/Posix.h"

namespace agent::store {
namespace {

bool endsWithinALine(int fd, std::int64_t size) {
  char last = '\n';
  return size > 0 && ::pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

void syncFolderOf(const std::string& path, int file) {
  const std::string folder = platform::splitPath(path).folder;
  const platform::Descriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) {
    platform::syncFolder(fd.get(), file);
  }
}

}  // namespace

AuditFile::AuditFile(std::string path, const AuditKeeping& keeping)
    : path_(std::move(path)), keeping_(keeping) {
  open();
  removeOld();
}

bool AuditFile::open() {
  const int flags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  platform::Descriptor file(::open(path_.c_str(), flags, 0600));
  struct stat st {};
  if (!file || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return false;
  }
  size_ = st.st_size;
  cutLine_ = endsWithinALine(file.get(), size_);
  if (size_ == 0) {
    syncFolderOf(path_, file.get());
  }
  file_ = std::move(file);
  return true;
}

void AuditFile::append(const std::string& line) {
  writeWaiting();
  if (waiting_.size() < kMostWaiting) {
    waiting_.push_back(line + "\n");
    writeWaiting();
  } else {
    ++lost_;
  }
}

void AuditFile::writeWaiting() {
  for (; !waiting_.empty(); waiting_.pop_front()) {
    if (!write(waiting_.front())) {
      return;
    }
  }
  if (lost_ > 0 && write(std::to_string(lost_) + " lines are lost: the disk refused them\n")) {
    lost_ = 0;
  }
}

bool AuditFile::write(const std::string& line) {
  if (size_ > 0 && size_ + static_cast<std::int64_t>(line.size()) > keeping_.fileBytes) {
    rotate();
  }
  if (!file_ && !open()) {
    return false;
  }
  const std::string text = cutLine_ ? "\n" + line : line;
  if (platform::writeAll(file_.get(), text) != 0 || ::fdatasync(file_.get()) != 0) {
    (void)::ftruncate(file_.get(), size_);  // the line is written again later
    file_.reset();
    return false;
  }
  size_ += static_cast<std::int64_t>(text.size());
  cutLine_ = false;
  return true;
}

std::string AuditFile::numbered(int number) const {
  return number == 0 ? path_ : path_ + "." + std::to_string(number);
}

/// Overwrites no file, also after a rotation that ended halfway: the numbers up to the first unused one move.
void AuditFile::rotate() {
  file_.reset();
  int unused = 1;
  for (struct stat st{}; ::lstat(numbered(unused).c_str(), &st) == 0;) {
    ++unused;
  }
  for (int number = unused; number > 0; --number) {
    ::rename(numbered(number - 1).c_str(), numbered(number).c_str());
  }
  removeOld();
}

void AuditFile::removeOld() const {
  std::vector<struct stat> files;
  std::int64_t bytes = 0;
  for (struct stat st{}; ::lstat(numbered(static_cast<int>(files.size()) + 1).c_str(), &st) == 0;) {
    files.push_back(st);
    bytes += st.st_size;
  }
  const std::time_t oldest = std::time(nullptr) - std::chrono::seconds(keeping_.age).count();
  for (; !files.empty(); files.pop_back()) {
    bytes -= files.back().st_size;
    if (files.back().st_mtime >= oldest || bytes < keeping_.floorBytes) {
      return;
    }
    ::unlink(numbered(static_cast<int>(files.size())).c_str());
  }
}

}  // namespace agent::store
