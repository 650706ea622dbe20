#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "bin/CommandLine.h"
#include "bin/Pause.h"

class CGlobalTag;

namespace tavcli {

/// The functions of the rest of the program that the loop of an unattended run calls.
struct BatchHost {
  std::function<void(const char* line)> execute;          ///< passes a command line to the shell
  std::function<void(const std::string& line)> complain;  ///< one line for the user, on standard error
  std::function<std::int64_t()> infectedFiles;            ///< the agent's count so far
};

/// How an unattended run ended.
struct BatchEnd {
  int exitCode = 0;
  bool signalled = false;        ///< a signal ended the run; the exit code has no meaning
  std::int64_t secondsLeft = 0;  ///< of the timeout; negative when the last wait led below
};

inline constexpr int kExitNoMark = 3;

/// Starts the scan and watches g_lastBusState until the task ends, `options.timeoutSec` runs out, or a signal
/// arrives. Every wait costs its whole length of the timeout, even when the end of the task cuts the wait
/// short. A task that ends in the last wait counts as a timeout; the user gets a line. Main thread.
BatchEnd runBatch(const BatchOptions& options, const BatchHost& host, IPause& pause);

/// How the wait for the mark ended.
enum class MarkWait { kAcquired, kFailed, kTimedOut, kSignal };
/// Tries to get the mark every 30 seconds until the timeout runs out. tryOnce: the result of
/// CGlobalTag::trylock.
MarkWait waitForMark(int timeoutSec, const std::function<int()>& tryOnce, IPause& pause);

}  // namespace tavcli
