#pragma once

#include <string>

/// The constants of a user: the folder of the history.
class ConstConfig {
 public:
  static ConstConfig* singleInstance();
  /// The folder, with a separator at the end. "$XDG_STATE_HOME/tavcli/" if the variable is absolute and only
  /// root or the effective user can write there (CDir::resolveForFiles). Else ~/.local/state/tavcli/ in the
  /// home that the user database names, never $HOME. The first call creates the folder (0700) if possible.
  const std::string& getLogDir() const { return logDir_; }

 private:
  ConstConfig();
  std::string logDir_;
};
