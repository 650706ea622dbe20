#pragma once

#include "worker/Channel.h"
#include "worker/Spawner.h"
#include "worker/TempFolders.h"

namespace agent {

/// The body of the spawner process: small, single-threaded, without signatures. Each request forks a worker
/// template, which loads and reports the signatures and forks the workers. The spawner ends with the agent's
/// end of the channel, or with the agent, and ends its templates. Never returns.
[[noreturn]] void runSpawner(const Spawner::Config& config, const TempFolders& folders, Channel agent,
                             int agentPid);

}  // namespace agent
