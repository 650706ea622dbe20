#pragma once

#include <string>
#include <vector>

namespace tavcli {

/// The whole program: `arguments` as main gets them; the result is the exit status. Nothing is thrown.
int runConsole(const std::vector<std::string>& arguments) noexcept;

}  // namespace tavcli
