#pragma once

#include <string>

namespace tavcli {

/// Writes one line for the user to standard error, after everything that was printed to standard output.
/// Control characters are made visible. Any thread.
void complain(const std::string& line);

}  // namespace tavcli
