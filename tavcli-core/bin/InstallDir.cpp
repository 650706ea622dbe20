#include "bin/InstallDir.h"

#include <cerrno>
#include <cstdio>
#include <optional>

#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"

namespace tavcli {

namespace {

constexpr const char* kDefaultDirectory = "/opt/apps/Korvix/";

std::string resolve() {
  std::string directory = kDefaultDirectory;
  const std::optional<std::string> current = CDir::current();
  // A change to the current folder fails when the folder cannot be entered any more.
  if (current && CDir::setCurrent(*current)) {
    directory = *current + "/../";
  } else {
    const int error = errno;
    std::printf("failed chdir to %s, %s", platform::visibleText(current.value_or("")).c_str(),
                platform::errnoText(error).c_str());
  }
  return utils::FormatDir(directory, true);
}

}  // namespace

const std::string& installDirectory() {
  static std::string directory;
  if (directory.empty()) {
    directory = resolve();
  }
  return directory;
}

}  // namespace tavcli
