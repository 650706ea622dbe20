#pragma once

#include "platform/InstallTree.h"
#include "worker/Spawner.h"

namespace agent {

/// Fills the part of the configuration that etc/agent/agent.conf sets, or the defaults without such a file.
/// Refuses the file when others may change it, and each value without a meaning: a confinement is never
/// weakened by a slip.
platform::Expected<void> readScannerSettings(const platform::InstallTree& tree, Spawner::Config& config);

}  // namespace agent
