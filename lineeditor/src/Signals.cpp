#include "lineeditor/Signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "Sequences.h"
#include "SignalState.h"
#include "platform/AlternateSignalStack.h"

namespace lineeditor {

namespace {

std::atomic<bool> endFlag{false};
std::atomic<bool> resizedFlag{false};
std::atomic<bool> continuedFlag{false};
std::atomic<int> wakeRead{-1};
std::atomic<int> wakeWrite{-1};

constexpr std::size_t kPasteMarksOffBytes = std::char_traits<char>::length(sequence::kPasteMarksOff);

termios savedSettings;  // fatal handlers read the settings while settingsSaved is true
std::atomic<bool> settingsSaved{false};

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void wake() {
  const int saved = errno;
  if (write(wakeWrite.load(), "", 1) < 0) {
    // the pipe is full, so the reader wakes up anyway
  }
  errno = saved;
}

void onEnd(int /*signal*/) {
  endFlag.store(true);
  wake();
}

void onResize(int /*signal*/) {
  resizedFlag.store(true);
  wake();
}

void onContinue(int /*signal*/) {
  continuedFlag.store(true);
  wake();
}

/// Restores the terminal, then raises the signal again. SA_RESETHAND has restored the default action, so the
/// signal ends the process.
void onFatal(int signal) {
  if (settingsSaved.load()) {
    tcsetattr(STDIN_FILENO, TCSANOW, &savedSettings);
    if (write(STDOUT_FILENO, sequence::kPasteMarksOff, kPasteMarksOffBytes) < 0) {
      // nothing is left to restore
    }
  }
  raise(signal);
}

/// The same for a fault of the program itself, which the kernel never ignores.
void onFault(int signal) {
  onFatal(signal);
}

struct SignalRow {
  int signal;
  void (*handler)(int);
  unsigned flags;
};

constexpr unsigned kOnce = SA_RESETHAND | SA_ONSTACK;

/// Each signal whose default action ends the process, and the signals of the terminal. The real-time signals
/// are handled like SIGUSR1.
const SignalRow kSignals[] = {
    {SIGHUP, onEnd, 0},
    {SIGTERM, onEnd, 0},
    {SIGINT, onEnd, 0},
    {SIGWINCH, onResize, SA_RESTART},
    {SIGCONT, onContinue, SA_RESTART},
    {SIGPIPE, SIG_IGN, 0},
    {SIGQUIT, onFatal, kOnce},
    {SIGABRT, onFatal, kOnce},
    {SIGALRM, onFatal, kOnce},
    {SIGVTALRM, onFatal, kOnce},
    {SIGPROF, onFatal, kOnce},
    {SIGUSR1, onFatal, kOnce},
    {SIGUSR2, onFatal, kOnce},
    {SIGIO, onFatal, kOnce},
    {SIGPWR, onFatal, kOnce},
    {SIGSTKFLT, onFatal, kOnce},
    {SIGXCPU, onFatal, kOnce},
    {SIGXFSZ, onFatal, kOnce},
    {SIGSYS, onFault, kOnce},
    {SIGTRAP, onFault, kOnce},
#ifndef TAV_SANITIZED  // the sanitizers handle these signals
    {SIGSEGV, onFault, kOnce},
    {SIGBUS, onFault, kOnce},
    {SIGILL, onFault, kOnce},
    {SIGFPE, onFault, kOnce},
#endif
};

/// A signal that was ignored when the process started stays ignored: nohup, a background job of a script.
bool staysIgnored(const SignalRow& row) {
  struct sigaction action {};
  return (row.handler == onEnd || row.handler == onFatal) && sigaction(row.signal, nullptr, &action) == 0 &&
         action.sa_handler == SIG_IGN;
}

void install(const SignalRow& row) {
  if (staysIgnored(row)) {
    return;
  }
  struct sigaction action {};
  action.sa_handler = row.handler;
  action.sa_flags = static_cast<int>(row.flags);
  sigemptyset(&action.sa_mask);
  sigaction(row.signal, &action, nullptr);
}

}  // namespace

void installSignalHandlers() {
  int ends[2];
  if (wakeRead.load() < 0 && pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
    wakeWrite.store(ends[1]);
    wakeRead.store(ends[0]);
  }
  static const platform::AlternateSignalStack stack;
  for (const SignalRow& row : kSignals) {
    install(row);
  }
  for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) {
    install({signal, onFatal, kOnce});
  }
}

bool endRequested() {
  return endFlag.load();
}

namespace signals {

int wakeDescriptor() {
  return wakeRead.load();
}

void drainWake() {
  char bytes[64];
  while (read(wakeRead.load(), bytes, sizeof bytes) > 0) {
  }
}

bool takeResized() {
  return resizedFlag.exchange(false);
}
bool takeContinued() {
  return continuedFlag.exchange(false);
}

void setSavedSettings(const termios& settings) {
  settingsSaved.store(false);
  savedSettings = settings;
  settingsSaved.store(true);
}

void clearSavedSettings() {
  settingsSaved.store(false);
}

}  // namespace signals

}  // namespace lineeditor
