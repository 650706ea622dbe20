#pragma once

#include <string>

/// What is the same for every run of a user: today the folder of the history.
class ConstConfig {
 public:
  static ConstConfig* singleInstance();
  /// Ends in a separator. "$XDG_STATE_HOME/tavcli/" when that is absolute and what stands of it belongs to
  /// root or the effective user and can be written by nobody else, else ~/.local/state/tavcli/ of the uid's
  /// home as the user database has it (never $HOME). Created (0700) on the first call when it can be.
  const std::string& getLogDir() const { return logDir_; }

 private:
  ConstConfig();
  std::string logDir_;
};
