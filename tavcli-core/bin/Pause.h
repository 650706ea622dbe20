#pragma once

#include <chrono>
#include <functional>

namespace tavcli {

/// How an unattended run waits. The loop counts in the seconds that it asks for; what passes on a clock is
/// the implementation's affair.
class IPause {
 public:
  enum class End {
    kElapsed,     ///< the time is up
    kFinalState,  ///< announceFinalState was called
    kSignal,      ///< the program is asked to end
  };
  virtual ~IPause() = default;
  /// Waits for the whole time, unless a signal ends it.
  virtual End sleep(std::chrono::seconds time) = 0;
  /// The same, but a final task state ends it too.
  virtual End sleepUntilFinal(std::chrono::seconds time) = 0;
  /// Called about once a second of waiting; null: nothing is.
  virtual void setEverySecond(std::function<void()> look) = 0;
  /// Ends the process as the signal that ended a wait does where nobody catches it, so that a shell or a
  /// service manager sees it. Does nothing when there was none.
  virtual void endBySignal() = 0;
};

/// Waits for real, on the monotonic clock. From its making to the end of the process SIGTERM, SIGINT and
/// SIGHUP are held back for it (one that was ignored stays ignored), in this thread and those that it starts:
/// make it before the first other thread. Main thread.
class SignalAwarePause : public IPause {
 public:
  SignalAwarePause();
  ~SignalAwarePause() override;
  SignalAwarePause(const SignalAwarePause&) = delete;
  SignalAwarePause& operator=(const SignalAwarePause&) = delete;

  End sleep(std::chrono::seconds time) override { return wait(time, false); }
  End sleepUntilFinal(std::chrono::seconds time) override { return wait(time, true); }
  void setEverySecond(std::function<void()> look) override { everySecond_ = std::move(look); }
  void endBySignal() override;

 protected:
  End wait(std::chrono::milliseconds time, bool untilFinal);

 private:
  void takeSignal();

  int signals_ = -1;
  int signalNumber_ = 0;  ///< the signal that ended a wait; 0 for none
  std::function<void()> everySecond_;
};

}  // namespace tavcli
