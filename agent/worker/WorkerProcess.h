#pragma once

#include <functional>
#include <string>

#include "engine/Engine.h"
#include "worker/Channel.h"
#include "worker/Confinement.h"
#include "worker/TempFolders.h"

namespace agent {

struct WorkerStart {
  Channel agent;          ///< to the agent, the worker's only connection
  WorkerFolders folders;  ///< the only places the worker writes to
  std::function<void(const std::string&)> beforeFile;
  const Confinement* confinement = nullptr;  ///< of the template; null: the worker is not confined by it
};

/// The body of a worker process: scans one requested file at a time until the agent's end of the channel
/// closes. Never returns.
[[noreturn]] void runWorker(Engine& engine, WorkerStart start);

/// Gives up core dumps and new privileges, makes the worker's folder its working folder, and takes the
/// worker's part of the confinement, before the first file. Afterwards the worker needs only its channel, its
/// folders, memory, and reading the descriptors it receives.
void confineWorker(const WorkerStart& start);

/// Sets the name that ps shows, and ignores the agent's signals.
void becomeProcess(const char* name);

/// The first call of each forked child process. Besides, makes the kernel end the child with its parent.
/// False when the parent is already gone.
bool becomeChild(const char* name, int parentPid);

/// Closes all other descriptors; standard input, output and error lead nowhere. Returns the descriptor under
/// its new number, 3. The second one, if there is one, gets number 4, stays open, and must not be number 3.
platform::Descriptor keepOnly(platform::Descriptor fd, platform::Descriptor second = {});

}  // namespace agent
