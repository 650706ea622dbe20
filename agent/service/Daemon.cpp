#include "service/Daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/Inheritance.h"
#include "service/Options.h"

namespace agent {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void toNull(int target, int flags) {
  const int fd = open("/dev/null", flags);
  if (fd >= 0 && fd != target) {
    dup2(fd, target);
    close(fd);
  }
}

/// Ends the caller's process with the exit code that comes through the pipe.
[[noreturn]] void waitForExitCode(int pipe, pid_t child) {
  unsigned char code = kExitFailed;
  ssize_t count = 0;
  do {
    count = read(pipe, &code, 1);
  } while (count < 0 && errno == EINTR);
  waitpid(child, nullptr, 0);
  _exit(count == 1 ? static_cast<int>(code) : static_cast<int>(kExitFailed));
}

}  // namespace

Daemon::Daemon() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    fail("pipe2");
  }
  const pid_t child = fork();
  if (child < 0) {
    fail("fork");
  }
  if (child > 0) {
    close(ends[1]);
    waitForExitCode(ends[0], child);
  }
  pipe_.reset(ends[1]);
  setsid();
  const pid_t grandchild = fork();
  if (grandchild != 0) {
    _exit(grandchild < 0 ? kExitFailed : kExitOk);
  }
  if (chdir("/") != 0) {
    fail("chdir /");
  }
  // Closes the pipe's other end and the caller's other files. Otherwise a pipe of the caller would not end,
  // and a file system could not be unmounted.
  platform::closeAllBut({pipe_.get()});
  toNull(STDIN_FILENO, O_RDONLY);
  toNull(STDOUT_FILENO, O_WRONLY);
}

void Daemon::failed(int exitCode) {
  if (pipe_) {
    const unsigned char code = static_cast<unsigned char>(exitCode);
    const ssize_t written = write(pipe_.get(), &code, 1);
    static_cast<void>(written);  // the caller's process may have ended
    pipe_.reset();
  }
}

void Daemon::ready() {
  toNull(STDERR_FILENO, O_WRONLY);
  failed(kExitOk);
}

}  // namespace agent
