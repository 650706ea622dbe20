// Compares the prompt with bash (readline) in the same run. Measured are the time from a key's byte to its
// echo on the pty, the time from exec to the prompt with a running agent, and the resident memory.
//
//   editor_bench STAGE        an install tree whose agent is running
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr int kKeys = 2000;
constexpr int kKeysPerLine = 40;
constexpr int kStarts = 21;
constexpr int kLimitMs = 10000;
constexpr const char* kEraseLine = "\x15";  // Ctrl-U

struct Program {
  std::vector<std::string> command;
  std::string workingDir;
  std::string prompt;
  std::string end;  ///< typed to end it
};

/// One of the two programs on a pty of its own.
class Session {
 public:
  explicit Session(const Program& program) : program_(program), started_(Clock::now()) {
    winsize window{};
    window.ws_row = 24;
    window.ws_col = 80;
    pid_ = forkpty(&master_, nullptr, nullptr, &window);
    if (pid_ < 0) {
      throw std::runtime_error("forkpty failed");
    }
    if (pid_ == 0) {
      run();
    }
    waitFor(program.prompt);
    toPrompt_ = Clock::now() - started_;
  }
  ~Session() {
    type(program_.end);
    for (pollfd watched = {master_, POLLIN, 0}; poll(&watched, 1, kLimitMs) == 1 && take();) {
    }
    kill(pid_, SIGKILL);  // the program has ended before, unless it hangs
    waitpid(pid_, nullptr, 0);
    close(master_);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Microseconds timeToPrompt() const { return toPrompt_; }

  /// From the key's byte to its echo.
  Microseconds echo(char key) {
    got_.clear();
    const auto begin = Clock::now();
    type(std::string(1, key));
    waitFor(std::string(1, key));
    return Clock::now() - begin;
  }
  /// Types keys without timing, and waits until the program is quiet.
  void press(const std::string& keys) {
    type(keys);
    for (pollfd watched = {master_, POLLIN, 0}; poll(&watched, 1, 20) == 1 && take();) {
    }
  }

  long residentKiB() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmRSS:")) {
        return std::atol(line.c_str() + 6);
      }
    }
    return 0;
  }

 private:
  [[noreturn]] void run() const {
    if (!program_.workingDir.empty() && chdir(program_.workingDir.c_str()) != 0) {
      _exit(126);
    }
    setenv("TERM", "xterm-256color", 1);
    setenv("PS1", "PROMPT> ", 1);
    std::vector<char*> arguments;
    for (const std::string& word : program_.command) {
      arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }

  void type(std::string_view bytes) const {
    if (write(master_, bytes.data(), bytes.size()) < 0) {
      std::perror("write");
    }
  }
  bool take() {
    char bytes[4096];
    const ssize_t count = read(master_, bytes, sizeof bytes);
    if (count > 0) {
      got_.append(bytes, static_cast<std::size_t>(count));
    }
    return count > 0;
  }
  void waitFor(const std::string& text) {
    while (got_.find(text) == std::string::npos) {
      pollfd watched = {master_, POLLIN, 0};
      if (poll(&watched, 1, kLimitMs) != 1 || !take()) {
        throw std::runtime_error(program_.command[0] + " did not show \"" + text + "\" but:\n" + got_);
      }
    }
  }

  const Program& program_;
  Clock::time_point started_;
  Clock::duration toPrompt_{};
  pid_t pid_ = -1;
  int master_ = -1;
  std::string got_;
};

double percentile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

void row(const char* what, double here, double beside, const char* note) {
  std::printf("%-58s %14.1f %14.1f %8.2f  %s\n", what, here, beside, here / beside, note);
}

/// Types key by key; the two programs take turns in being first, so that load affects both.
void measureEcho(Session& console, Session& bash) {
  std::vector<double> consoleTimes;
  std::vector<double> bashTimes;
  for (int i = 0; i < kKeys; ++i) {
    if (i % kKeysPerLine == 0) {
      console.press(kEraseLine);
      bash.press(kEraseLine);
    }
    const char key = static_cast<char>('a' + i % 26);
    if (i % 2 == 0) {
      consoleTimes.push_back(console.echo(key).count());
      bashTimes.push_back(bash.echo(key).count());
    } else {
      bashTimes.push_back(bash.echo(key).count());
      consoleTimes.push_back(console.echo(key).count());
    }
  }
  row("a key's byte to its echo, median, us", percentile(consoleTimes, 0.5), percentile(bashTimes, 0.5),
      "bash; target <= 1.0");
  row("  99th percentile, us", percentile(consoleTimes, 0.99), percentile(bashTimes, 0.99), "bash");
}

void measureStart(const Program& console, const Program& bash) {
  std::vector<double> consoleTimes;
  std::vector<double> bashTimes;
  for (int i = 0; i < kStarts; ++i) {
    consoleTimes.push_back(Session(console).timeToPrompt().count() / 1000);
    bashTimes.push_back(Session(bash).timeToPrompt().count() / 1000);
  }
  row("exec to prompt, median, ms", percentile(consoleTimes, 0.5), percentile(bashTimes, 0.5),
      "bash --norc; target < 50 ms");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: editor_bench STAGE\n");
    return 2;
  }
  char state[] = "/tmp/tavbench-state-XXXXXX";
  if (mkdtemp(state) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  setenv("XDG_STATE_HOME", state, 1);  // keeps the user's history unchanged
  const std::string bin = std::string(argv[1]) + "/bin";
  const std::string end = std::string(kEraseLine) + "exit\r";
  const Program console{{bin + "/tavcli"}, bin, "TAV> ", end};
  const Program bash{{"bash", "--norc", "--noprofile", "-i"}, "", "PROMPT> ", end};
  int result = 0;
  try {
    measureStart(console, bash);
    Session consoleSession(console);
    Session bashSession(bash);
    row("resident memory at the prompt, MiB", static_cast<double>(consoleSession.residentKiB()) / 1024,
        static_cast<double>(bashSession.residentKiB()) / 1024, "bash; target < 12 MiB");
    measureEcho(consoleSession, bashSession);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "editor_bench: %s\n", error.what());
    result = 1;
  }
  std::filesystem::remove_all(state);
  return result;
}
