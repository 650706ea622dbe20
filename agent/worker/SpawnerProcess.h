#pragma once

#include "worker/Channel.h"
#include "worker/TempFolders.h"
#include "worker/WorkerPool.h"

namespace agent {

/// The body of the spawner process: small, single-threaded, without signatures. For each request it forks a
/// template, which loads the signatures, reports on them, and forks the workers. It ends when the agent's
/// end of the channel closes, or the agent dies, and takes all below it along. Never returns.
[[noreturn]] void runSpawner(const Spawner::Config& config, const TempFolders& folders, Channel agent,
                             int agentPid);

}  // namespace agent
