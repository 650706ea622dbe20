#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "bin/CommandLine.h"
#include "bin/Pause.h"

class CGlobalTag;

namespace tavcli {

/// What the loop of an unattended run needs of the rest of the program.
struct BatchHost {
  std::function<void(const char* line)> execute;          ///< hands a command line to the shell
  std::function<void(const std::string& line)> complain;  ///< one line for the operator, on standard error
  std::function<std::int64_t()> infectedFiles;            ///< as the agent has counted them so far
};

/// How an unattended run ended.
struct BatchEnd {
  int exitCode = 0;
  bool signalled = false;  ///< the program was asked to end; the exit code does not count
};

inline constexpr int kExitNoMark = 3;

/// Starts the scan and watches g_lastBusState until the task is over, `options.timeoutSec` is used up, or a
/// signal comes. Each wait uses up its whole length of the timeout, also where the end of the task cuts it
/// short: a task that is over in the last wait is told to the operator, and the exit code is that of a
/// timeout. Main thread.
BatchEnd runBatch(const BatchOptions& options, const BatchHost& host, IPause& pause);

/// How the wait for the mark ended.
enum class MarkWait { kAcquired, kFailed, kTimedOut, kSignal };
/// Tries for the mark every 30 seconds as long as the timeout lasts. tryOnce: CGlobalTag::trylock's result.
MarkWait waitForMark(int timeoutSec, const std::function<int()>& tryOnce, IPause& pause);

}  // namespace tavcli
