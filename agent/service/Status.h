#pragma once

#include "platform/InstallTree.h"

namespace agent {

/// Asks the agent of a tree over the bus and prints what it says, one key=value a line: pid, program, build
/// (same or other than this program), tasks. An ExitCode.
int printStatus(const platform::InstallTree& tree);

}  // namespace agent
