#pragma once

#include <functional>
#include <string>

namespace agent {

/// The program of the spawner and of the worker template, executed with the agent's channel as descriptor
/// kChannelFd. With the argument kSpawnerMode it becomes the spawner, which executes this program again for
/// each template, with descriptor kSpawnerEndFd besides. Without it, receives its start from the agent,
/// confines itself, and becomes the template. A program that may not scan unconfined reports the reason, and
/// reads no signature. Never returns. beforeFile: runs in each worker before each file, with its name. For
/// tests.
[[noreturn]] void runScannerProgram(int count, char** arguments,
                                    std::function<void(const std::string&)> beforeFile = {});

}  // namespace agent
