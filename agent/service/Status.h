#pragma once

#include <string>

#include "engine/SignatureState.h"
#include "platform/InstallTree.h"

namespace agent {

/// Asks the agent of a tree over the bus, and prints one key=value a line: pid, program, build (same as this
/// program, or other), tasks, confinement, and the lines of the versions. Returns an ExitCode.
int printStatus(const platform::InstallTree& tree);

/// Where the running agent keeps the line on the confinement of its scanning processes. Only root and the
/// agent's user can read the file.
std::string confinementFile(const platform::InstallTree& tree);

/// Where the running agent keeps key=value lines on what it scans with: rules, limits, signatures,
/// signature_version, shortage. Readable as the file above.
std::string versionsFile(const platform::InstallTree& tree);
std::string versionLines(const SignatureState& state);

}  // namespace agent
