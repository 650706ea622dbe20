#include "platform/ConstConfig.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "platform/Files.h"

namespace {

/// As the user database has it; never $HOME, which root may have inherited from another user. Empty when
/// the user is not known.
std::string homeOf(uid_t uid) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr && found->pw_dir[0] == '/') {
    return found->pw_dir;
  }
  return {};
}

/// `su` and `sudo -E` hand root another user's environment: that user must not say where root makes folders
/// and writes, nor find root's folders among his own.
bool mayWriteBelow(const std::string& folder) {
  return !CDir::resolveForFiles(CDir::nearestExisting(folder)).empty();
}

std::string logDir() {
  const std::string name = "/tavcli";
  if (const char* given = std::getenv("XDG_STATE_HOME"); given != nullptr && given[0] == '/') {
    if (const std::string folder = utils::FormatDir(given + name, false); mayWriteBelow(folder)) {
      return folder;
    }
  }
  return utils::FormatDir(homeOf(getuid()) + "/.local/state" + name, false);
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
