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

std::string stateHome() {
  const char* given = std::getenv("XDG_STATE_HOME");
  if (given != nullptr && given[0] == '/') {
    return given;
  }
  return homeOf(getuid()) + "/.local/state";
}

}  // namespace

ConstConfig::ConstConfig() : logDir_(utils::FormatDir(stateHome() + "/tavcli", true)) {
  CDir::make(logDir_.substr(0, logDir_.size() - 1), 0700);
}

ConstConfig* ConstConfig::singleInstance() {
  static ConstConfig instance;
  return &instance;
}
