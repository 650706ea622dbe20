#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "store/Store.h"

namespace agent {

/// A process, as far as a scan cares.
struct RunningProgram {
  pid_t pid = 0;
  uid_t uid = 0;
  std::uint64_t startTicks = 0;  ///< tells a re-used pid apart; 0: could not be read
  std::string name;              ///< short, as the kernel has it: any bytes
  std::string path;              ///< of its program; " (deleted)" behind it when that is gone
  bool onDisk = true;
  std::uint64_t device = 0, inode = 0;  ///< of its program
};

/// Who runs what, read from /proc. One thread.
class RunningPrograms {
 public:
  /// The processes whose program is that file. The table is read again when it is older than a second.
  std::vector<RunningProgram> running(const FileIdentity& file);
  /// Every process with a program, kernel threads left out. *error, when given, is set when they cannot be
  /// listed.
  static std::vector<RunningProgram> all(std::string* error = nullptr);

 private:
  std::multimap<std::pair<std::uint64_t, std::uint64_t>, RunningProgram> byFile_;
  std::chrono::steady_clock::time_point readAt_{};
};

/// Ends a process (SIGKILL) and waits until it is gone. Never pid 1, this process, its ancestors, or one that
/// runs this process's own program.
platform::Expected<Remark> endProcess(const RunningProgram& program);

/// Field 22 of the process's stat; 0 when there is no such process.
std::uint64_t processStartTicks(pid_t pid);

}  // namespace agent
