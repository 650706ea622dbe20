#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/Expected.h"

namespace platform {

/// What /proc/PID/stat says of a process. The start time tells two processes of one number apart.
struct ProcessStat {
  std::string name;  ///< as the process chose it; any bytes
  pid_t parent = 0;
  std::uint64_t startTicks = 0;  ///< clock ticks since the machine started
};

/// Why there is no ProcessStat.
enum class NoProcessStat {
  kGone,      ///< no such process, or /proc does not show it
  kShortage,  ///< this process has no descriptor or no memory to look
};

tl::expected<ProcessStat, NoProcessStat> processStat(pid_t pid);

/// The text of a stat file. kGone when the text is none.
tl::expected<ProcessStat, NoProcessStat> parseProcessStat(const std::string& text);

}  // namespace platform
