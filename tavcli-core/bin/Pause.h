#pragma once

#include <chrono>
#include <functional>

#include "platform/Descriptor.h"

namespace tavcli {

/// The waits of an unattended run. The batch loop counts the seconds that it asks for, never a clock; tests
/// therefore wait for no time.
class IPause {
 public:
  enum class End {
    kElapsed,     ///< the time has passed
    kFinalState,  ///< announceFinalState was called
    kSignal,      ///< a signal asks the program to end
  };
  virtual ~IPause() = default;
  /// Waits for the whole time. A signal ends the wait.
  virtual End sleep(std::chrono::seconds time) = 0;
  /// The same. A final task state ends the wait, too.
  virtual End sleepUntilFinal(std::chrono::seconds time) = 0;
  /// The function is called about once a second of waiting; null: no function.
  virtual void setEverySecond(std::function<void()> look) = 0;
  /// Ends the process by the signal that ended a wait, so that a shell or a service manager sees the signal.
  /// Does nothing when no signal came.
  virtual void endBySignal() = 0;
};

/// Waits on the monotonic clock. The constructor blocks SIGTERM, SIGINT and SIGHUP for the calling thread and
/// the threads that this thread starts; an ignored signal stays ignored. Create the object before any other
/// thread. Main thread.
class SignalAwarePause : public IPause {
 public:
  SignalAwarePause();

  End sleep(std::chrono::seconds time) override { return wait(time, false); }
  End sleepUntilFinal(std::chrono::seconds time) override { return wait(time, true); }
  void setEverySecond(std::function<void()> look) override { everySecond_ = std::move(look); }
  void endBySignal() override;

 protected:
  End wait(std::chrono::milliseconds time, bool untilFinal);

 private:
  void takeSignal();

  platform::Descriptor signals_;
  int signalNumber_ = 0;  ///< the signal that ended a wait; 0 for none
  std::function<void()> everySecond_;
};

}  // namespace tavcli
