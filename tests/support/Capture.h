#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "support/TempDir.h"

namespace testsupport {

/// Catches the standard output of the process while the object lives, with or without stdio.
class StdoutCapture {
 public:
  StdoutCapture() {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (saved_ < 0 || file < 0 || dup2(file, STDOUT_FILENO) < 0) {
      throw std::runtime_error("cannot catch standard output");
    }
    close(file);
  }
  ~StdoutCapture() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;

  /// The output so far.
  std::string text() const {
    std::fflush(stdout);
    return readFile(path_);
  }

 private:
  TempDir folder_;
  std::string path_ = folder_.at("stdout");
  int saved_ = -1;
};

/// The action's standard output.
template <class Action>
std::string outputOf(Action action) {
  const StdoutCapture capture;
  action();
  return capture.text();
}

}  // namespace testsupport
