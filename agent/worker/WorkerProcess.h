#pragma once

#include <functional>
#include <string>

#include "engine/Engine.h"
#include "worker/Channel.h"
#include "worker/TempFolders.h"

namespace agent {

/// What a worker keeps of the process it was forked from.
struct WorkerStart {
  Channel agent;          ///< to the agent, the worker's only way out
  WorkerFolders folders;  ///< the only places it writes to
  std::function<void(const std::string&)> beforeFile;
};

/// The body of a worker process: scans what it is handed, one file at a time, until the agent's end of the
/// channel closes. Never returns.
[[noreturn]] void runWorker(Engine& engine, WorkerStart start);

/// Gives up what a worker does not need before it meets the first file: descriptors but its channel and
/// standard error, core dumps, new privileges; its working folder is its own. This is the place for a
/// sandbox: behind it the process needs its channel, its folders, memory, and to read the descriptors it is
/// handed.
void confineWorker(const WorkerStart& start);

/// For each of our child processes, first of all: named for ps, dies with its parent, leaves signals that are
/// meant for the agent to the agent. False when the parent is already gone.
bool becomeChild(const char* name, int parentPid);

/// Closes all descriptors but the one given; standard input, output and error lead nowhere.
/// Returns the descriptor's new number.
int keepOnly(int fd);

}  // namespace agent
