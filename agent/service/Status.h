#pragma once

#include <string>

#include "platform/InstallTree.h"

namespace agent {

/// Asks the agent of a tree over the bus, and prints one key=value a line: pid, program, build (same as this
/// program, or other), tasks, confinement. Returns an ExitCode.
int printStatus(const platform::InstallTree& tree);

/// Where the running agent keeps the line on the confinement of its scanning processes. Only root and the
/// agent's user can read the file.
std::string confinementFile(const platform::InstallTree& tree);

}  // namespace agent
