#include "bin/CommandLine.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace tavcli {

namespace {

/// The prefix by which the SCAN command knows an unattended run.
constexpr const char* kBatchPrefix = "tav1";

int clampedNumber(const std::string& text) {
  const long number = std::strtol(text.c_str(), nullptr, 10);
  return static_cast<int>(
      std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

/// The tokeniser's idea of white space.
bool holdsWhiteSpace(const std::string& text) {
  return text.find_first_of(" \t\n\v\f\r") != std::string::npos;
}

std::string shown(const std::string& path) {
  return "\"" + platform::visibleText(path) + "\"";
}

std::string folderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

std::optional<Refusal> refuseMissing(const BatchOptions& options) {
  if (options.scanPath.empty()) {
    return Refusal{"get scanpath failed.",
                   "tavcli: -scanpath is missing or empty: name the file or folder to scan"};
  }
  if (options.logPath.empty()) {
    return Refusal{"get logpath failed.",
                   "tavcli: -logpath is missing or empty: name a new file for the report"};
  }
  return std::nullopt;
}

/// The agent has another current folder and would scan something else.
std::optional<Refusal> makeAbsolute(std::string& scanPath) {
  if (scanPath.front() == '/') {
    return std::nullopt;
  }
  const std::string relative =
      "tavcli: -scanpath " + shown(scanPath) + " is relative, and the current folder ";
  const std::optional<std::string> current = CDir::current();
  if (!current) {
    return Refusal{"", relative + "is gone: name it from / on"};
  }
  if (holdsWhiteSpace(*current)) {
    return Refusal{"", relative + shown(*current) +
                           " holds white space, which a command line cannot carry: name a folder above it, "
                           "from / on"};
  }
  scanPath = *current + "/" + scanPath;
  return std::nullopt;
}

std::optional<Refusal> refuseUnspeakable(const BatchOptions& options) {
  if (holdsWhiteSpace(options.scanPath)) {
    return Refusal{"", "tavcli: -scanpath " + shown(options.scanPath) +
                           " holds white space, which a command line cannot carry: scan a folder above it"};
  }
  if (holdsWhiteSpace(options.logPath)) {
    return Refusal{"", "tavcli: -logpath " + shown(options.logPath) +
                           " holds white space, which a command line cannot carry: name another file"};
  }
  if (batchCommand(options).size() >= kLineBufferBytes) {
    return Refusal{"", "tavcli: -scanpath and -logpath make a command line of more than " +
                           std::to_string(kLineBufferBytes - 1) +
                           " characters: scan a folder above, or write the report to a shorter path"};
  }
  return std::nullopt;
}

/// Makes and removes a file beside the report-to-be: what permissions, a read-only mount or a full disk
/// would spoil after hours is found out now. Returns 0 or an errno value.
int tryToWriteIn(const std::string& folder) {
  std::string probe = folder + "/.tavcli-XXXXXX";
  const int fd = mkostemp(probe.data(), O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  close(fd);
  return unlink(probe.c_str()) == 0 ? 0 : errno;
}

std::optional<Refusal> refuseUnwritable(const std::string& logPath) {
  struct stat entry {};
  if (lstat(logPath.c_str(), &entry) == 0) {
    return Refusal{"",
                   "tavcli: -logpath " + shown(logPath) + " is a link that leads nowhere: name a new file"};
  }
  if (errno != ENOENT) {
    return Refusal{
        "", "tavcli: -logpath " + shown(logPath) + " cannot be written: " + platform::errnoText(errno)};
  }
  if (const int error = tryToWriteIn(folderOf(logPath)); error != 0) {
    return Refusal{"", "tavcli: -logpath " + shown(logPath) + ": the folder " + shown(folderOf(logPath)) +
                           " cannot be written: " + platform::errnoText(error)};
  }
  return std::nullopt;
}

}  // namespace

BatchOptions parseCommandLine(const std::vector<std::string>& words) {
  BatchOptions options;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == "-scanpath") {
      options.scanPath = words[++i];
    } else if (words[i] == "-logpath") {
      options.logPath = words[++i];
    } else if (words[i] == "-timeout") {
      options.timeoutSec = clampedNumber(words[++i]);
    }
  }
  return options;
}

std::string batchCommand(const BatchOptions& options) {
  return "SCAN START HANDLE UPLOAD SPECIALCONFIG OFF MODE CUSTOM PATH " + options.scanPath + " LOGPATH " +
         kBatchPrefix + options.logPath;
}

std::optional<Refusal> checkBatchOptions(BatchOptions& options) {
  if (auto refusal = refuseMissing(options)) {
    return refusal;
  }
  if (!CFileInfo(options.scanPath).exists() || CFileInfo(options.logPath).exists()) {
    return Refusal{};
  }
  if (auto refusal = makeAbsolute(options.scanPath)) {
    return refusal;
  }
  if (auto refusal = refuseUnspeakable(options)) {
    return refusal;
  }
  return refuseUnwritable(options.logPath);
}

}  // namespace tavcli
