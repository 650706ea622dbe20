#pragma once

#include <string>

#include "shell/TavCliCompletion.h"
#include "support/Capture.h"

/// Loads the modules of the process's shell once. Returns the output of the loading.
inline const std::string& loadedShell() {
  static const std::string printed = testsupport::outputOf([] { TavCliCompletion::instance().init(); });
  return printed;
}

struct Executed {
  std::int32_t result = 0;
  std::string printed;
};

inline Executed executeLine(const std::string& line) {
  loadedShell();
  Executed executed;
  executed.printed = testsupport::outputOf(
      [&] { executed.result = TavCliCompletion::instance().executeLine(line.c_str()); });
  return executed;
}
