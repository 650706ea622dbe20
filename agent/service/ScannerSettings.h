#pragma once

#include "platform/InstallTree.h"
#include "store/AuditFile.h"
#include "worker/Spawner.h"

namespace agent {

/// Fills the part of the configuration that etc/agent/agent.conf sets, or the defaults without such a file.
/// Refuses the file when others may change it, and each value without a meaning: a confinement is never
/// weakened by a slip.
platform::Expected<void> readScannerSettings(const platform::InstallTree& tree, Spawner::Config& config);

/// The same for the time after which a scan that is paused, and whose console has ended, ends too.
platform::Expected<void> readPauseSetting(const platform::InstallTree& tree,
                                          std::chrono::milliseconds& forgottenPause);

/// The same for what the audit record keeps.
platform::Expected<void> readAuditSettings(const platform::InstallTree& tree, store::AuditKeeping& keeping);

}  // namespace agent
