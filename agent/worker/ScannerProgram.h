#pragma once

#include <functional>
#include <string>

namespace agent {

/// The program of the worker template, executed by the spawner with the agent's channel as descriptor
/// kChannelFd. Receives its start from the agent, confines itself, and becomes the template. A program that
/// may not scan unconfined reports the reason, and reads no signature. Never returns.
/// beforeFile: runs in each worker before each file, with its name. For tests.
[[noreturn]] void runScannerProgram(std::function<void(const std::string&)> beforeFile = {});

}  // namespace agent
