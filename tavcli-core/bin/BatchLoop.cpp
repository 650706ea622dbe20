#include "bin/BatchLoop.h"

#include "bin/BusState.h"
#include "platform/CGlobalTag.h"

namespace tavcli {

namespace {

constexpr std::chrono::seconds kPollStep{10};
constexpr std::chrono::seconds kRetryStep{30};
constexpr std::chrono::seconds kMarkStep{30};

/// 64 bits: the last step may lead below the range of an int.
using SecondsLeft = std::int64_t;

BatchEnd endWith(std::uint32_t finalState, SecondsLeft remaining) {
  return {finalState == kBusStateClean ? 0 : 1, false, remaining};
}

/// The line with the state of the scan: the exit code of a timeout does not show the state.
std::string timeoutLine(const BatchOptions& options, const BatchHost& host) {
  const std::string scan = "tavcli: the scan of " + options.scanPath;
  const std::string seconds = std::to_string(options.timeoutSec) + " seconds";
  const std::uint32_t state = g_lastBusState;
  if (state == kBusStateNone || state == kBusStateBusy) {
    return scan + " has not ended within " + seconds + "; it may still be running";
  }
  return scan + " was over in the last wait of the timeout of " + seconds + ": infected files " +
         std::to_string(host.infectedFiles()) + ", report " + options.logPath;
}

}  // namespace

MarkWait waitForMark(int timeoutSec, const std::function<int()>& tryOnce, IPause& pause) {
  for (SecondsLeft remaining = timeoutSec; remaining > 0; remaining -= kMarkStep.count()) {
    const int result = tryOnce();
    if (result == CGlobalTag::kAcquired) {
      return MarkWait::kAcquired;
    }
    if (result != CGlobalTag::kHeldElsewhere) {
      return MarkWait::kFailed;
    }
    if (pause.sleep(kMarkStep) == IPause::End::kSignal) {
      return MarkWait::kSignal;
    }
  }
  return MarkWait::kTimedOut;
}

BatchEnd runBatch(const BatchOptions& options, const BatchHost& host, IPause& pause) {
  const std::string command = batchCommand(options);
  host.execute(command.c_str());
  SecondsLeft remaining = options.timeoutSec;
  while (remaining > 0) {
    IPause::End end = IPause::End::kElapsed;
    std::uint32_t state = g_lastBusState;
    if (state == kBusStateNone) {
      end = pause.sleepUntilFinal(kPollStep);
      remaining -= kPollStep.count();  // the whole step, even when the task ended early
    } else if (state == kBusStateBusy) {
      if (!g_lastBusState.compare_exchange_strong(state, kBusStateNone)) {
        continue;  // a newer state has arrived
      }
      host.execute(command.c_str());
      end = pause.sleep(kRetryStep);
      remaining -= kRetryStep.count();
    } else {
      return endWith(state, remaining);
    }
    if (end == IPause::End::kSignal) {
      return {0, true};
    }
  }
  host.complain(timeoutLine(options, host));
  return {0, false};
}

}  // namespace tavcli
