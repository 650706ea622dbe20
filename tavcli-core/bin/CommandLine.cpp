#include "bin/CommandLine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <optional>

#include "platform/Descriptor.h"
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

/// White space as the shell's tokeniser knows it.
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

using Check = tl::expected<void, Refusal>;

tl::unexpected<Refusal> refuse(const std::string& err, const std::string& out = "") {
  return tl::unexpected<Refusal>(Refusal{out, err.empty() ? "" : "tavcli: " + err});
}

Check checkGiven(const BatchOptions& options) {
  if (options.scanPath.empty()) {
    return refuse("-scanpath is missing or empty: name the file or folder to scan", "get scanpath failed.");
  }
  if (options.logPath.empty()) {
    return refuse("-logpath is missing or empty: name a new file for the report", "get logpath failed.");
  }
  return {};
}

Check checkExistence(const BatchOptions& options) {
  if (!CFileInfo(options.scanPath).exists() || CFileInfo(options.logPath).exists()) {
    return refuse("");
  }
  return {};
}

/// The agent would look for a relative path in its own current folder.
Check makeAbsolute(std::string& scanPath) {
  if (scanPath.front() == '/') {
    return {};
  }
  const std::string relative = "-scanpath " + shown(scanPath) + " is relative, and the current folder ";
  const std::optional<std::string> current = CDir::current();
  if (!current) {
    return refuse(relative + "is gone: name it from / on");
  }
  if (holdsWhiteSpace(*current)) {
    return refuse(relative + shown(*current) +
                  " holds white space, which a command line cannot carry: name a folder above it, from / on");
  }
  scanPath = *current + "/" + scanPath;
  return {};
}

/// The options become a command line, and a command line has no quoting.
Check checkCommandLine(const BatchOptions& options) {
  if (holdsWhiteSpace(options.scanPath)) {
    return refuse("-scanpath " + shown(options.scanPath) +
                  " holds white space, which a command line cannot carry: scan a folder above it");
  }
  if (holdsWhiteSpace(options.logPath)) {
    return refuse("-logpath " + shown(options.logPath) +
                  " holds white space, which a command line cannot carry: name another file");
  }
  if (batchCommand(options).size() >= kLineBufferBytes) {
    return refuse("-scanpath and -logpath make a command line of more than " +
                  std::to_string(kLineBufferBytes - 1) +
                  " characters: scan a folder above, or write the report to a shorter path");
  }
  return {};
}

/// Makes and removes a file in the folder of the report. Missing rights, a read-only mount and a full disk
/// are found before the scan, not hours later.
platform::Expected<void> tryToWriteIn(const std::string& folder) {
  std::string probe = folder + "/.tavcli-XXXXXX";
  const platform::Descriptor file(mkostemp(probe.data(), O_CLOEXEC));
  if (!file || unlink(probe.c_str()) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  return {};
}

Check checkWritable(const std::string& logPath) {
  const std::string named = "-logpath " + shown(logPath);
  struct stat entry {};
  if (lstat(logPath.c_str(), &entry) == 0) {
    return refuse(named + " is a link that leads nowhere: name a new file");
  }
  if (errno != ENOENT) {
    return refuse(named + " cannot be written: " + platform::errnoText(errno));
  }
  const std::string folder = folderOf(logPath);
  if (const auto written = tryToWriteIn(folder); !written) {
    return refuse(named + ": the folder " + shown(folder) + " cannot be written: " + written.error());
  }
  return {};
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

tl::expected<BatchOptions, Refusal> checkBatchOptions(BatchOptions options) {
  return checkGiven(options)
      .and_then([&] { return checkExistence(options); })
      .and_then([&] { return makeAbsolute(options.scanPath); })
      .and_then([&] { return checkCommandLine(options); })
      .and_then([&] { return checkWritable(options.logPath); })
      .map([&] { return options; });
}

}  // namespace tavcli
