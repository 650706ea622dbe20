#pragma once

#include <functional>
#include <string>

#include "engine/Engine.h"
#include "worker/Channel.h"
#include "worker/Confinement.h"
#include "worker/TempFolders.h"

namespace agent {

struct TemplateParts {
  Channel agent;
  Engine::Config engine;
  platform::Expected<WorkerFolders> folders;  ///< parents of the workers' folders; without them nothing loads
  std::function<void(const std::string&)> beforeFile{};
  Confinement* confinement = nullptr;  ///< of this process; null in a process that is not confined
  ConfinementState confined{};
};

/// The body of a worker template: loads and reports the signatures, and forks a worker for each request.
/// Ends with the agent's end of the channel, after its last worker. Never returns.
[[noreturn]] void runTemplate(TemplateParts parts);

}  // namespace agent
