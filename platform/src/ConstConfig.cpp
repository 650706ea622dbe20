#include "platform/ConstConfig.h"

#include <unistd.h>

#include <cstdlib>

#include "platform/Files.h"
#include "platform/Users.h"

namespace {

/// `su` and `sudo -E` keep another user's environment for root. The other user must not choose where root
/// makes folders and writes files.
bool mayWriteBelow(const std::string& folder) {
  return CDir::resolveForFiles(CDir::nearestExisting(folder)).has_value();
}

std::string logDir() {
  const std::string name = "/tavcli";
  if (const char* given = std::getenv("XDG_STATE_HOME"); given != nullptr && given[0] == '/') {
    if (std::string folder = utils::FormatDir(given + name, false); mayWriteBelow(folder)) {
      return folder;
    }
  }
  return utils::FormatDir(platform::homeFolder(getuid()) + "/.local/state" + name, false);
}

}  // namespace

ConstConfig::ConstConfig() : logDir_(logDir()) {
  CDir::make(logDir_, 0700);
  logDir_ += "/";
}

ConstConfig* ConstConfig::singleInstance() {
  static ConstConfig instance;
  return &instance;
}
