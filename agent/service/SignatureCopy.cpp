#include "service/SignatureCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include "engine/Digest.h"
#include "platform/Descriptor.h"
#include "platform/Files.h"
#include "platform/Posix.h"

namespace agent {
namespace {

constexpr const char* kNew = ".new";  // no ending of a signature file
constexpr std::size_t kBlockBytes = 256 * 1024;

tl::unexpected<std::string> failed(const std::string& what, int error = errno) {
  return platform::failure(what + ": " + platform::errnoText(error));
}

// The name comes from a process that reads hostile files.
bool isPlainName(const std::string& name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos && !name.ends_with(kNew);
}

class Update {
 public:
  Update(platform::Descriptor from, platform::Descriptor to, const SignatureState& loaded,
         const std::atomic<bool>& ended)
      : from_(std::move(from)), to_(std::move(to)), loaded_(loaded), ended_(ended) {}
  ~Update() {
    for (const SignatureFile* file : staged_) {
      unlinkat(to_.get(), (file->name + kNew).c_str(), 0);
    }
  }
  Update(const Update&) = delete;
  Update& operator=(const Update&) = delete;

  platform::Expected<void> run(const SignatureCopy::Limits& limits) {
    return checkSizes(limits).and_then([&] { return stageAll(); }).and_then([&] { return putInPlace(); });
  }

 private:
  platform::Expected<void> checkSizes(const SignatureCopy::Limits& limits) {
    std::uint64_t all = 0;
    std::uint64_t wanted = 0;
    for (const SignatureFile& file : loaded_.files) {
      if (!isPlainName(file.name)) {
        return platform::failure(platform::quoted(file.name) + " is no name of a signature file");
      }
      all += std::min(file.bytes, limits.mostBytes + 1);
      if (!isCurrent(file)) {
        changed_.push_back(&file);
        wanted += std::min(file.bytes, limits.mostBytes + 1);
      }
    }
    if (all > limits.mostBytes) {
      return platform::failure("the signature files are larger than " + std::to_string(limits.mostBytes) +
                               " bytes");
    }
    struct statvfs disk {};
    if (fstatvfs(to_.get(), &disk) != 0) {
      return failed("the free space cannot be told");
    }
    const std::uint64_t free = std::uint64_t{disk.f_bavail} * disk.f_frsize;
    if (!changed_.empty() && free < wanted + limits.freeBytes) {
      return platform::failure("the disk is full: " + std::to_string(wanted) + " bytes are needed, " +
                               std::to_string(limits.freeBytes) + " stay free, and " + std::to_string(free) +
                               " are there");
    }
    return {};
  }

  bool isCurrent(const SignatureFile& file) const {
    const platform::Descriptor copy = platform::openReading(to_.get(), file.name);
    return copy && digestOfFile(copy.get(), Digest::Kind::kSha256) == file.sha256;
  }

  platform::Expected<void> stageAll() {
    for (const SignatureFile* file : changed_) {
      if (const auto staged = stage(*file); !staged) {
        return platform::failure(platform::quoted(file->name) + ": " + staged.error());
      }
    }
    return {};
  }

  platform::Expected<void> stage(const SignatureFile& file) {
    const platform::Descriptor source = platform::openReading(from_.get(), file.name);
    struct stat status {};
    if (!source || fstat(source.get(), &status) != 0) {
      return failed("cannot be read");
    }
    if (!S_ISREG(status.st_mode)) {
      return platform::failure("not a regular file");
    }
    const std::string name = file.name + kNew;
    unlinkat(to_.get(), name.c_str(), 0);  // of an agent that was killed
    const platform::Descriptor copy(
        openat(to_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!copy) {
      return failed("cannot be written");
    }
    staged_.push_back(&file);
    auto copied = copyContent(source.get(), copy.get(), file);
    // The confined processes are another user's.
    if (copied && (fchmod(copy.get(), 0644) != 0 || fsync(copy.get()) != 0)) {
      return failed("cannot be written");
    }
    return copied;
  }

  platform::Expected<void> copyContent(int source, int copy, const SignatureFile& file) const {
    Digest digest(Digest::Kind::kSha256);
    std::vector<char> block(kBlockBytes);
    std::uint64_t bytes = 0;
    for (;;) {
      const std::int64_t got = platform::readFully(source, block.data(), block.size());
      if (got < 0) {
        return failed("cannot be read");
      }
      bytes += static_cast<std::uint64_t>(got);
      if (got == 0 || bytes > file.bytes) {
        break;
      }
      const auto size = static_cast<std::size_t>(got);
      digest.add(block.data(), size);
      if (const int error = platform::writeAll(copy, {block.data(), size}); error != 0) {
        return failed("cannot be written", error);
      }
      if (ended_) {
        return platform::failure("the agent is ending");
      }
    }
    if (bytes != file.bytes || digest.hex() != file.sha256) {
      return platform::failure("has changed since its load");
    }
    return {};
  }

  platform::Expected<void> putInPlace() {
    while (!staged_.empty()) {
      const std::string& name = staged_.back()->name;
      if (renameat(to_.get(), (name + kNew).c_str(), to_.get(), name.c_str()) != 0) {
        return failed(platform::quoted(name) + ": cannot be put in place");
      }
      staged_.pop_back();
    }
    removeOthers();
    const int error = platform::syncFolder(to_.get(), -1);
    return error == 0 ? platform::Expected<void>{} : failed("the folder cannot be synced", error);
  }

  void removeOthers() const {
    std::error_code error;
    const std::string folder = "/proc/self/fd/" + std::to_string(to_.get());
    std::vector<std::string> others;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
      const std::string name = entry->path().filename().string();
      const bool loaded = std::any_of(loaded_.files.begin(), loaded_.files.end(),
                                      [&](const SignatureFile& file) { return file.name == name; });
      if (!loaded && std::find(loaded_.copies.begin(), loaded_.copies.end(), name) == loaded_.copies.end()) {
        others.push_back(name);
      }
    }
    for (const std::string& name : others) {
      unlinkat(to_.get(), name.c_str(), 0);
    }
  }

  const platform::Descriptor from_, to_;
  const SignatureState& loaded_;
  const std::atomic<bool>& ended_;
  std::vector<const SignatureFile*> changed_, staged_;
};

}  // namespace

platform::Expected<void> SignatureCopy::update(const std::string& systemFolder, const SignatureState& loaded,
                                               const std::atomic<bool>& ended) const {
  CDir::make(folder_, 0755);
  const auto open = [](const std::string& folder, int flags) {
    return platform::Descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
  };
  platform::Descriptor from = open(systemFolder, 0);
  if (!from) {
    return failed(platform::quoted(systemFolder));
  }
  platform::Descriptor to = open(folder_, O_NOFOLLOW);
  if (!to) {
    return failed(platform::quoted(folder_));
  }
  return Update(std::move(from), std::move(to), loaded, ended).run(limits_);
}

}  // namespace agent
