#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bin/Pause.h"

namespace tavcli {

/// What a run takes from its surroundings. The program runs with the initial values.
struct Surroundings {
  std::function<int(std::string& uuid)> generateUuid;  ///< 0 on success
  std::function<std::unique_ptr<IPause>()> makePause;  ///< called before the first other thread

  Surroundings();
};

/// The whole program: `arguments` as main gets them; the result is the exit status. Nothing is thrown.
int runConsole(const std::vector<std::string>& arguments, const Surroundings& surroundings = {}) noexcept;

}  // namespace tavcli
