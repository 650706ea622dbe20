#include "support/Pty.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "support/Command.h"

namespace testsupport {

namespace {

/// Allocates nothing: see Command.
[[noreturn]] void runChild(Command& command, const std::string& workingDir, int slave) {
  setsid();
  ioctl(slave, TIOCSCTTY, 0);
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    dup2(slave, descriptor);
  }
  if (!workingDir.empty() && chdir(workingDir.c_str()) != 0) {
    _exit(126);
  }
  command.exec();
}

}  // namespace

PtyProgram::PtyProgram(std::vector<std::string> words, Options options)
    : screen_(options.rows, options.cols) {
  winsize window{};
  window.ws_row = static_cast<unsigned short>(options.rows);
  window.ws_col = static_cast<unsigned short>(options.cols);
  if (openpty(&master_, &slave_, nullptr, nullptr, &window) != 0) {
    throw std::runtime_error("openpty failed");
  }
  fcntl(master_, F_SETFD, FD_CLOEXEC);
  fcntl(slave_, F_SETFD, FD_CLOEXEC);
  settingsAtStart_ = settings();
  sttyTextAtStart_ = sttyText();
  options.environment.emplace("TERM", "xterm-256color");
  for (const char* name : kRewrapVariables) {
    options.environment.emplace(name, "");
  }
  Command command(std::move(words), options.environment);
  pid_ = fork();
  if (pid_ < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    runChild(command, options.workingDir, slave_);
  }
}

PtyProgram::~PtyProgram() {
  if (running()) {
    kill(SIGKILL);
    closeTerminal();
    wait();
  }
  closeTerminal();
}

void PtyProgram::type(std::string_view bytes) {
  while (!bytes.empty()) {
    takeOutput(0);  // a program that waits for its output to be read reads no input
    pollfd watched = {master_, POLLOUT, 0};
    if (poll(&watched, 1, 10) != 1 || (watched.revents & POLLOUT) == 0) {
      continue;
    }
    const ssize_t count = write(master_, bytes.data(), std::min<std::size_t>(bytes.size(), 512));
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
      return;
    }
    bytes.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
  }
}

bool PtyProgram::takeOutput(int waitMs) {
  pollfd watched = {master_, POLLIN, 0};
  if (master_ < 0 || poll(&watched, 1, waitMs) != 1 || (watched.revents & POLLIN) == 0) {
    return false;
  }
  char bytes[4096];
  const ssize_t count = read(master_, bytes, sizeof bytes);
  if (count <= 0) {
    return false;
  }
  const std::string_view got(bytes, static_cast<std::size_t>(count));
  written_ += got;
  screen_.write(got);
  const std::string answers = screen_.takeAnswers();
  return answers.empty() || write(master_, answers.data(), answers.size()) > 0;
}

bool PtyProgram::waitUntil(const std::function<bool(const TerminalScreen&)>& condition,
                           std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition(screen_)) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    takeOutput(5);
  }
  return true;
}

bool PtyProgram::waitForText(std::string_view text, std::chrono::milliseconds limit) {
  return waitUntil([&](const TerminalScreen& screen) { return screen.contains(text); }, limit);
}

bool PtyProgram::waitForPrompt(std::string_view row, std::chrono::milliseconds limit) {
  std::string_view trimmed = row;
  while (trimmed.ends_with(' ')) {
    trimmed.remove_suffix(1);
  }
  return waitUntil([&](const TerminalScreen& screen) { return screen.row(screen.cursorRow()) == trimmed; },
                   limit);
}

void PtyProgram::resize(int rows, int cols) {
  while (takeOutput(0)) {
  }
  screen_.resize(rows, cols);
  reportSize(rows, cols);
}

void PtyProgram::reportSize(int rows, int cols) {
  winsize window{};
  window.ws_row = static_cast<unsigned short>(rows);
  window.ws_col = static_cast<unsigned short>(cols);
  ioctl(master_, TIOCSWINSZ, &window);
}

void PtyProgram::makeCooked() {
  termios now = settings();
  now.c_lflag |= ICANON | ECHO | ISIG;
  tcsetattr(slave_, TCSANOW, &now);
}

termios PtyProgram::settings() const {
  termios out{};
  tcgetattr(slave_, &out);
  return out;
}

std::string PtyProgram::sttyText() const {
  const std::string command = "stty -a -F " + std::string(ptsname(master_));
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) {
      out += static_cast<char>(c);
    }
    pclose(pipe);
  }
  return out;
}

void PtyProgram::closeTerminal() {
  for (int* descriptor : {&slave_, &master_}) {
    if (*descriptor >= 0) {
      close(*descriptor);
      *descriptor = -1;
    }
  }
}

void PtyProgram::kill(int signal) {
  if (!status_) {
    ::kill(pid_, signal);
  }
}

bool PtyProgram::running() {
  int raw = 0;
  if (!status_ && waitpid(pid_, &raw, WNOHANG) == pid_) {
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  }
  return !status_;
}

std::optional<int> PtyProgram::wait(std::chrono::milliseconds limit) {
  waitUntil([this](const TerminalScreen&) { return !running(); }, limit);
  while (takeOutput(0)) {
  }
  return status_;
}

bool sameSettings(const termios& a, const termios& b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

}  // namespace testsupport
