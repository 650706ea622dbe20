#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace testsupport {

/// A program started by a test. The output goes to files, and the input comes from a pipe. The destructor
/// ends the program by its id.
class Process {
 public:
  struct Options {
    std::string workingDir;                          ///< empty: the test's own
    std::map<std::string, std::string> environment;  ///< added to the test's own; an empty value unsets
    std::optional<uid_t> uid;                        ///< the program's user
    std::optional<gid_t> gid;
    std::vector<gid_t> groups;  ///< supplementary groups, set when uid or gid is
  };
  Process(std::vector<std::string> words, Options options);
  explicit Process(std::vector<std::string> words) : Process(std::move(words), Options{}) {}
  ~Process();  ///< SIGKILL if it still runs
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void write(std::string_view text);  ///< to the standard input
  void closeInput();
  std::string out() const;  ///< standard output so far
  std::string err() const;
  void kill(int signal);
  bool running();
  /// The exit status, or 128 + the signal that ended the program; nothing at the limit.
  std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(30));
  /// Waits until the standard output holds the text. False at the limit.
  bool waitForOut(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(20));
  bool waitForErr(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(20));

 private:
  TempDir files_;
  pid_t pid_ = -1;
  int input_ = -1;
  std::optional<int> status_;
};

/// Whether a thread of this process sleeps in the kernel; false for a thread that does not exist.
bool threadSleeps(pid_t thread);

}  // namespace testsupport
