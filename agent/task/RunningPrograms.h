#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/Expected.h"
#include "store/StoreTypes.h"

namespace agent {

/// A process and its program.
struct RunningProgram {
  pid_t pid = 0;
  uid_t uid = 0;
  std::uint64_t startTicks = 0;  ///< differs for a re-used pid; 0: could not be read
  std::string name;              ///< the kernel's short name: any bytes
  std::string path;  ///< of the program; ends in " (deleted)" when the program is gone; /proc/<pid>/exe when
                     ///< the kernel cannot say so long a path
  bool onDisk = true;
  std::uint64_t device = 0, inode = 0;  ///< of the program
};

/// The running processes by program, read from /proc. One thread.
class RunningPrograms {
 public:
  /// The processes that run the file. Reads /proc again when the last reading is older than a second.
  std::vector<RunningProgram> running(const FileIdentity& file);
  /// Every process with a program; kernel threads have none.
  static platform::Expected<std::vector<RunningProgram>> all();

 private:
  std::multimap<std::pair<std::uint64_t, std::uint64_t>, RunningProgram> byFile_;
  std::chrono::steady_clock::time_point readAt_{};
};

/// Ends a process (SIGKILL) and waits until the process is gone. Refuses pid 1, this process, its ancestors,
/// and processes that run this process's own program.
platform::Expected<Remark> endProcess(const RunningProgram& program);

}  // namespace agent
