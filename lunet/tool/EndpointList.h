#pragma once

#include <string>

namespace lunetctl {

/// Prints one line for each endpoint alive on the bus of that tree. Throws Failure.
void listEndpoints(const std::string& runtime);

}  // namespace lunetctl
