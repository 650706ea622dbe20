#include "RealTerminal.h"

#include <poll.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "SignalState.h"
#include "lineeditor/Signals.h"

namespace lineeditor {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kBurst = std::chrono::microseconds(500);

const char* const kDumbTerminals[] = {"dumb", "cons25", "emacs"};

/// The timeout for poll(): the milliseconds left until the end, or kForever.
int remainingMs(int waitMs, Clock::time_point end) {
  if (waitMs < 0) {
    return kForever;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

bool RealTerminal::inputIsTerminal() const {
  return isatty(STDIN_FILENO) == 1;
}

bool RealTerminal::usable() const {
  if (!inputIsTerminal()) {
    return false;
  }
  if (const char* name = std::getenv("TERM"); name != nullptr) {
    for (const char* dumb : kDumbTerminals) {
      if (strcasecmp(name, dumb) == 0) {
        return false;
      }
    }
  }
  return true;
}

/// Asks the terminal each time, in less than a microsecond. A terminal that is not the controlling terminal
/// changes its size without a signal.
TerminalSize RealTerminal::size() const {
  winsize window{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0) {
    return {};
  }
  TerminalSize size;
  size.rows = window.ws_row < 2 ? size.rows : window.ws_row;
  size.cols = window.ws_col < 2 ? size.cols : window.ws_col;
  return size;
}

/// True when a byte or the end of input can be read. Otherwise, other holds the event that came instead.
bool RealTerminal::waitForInput(int waitMs, Input& other) {
  const auto end = Clock::now() + std::chrono::milliseconds(waitMs > 0 ? waitMs : 0);
  while (true) {
    if (endRequested() || inputEnded_ || outputEnded_.load()) {
      other = {InputKind::kEnd};
      return false;
    }
    if (signals::takeContinued() && raw_) {
      reenterRawMode();
      other = {InputKind::kResized};
      return false;
    }
    if (signals::takeResized()) {
      other = {InputKind::kResized};
      return false;
    }
    pollfd watched[2] = {{STDIN_FILENO, POLLIN, 0}, {signals::wakeDescriptor(), POLLIN, 0}};
    const int ready = poll(watched, 2, remainingMs(waitMs, end));
    if (ready == 0) {
      other = {InputKind::kTimeout};
      return false;
    }
    if (ready > 0 && watched[1].revents != 0) {
      signals::drainWake();
    } else if (ready > 0) {
      return true;
    }
  }
}

Input RealTerminal::read(int waitMs) {
  while (true) {
    Input input{InputKind::kByte};
    if (!waitForInput(waitMs, input)) {
      return input;
    }
    const ssize_t count = ::read(STDIN_FILENO, &input.byte, 1);
    if (count == 1) {
      const auto now = Clock::now();
      inBurst_ = now - lastByteAt_ < kBurst;
      lastByteAt_ = now;
      return input;
    }
    if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
      inputEnded_ = true;
    }
  }
}

bool RealTerminal::pending() {
  pollfd watched = {STDIN_FILENO, POLLIN, 0};
  return poll(&watched, 1, 0) == 1 && (watched.revents & POLLIN) != 0;
}

void RealTerminal::write(std::string_view bytes) {
  const bool written = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size();
  if (std::fflush(stdout) != 0 || !written) {
    outputEnded_.store(true);
  }
}

void RealTerminal::print(std::string_view text) {
  if (!text.empty()) {
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
}

void RealTerminal::enterRawMode() {
  if (raw_) {
    return;
  }
  signals::takeContinued();  // the settings are read below, after any stop so far
  if (tcgetattr(STDIN_FILENO, &saved_) != 0) {
    std::perror("tcsetattr");
    return;
  }
  setRaw();
}

/// Another program may have changed the settings while this process was stopped. Settings with canonical
/// input are those of a shell for its jobs, and become the saved settings. Other settings belong to an
/// editor.
void RealTerminal::reenterRawMode() {
  termios now{};
  if (tcgetattr(STDIN_FILENO, &now) == 0 && (now.c_lflag & ICANON) != 0 &&
      tcgetpgrp(STDIN_FILENO) == getpgrp()) {
    saved_ = now;
  }
  setRaw();
}

void RealTerminal::setRaw() {
  signals::setSavedSettings(saved_);
  termios raw = saved_;
  raw.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO);
  raw.c_iflag &= ~static_cast<tcflag_t>(IXON);  // otherwise Ctrl-S would stop the terminal
  raw.c_cc[VMIN] = 1;
  raw.c_cc[VTIME] = 0;
  if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0) {
    std::perror("tcsetattr");
  }
  raw_ = true;
}

void RealTerminal::leaveRawMode() {
  if (!raw_) {
    return;
  }
  raw_ = false;
  while (tcsetattr(STDIN_FILENO, TCSADRAIN, &saved_) != 0) {
    if (errno != EINTR) {
      if (errno != EIO) {  // a terminal that hung up has no settings to restore
        std::perror("tcsetattr");
      }
      break;
    }
  }
  signals::clearSavedSettings();
}

bool RealTerminal::runClear() {
  return std::system("clear") == 0;
}

}  // namespace lineeditor
