#include "bin/Pause.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>

#include "bin/BusState.h"

namespace tavcli {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kEndingSignals[] = {SIGTERM, SIGINT, SIGHUP};

/// Without the signals that the program's caller ignores: nohup, a job in the background.
sigset_t endingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kEndingSignals) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
      sigaddset(&set, signal);
    }
  }
  return set;
}

int millisecondsUntil(Clock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1000));
}

}  // namespace

SignalAwarePause::SignalAwarePause() {
  const sigset_t set = endingSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

void SignalAwarePause::endBySignal() {
  if (signalNumber_ == 0) {
    return;
  }
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signalNumber_);
  signal(signalNumber_, SIG_DFL);
  raise(signalNumber_);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void SignalAwarePause::takeSignal() {
  signalfd_siginfo info{};
  if (read(signals_.get(), &info, sizeof info) == sizeof info) {
    signalNumber_ = static_cast<int>(info.ssi_signo);
  }
}

IPause::End SignalAwarePause::wait(std::chrono::milliseconds time, bool untilFinal) {
  const Clock::time_point end = Clock::now() + time;
  while (Clock::now() < end) {
    pollfd watched[] = {{signals_.get(), POLLIN, 0}, {untilFinal ? finalStateDescriptor() : -1, POLLIN, 0}};
    poll(watched, std::size(watched), millisecondsUntil(end));
    takeSignal();
    if (signalNumber_ != 0) {
      return End::kSignal;
    }
    if (untilFinal && takeFinalState()) {
      return End::kFinalState;
    }
    if (everySecond_) {
      everySecond_();
    }
  }
  return End::kElapsed;
}

}  // namespace tavcli
