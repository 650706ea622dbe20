#include "support/Process.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <stdexcept>

#include "support/Command.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace testsupport {

namespace {

/// Allocates nothing: see Command.
[[noreturn]] void runChild(Command& command, const Process::Options& options, int input, const char* outPath,
                           const char* errPath) {
  const int out = open(outPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
  const int err = open(errPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(input, 0);
  dup2(out, 1);
  dup2(err, 2);
  if (!options.workingDir.empty() && chdir(options.workingDir.c_str()) != 0) {
    _exit(126);
  }
  if (options.uid || options.gid) {
    if (setgroups(options.groups.size(), options.groups.data()) != 0) {
      _exit(126);
    }
  }
  if (options.gid && setresgid(*options.gid, *options.gid, *options.gid) != 0) {
    _exit(126);
  }
  if (options.uid && setresuid(*options.uid, *options.uid, *options.uid) != 0) {
    _exit(126);
  }
  command.exec();
}

/// A write to a program that is gone must not end the test's process, so SIGPIPE is dropped. SIGPIPE is not
/// ignored, because the programs of the test would inherit that.
class SigpipeHeld {
 public:
  SigpipeHeld() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~SigpipeHeld() {
    const timespec atOnce{};
    while (sigtimedwait(&pipe_, nullptr, &atOnce) == SIGPIPE) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SigpipeHeld(const SigpipeHeld&) = delete;
  SigpipeHeld& operator=(const SigpipeHeld&) = delete;

 private:
  sigset_t pipe_{};
  sigset_t before_{};
};

}  // namespace

Process::Process(std::vector<std::string> words, Options options) {
  Command command(std::move(words), options.environment);
  const std::string out = files_.at("out");
  const std::string err = files_.at("err");
  int pipeEnds[2];
  if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2 failed");
  }
  pid_ = fork();
  if (pid_ < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid_ == 0) {
    runChild(command, options, pipeEnds[0], out.c_str(), err.c_str());
  }
  close(pipeEnds[0]);
  input_ = pipeEnds[1];
}

Process::~Process() {
  closeInput();
  if (running()) {
    kill(SIGKILL);
    wait();
  }
}

void Process::write(std::string_view text) {
  const SigpipeHeld held;
  while (!text.empty()) {
    const ssize_t count = ::write(input_, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return;  // the reader is gone; the test sees it in the exit status
    }
    text.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
  }
}

void Process::closeInput() {
  if (input_ >= 0) {
    close(input_);
    input_ = -1;
  }
}

std::string Process::out() const {
  return readFile(files_.at("out"));
}
std::string Process::err() const {
  return readFile(files_.at("err"));
}

void Process::kill(int signal) {
  if (!status_) {
    ::kill(pid_, signal);
  }
}

bool Process::running() {
  if (status_) {
    return false;
  }
  int raw = 0;
  if (waitpid(pid_, &raw, WNOHANG) == pid_) {
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  }
  return !status_;
}

std::optional<int> Process::wait(std::chrono::milliseconds limit) {
  waitFor([this] { return !running(); }, limit);
  return status_;
}

bool Process::waitForOut(std::string_view text, std::chrono::milliseconds limit) {
  return waitFor([&] { return out().find(text) != std::string::npos; }, limit);
}

bool Process::waitForErr(std::string_view text, std::chrono::milliseconds limit) {
  return waitFor([&] { return err().find(text) != std::string::npos; }, limit);
}

bool threadSleeps(pid_t thread) {
  return readFile("/proc/self/task/" + std::to_string(thread) + "/stat").find(") S ") != std::string::npos;
}

}  // namespace testsupport
