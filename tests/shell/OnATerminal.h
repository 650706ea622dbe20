#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

/// Runs an action as a child process on a terminal of 24 rows and 80 columns.
class OnATerminal {
 public:
  template <class Action>
  explicit OnATerminal(Action action, const char* term = "xterm") {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 80;
    std::fflush(stdout);  // the child must not write what earlier tests have left in the buffer
    child_ = forkpty(&terminal_, nullptr, nullptr, &size);
    if (child_ == 0) {
      setenv("TERM", term, 1);
      action();
      std::fflush(stdout);
      _exit(0);
    }
  }
  ~OnATerminal() {
    close(terminal_);
    int status = 0;
    waitpid(child_, &status, 0);
  }
  OnATerminal(const OnATerminal&) = delete;
  OnATerminal& operator=(const OnATerminal&) = delete;

  void press(char key) { EXPECT_EQ(write(terminal_, &key, 1), 1); }

  /// Reads until the output ends with the text. Stops at the end of the output and after 20 seconds of
  /// silence.
  std::string readUntil(const std::string& text) {
    std::string output;
    char chunk[4096];
    pollfd wait{terminal_, POLLIN, 0};
    while ((text.empty() || !output.ends_with(text)) && poll(&wait, 1, 20000) == 1) {
      const ssize_t count = read(terminal_, chunk, sizeof chunk);
      if (count <= 0) {
        break;
      }
      output.append(chunk, static_cast<std::size_t>(count));
    }
    return output;
  }
  std::string readToTheEnd() { return readUntil(""); }

 private:
  int terminal_ = -1;
  pid_t child_ = -1;
};
