#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "platform/Files.h"
#include "platform/Text.h"

namespace {

using CText = std::unique_ptr<char, decltype(&std::free)>;

std::string systemError(const std::string& what, const std::string& path, int error) {
  return what + " " + platform::visibleText(path) + ": " + std::strerror(error);
}

/// Why that one file or folder could be changed by somebody else; empty when it could not.
std::string whyWritableByOthers(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    return systemError("cannot look at", path, errno);
  }
  const std::string shown = platform::visibleText(path);
  if (st.st_uid != 0 && st.st_uid != geteuid()) {
    return shown + " belongs to user " + std::to_string(st.st_uid) + ", neither root nor the caller";
  }
  const bool stickyFolder = S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !stickyFolder) {
    return shown + " can be written by others than its owner";
  }
  return {};
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

std::string CDir::resolveSafe(const std::string& path) {
  const CText real(realpath(path.c_str(), nullptr), &std::free);
  struct stat st {};
  const bool safe = real && whyUnsafe(real.get()).empty() && stat(real.get(), &st) == 0 &&
                    S_ISDIR(st.st_mode) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return safe ? real.get() : "";
}

std::string CDir::whyUnsafe(const std::string& path) {
  const CText real(realpath(path.c_str(), nullptr), &std::free);
  if (!real) {
    return systemError("cannot resolve", path, errno);
  }
  std::string step = real.get();
  for (;;) {
    if (std::string why = whyWritableByOthers(step); !why.empty()) {
      return why;
    }
    if (step == "/") {
      return {};
    }
    const std::size_t slash = step.rfind('/');
    step = slash == 0 ? "/" : step.substr(0, slash);
  }
}
