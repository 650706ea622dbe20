#pragma once

#include "worker/Channel.h"
#include "worker/Spawner.h"
#include "worker/TempFolders.h"

namespace agent {

// The body of the spawner process: small, single-threaded, without signatures. Each request starts a worker
// template, which loads and reports the signatures and forks the workers. The spawner ends with the agent's
// end of the channel, and ends its templates. The kernel ends the templates of a spawner that is killed.

/// The argument of the scanner program that makes the program a spawner.
inline constexpr const char* kSpawnerMode = "--spawner";

/// An executed template has this descriptor at its start: a pipe that ends with the spawner.
inline constexpr int kSpawnerEndFd = 4;

/// The templates are executed anew, from the program of this process. Receives a SpawnerStart first. Never
/// returns.
[[noreturn]] void runSpawnerProgram(Channel agent);

/// In a fork of the agent, for tests: the templates are forks as well. Never returns.
[[noreturn]] void runForkedSpawner(const Spawner::Config& config, const TempFolders& folders, Channel agent);

}  // namespace agent
