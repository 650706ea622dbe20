#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/Expected.h"

namespace platform {

/// The part of /proc/PID/stat that is used. The start time distinguishes two processes with one pid.
struct ProcessStat {
  std::string name;  ///< chosen by the process; any bytes
  pid_t parent = 0;
  std::uint64_t startTicks = 0;  ///< clock ticks since the machine started
};

/// The reason why a ProcessStat is missing.
enum class NoProcessStat {
  kGone,      ///< no such process, or /proc does not show it
  kShortage,  ///< this process lacks a descriptor or memory for reading
};

tl::expected<ProcessStat, NoProcessStat> processStat(pid_t pid);

/// Parses the text of a stat file. kGone for another text.
tl::expected<ProcessStat, NoProcessStat> parseProcessStat(const std::string& text);

}  // namespace platform
