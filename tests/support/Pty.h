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

/// A program on a terminal of its own: what it writes goes to an emulator, what the test types goes to it.
/// The test keeps the terminal's other end open, so that its settings can be looked at after the program has
/// ended. The program is ended, by its id, with the object. One thread only.
class PtyProgram {
 public:
  struct Options {
    int rows = 24;
    int cols = 80;
    std::string workingDir;                          ///< empty: the test's own
    std::map<std::string, std::string> environment;  ///< added to the test's own; an empty value unsets
  };
  PtyProgram(std::vector<std::string> command, Options options);
  explicit PtyProgram(std::vector<std::string> command) : PtyProgram(std::move(command), Options{}) {}
  ~PtyProgram();  ///< SIGKILL if it still runs
  PtyProgram(const PtyProgram&) = delete;
  PtyProgram& operator=(const PtyProgram&) = delete;

  pid_t pid() const { return pid_; }
  void type(std::string_view bytes);
  const TerminalScreen& screen() const { return screen_; }
  const std::string& written() const {
    return written_;
  }  ///< every byte the program wrote, as the terminal got it

  /// Takes what the program writes until the condition holds. False when it does not within the limit.
  bool waitUntil(const std::function<bool(const TerminalScreen&)>& condition,
                 std::chrono::milliseconds limit = std::chrono::seconds(20));
  bool waitForText(std::string_view text, std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// The row with the cursor reads so and the cursor stands behind it.
  bool waitForPrompt(std::string_view row, std::chrono::milliseconds limit = std::chrono::seconds(20));

  void resize(int rows, int cols);
  void reportSize(int rows, int cols);  ///< says so to the program; the screen stays as it is
  void makeCooked();                    ///< as a shell does when its job has stopped
  termios settings() const;             ///< of the terminal, as they are now
  std::string sttyText() const;         ///< what `stty -a` says of it
  const termios& settingsAtStart() const { return settingsAtStart_; }  ///< before the program was started
  const std::string& sttyTextAtStart() const { return sttyTextAtStart_; }
  void closeTerminal();  ///< hangs up
  void kill(int signal);
  bool running();
  /// The exit status, 128 + signal when a signal ended it; nothing when it still runs at the limit.
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
