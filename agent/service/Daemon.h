#pragma once

#include "platform/Descriptor.h"

namespace agent {

/// Runs the program in the background: a grandchild in a session of its own, at "/", without input, output
/// and the caller's other open files. The caller's process waits. The caller's process ends with 0 after
/// ready(), else with the exit code of the grandchild, whose errors still go to the caller's standard error.
class Daemon {
 public:
  /// Forks twice. Call while the process has one thread. Throws std::system_error.
  Daemon();
  /// Reports that the program serves.
  void ready();
  /// Reports the exit code of a program that does not serve. Does nothing after ready().
  void failed(int exitCode);

 private:
  platform::Descriptor pipe_;  // to the caller's process
};

}  // namespace agent
