#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bin/Pause.h"

namespace tavcli {

/// The functions that a run calls outside the program. The program uses the initial values; tests replace
/// members.
struct Surroundings {
  std::function<int(std::string& uuid)> generateUuid;  ///< 0 on success
  std::function<std::unique_ptr<IPause>()> makePause;  ///< called before any other thread starts

  Surroundings();
};

/// Runs the whole program with main's arguments. Returns the exit status.
int runConsole(const std::vector<std::string>& arguments, const Surroundings& surroundings = {}) noexcept;

}  // namespace tavcli
