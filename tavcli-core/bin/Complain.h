#pragma once

#include <string>

namespace tavcli {

/// One line for the operator, on standard error, behind all that was printed before on standard output.
/// Control characters are made visible. Any thread.
void complain(const std::string& line);

}  // namespace tavcli
