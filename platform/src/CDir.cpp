#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <utility>

#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace {

using CText = std::unique_ptr<char, decltype(&std::free)>;

tl::unexpected<std::string> systemError(const std::string& what, const std::string& path, int error) {
  return platform::failure(what + " " + platform::visibleText(path) + ": " + platform::errnoText(error));
}

/// Fails when another user can change the file, folder or link.
platform::Expected<void> checkOwned(const std::string& path, const struct stat& st) {
  const std::string shown = platform::visibleText(path);
  if (st.st_uid != 0 && st.st_uid != geteuid()) {
    return platform::failure(shown + " belongs to user " + std::to_string(st.st_uid) +
                             ", neither root nor the caller");
  }
  const bool noMode = S_ISLNK(st.st_mode);  // the mode of a link has no meaning
  const bool stickyFolder = S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !noMode && !stickyFolder) {
    return platform::failure(shown + " can be written by others than its owner");
  }
  return {};
}

std::string linkTarget(const std::string& path) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  target.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return target;
}

/// Resolves a path component by component, as the kernel does, and checks each component. A check after the
/// resolution would miss the links on the way.
class Walk {
 public:
  explicit Walk(std::string path) : path_(std::move(path)) {}

  /// mayBeMissing: a missing end stays as written.
  platform::Expected<std::string> go(bool mayBeMissing) {
    const std::optional<std::string> from = path_.starts_with('/') ? "" : CDir::current();
    struct stat st {};
    if (path_.empty() || !from || lstat("/", &st) != 0) {
      return fail(path_.empty() ? ENOENT : errno);
    }
    if (const auto owned = checkOwned("/", st); !owned) {
      return platform::failure(owned.error());
    }
    take(*from + "/" + path_, true);
    for (int links = 0; !ahead_.empty();) {
      const Step step = ahead_.front();
      ahead_.pop_front();
      if (step.name == "..") {
        at_.resize(at_.empty() ? 0 : at_.rfind('/'));
        continue;
      }
      const std::string next = at_ + "/" + step.name;
      if (lstat(next.c_str(), &st) != 0) {
        const bool missing = errno == ENOENT || errno == ENOTDIR;
        return missing && mayBeMissing && step.given ? withRemaining(next) : fail(errno);
      }
      if (const auto owned = checkOwned(next, st); !owned) {
        return platform::failure(owned.error());
      }
      if (!S_ISLNK(st.st_mode)) {
        at_ = next;
      } else if (++links > kLinkLimit) {
        return fail(ELOOP);
      } else {
        follow(linkTarget(next));
      }
    }
    return at_.empty() ? "/" : at_;
  }

 private:
  struct Step {
    std::string name;
    bool given;  ///< a component of the given path, not of a link
  };
  static constexpr int kLinkLimit = 40;  // the kernel's

  void follow(const std::string& target) {
    if (target.starts_with('/')) {
      at_.clear();
    }
    take(target, false);
  }

  /// Puts the components of a path before the remaining ones.
  void take(const std::string& path, bool given) {
    std::deque<Step> steps;
    for (const std::string_view name : CStr::split(path, '/')) {
      if (name != ".") {
        steps.push_back({std::string(name), given});
      }
    }
    ahead_.insert(ahead_.begin(), steps.begin(), steps.end());
  }

  platform::Expected<std::string> withRemaining(std::string path) const {
    for (const Step& step : ahead_) {
      if (step.name == "..") {
        return fail(ENOENT);
      }
      path += "/" + step.name;
    }
    return path;
  }

  platform::Expected<std::string> fail(int error) const {
    return systemError("cannot resolve", path_, error);
  }

  const std::string path_;
  std::string at_;  ///< the resolved part; empty: /
  std::deque<Step> ahead_;
};

/// Makes the folders of a resolved path one by one. In a sticky folder another user may have planted a link:
/// each folder is checked before anything is made in it.
platform::Expected<void> makeOneByOne(const std::string& path, mode_t mode) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string step = path.substr(0, end);
    struct stat st {};
    if ((mkdir(step.c_str(), mode) != 0 && errno != EEXIST) || lstat(step.c_str(), &st) != 0) {
      return systemError("cannot make the folder", step, errno);
    }
    if (auto owned = checkOwned(step, st); !owned) {
      return owned;
    }
    if (!S_ISDIR(st.st_mode)) {
      return systemError("cannot make the folder", step, ENOTDIR);
    }
    if (end == std::string::npos) {
      return {};
    }
  }
}

}  // namespace

std::optional<std::string> CDir::current() {
  const CText text(getcwd(nullptr, 0), &std::free);
  if (!text) {
    return std::nullopt;
  }
  return std::string(text.get());
}

bool CDir::setCurrent(const std::string& path) {
  return chdir(path.c_str()) == 0;
}

bool CDir::make(const std::string& path, std::uint32_t mode) {
  for (std::size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
    if (mkdir(path.substr(0, end).c_str(), mode) != 0 && errno != EEXIST) {
      return false;
    }
  }
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
    return false;
  }
  return CFileInfo(path).isDir();
}

std::string CDir::nearestExisting(const std::string& path) {
  std::filesystem::path step = path;
  std::error_code error;
  while (step.has_relative_path() && !std::filesystem::exists(std::filesystem::symlink_status(step, error))) {
    step = step.parent_path();
  }
  return step.string();
}

platform::Expected<std::string> CDir::resolveSafe(const std::string& path) {
  return Walk(path).go(false);
}

platform::Expected<std::string> CDir::resolveForMaking(const std::string& path) {
  return Walk(path).go(true);
}

platform::Expected<std::string> CDir::makeSafe(const std::string& path, std::uint32_t mode) {
  return resolveForMaking(path).and_then(
      [mode](const std::string& real) { return makeOneByOne(real, mode).map([&real] { return real; }); });
}

platform::Expected<std::string> CDir::resolveForFiles(const std::string& path) {
  auto real = resolveSafe(path);
  struct stat st {};
  if (!real ||
      (stat(real->c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0)) {
    return real;
  }
  return platform::failure(platform::visibleText(*real) + (S_ISDIR(st.st_mode)
                                                               ? " can be written by others than its owner"
                                                               : " is no folder"));
}

platform::Expected<std::string> CDir::makeForFiles(const std::string& path, std::uint32_t mode) {
  return makeSafe(path, mode).and_then(resolveForFiles);
}
