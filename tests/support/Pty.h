#pragma once

#include <sys/types.h>
#include <termios.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/VTermScreen.h"

namespace testsupport {

/// A program on a terminal of its own. The program's output goes to an emulator; the test types. The test
/// keeps the terminal open, so its settings can be read after the program's end. The destructor ends the
/// program by its id. One thread only.
class PtyProgram {
 public:
  struct Options {
    int rows = 24;
    int cols = 80;
    std::string workingDir;  ///< empty: the test's own
    /// Added to the test's own; an empty value unsets. Without a value here, TERM is xterm-256color, and
    /// kRewrapVariables are unset.
    std::map<std::string, std::string> environment;
  };
  PtyProgram(std::vector<std::string> words, Options options);
  explicit PtyProgram(std::vector<std::string> words) : PtyProgram(std::move(words), Options{}) {}
  ~PtyProgram();  ///< SIGKILL if it still runs
  PtyProgram(const PtyProgram&) = delete;
  PtyProgram& operator=(const PtyProgram&) = delete;

  pid_t pid() const { return pid_; }
  void type(std::string_view bytes);
  const TerminalScreen& screen() const { return screen_; }
  /// Every byte that the terminal got from the program.
  const std::string& written() const { return written_; }

  /// Reads the program's output until the condition holds. False at the limit.
  bool waitUntil(const std::function<bool(const TerminalScreen&)>& condition,
                 std::chrono::milliseconds limit = std::chrono::seconds(20));
  bool waitForText(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// Waits until the cursor stands behind a row with this text.
  bool waitForPrompt(std::string_view row, std::chrono::milliseconds limit = std::chrono::seconds(20));

  void resize(int rows, int cols);
  void reportSize(int rows, int cols);  ///< tells the program a size; the screen stays as it is
  void makeCooked();                    ///< as a shell does when its job has stopped
  termios settings() const;             ///< the terminal's settings now
  std::string sttyText() const;         ///< the output of `stty -a`
  const termios& settingsAtStart() const { return settingsAtStart_; }  ///< before the program was started
  const std::string& sttyTextAtStart() const { return sttyTextAtStart_; }
  void closeTerminal();  ///< hangs up
  void kill(int signal);
  bool running();
  /// The exit status, or 128 + the signal that ended the program; nothing at the limit.
  std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(20));

 private:
  bool takeOutput(int waitMs);

  TerminalScreen screen_;
  std::string written_;
  pid_t pid_ = -1;
  int master_ = -1;
  int slave_ = -1;
  std::optional<int> status_;
  termios settingsAtStart_{};
  std::string sttyTextAtStart_;
};

bool sameSettings(const termios& a, const termios& b);

}  // namespace testsupport
