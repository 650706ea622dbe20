#pragma once

#include <string>

namespace agent {

/// Tells whoever started the program that the agent serves, or why it does not.
class Readiness {
 public:
  virtual ~Readiness() = default;
  virtual void ready() = 0;
};

/// Leaves the terminal and the caller behind: from here on the code runs in a grandchild in a session of its
/// own, at "/", without input or output and whatever else the caller had open. The caller's process waits and
/// ends with 0 once ready() is called, else with the exit code of the grandchild, whose errors still go to
/// the caller's standard error.
class Daemon : public Readiness {
 public:
  /// Forks twice. Call while the process has one thread. Throws std::system_error.
  Daemon();
  ~Daemon() override;
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  void ready() override;
  /// Says what the process is about to end with; not after ready().
  void failed(int exitCode);

 private:
  int pipe_ = -1;
};

}  // namespace agent
