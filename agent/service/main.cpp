#include <cstdio>
#include <exception>
#include <memory>

#include "platform/InstallTree.h"
#include "platform/StandardStreams.h"
#include "platform/Text.h"
#include "service/AgentApp.h"
#include "service/Status.h"

namespace {

int serve(const agent::Options& options) {
  std::unique_ptr<agent::Daemon> daemon;
  if (options.daemon) {
    daemon = std::make_unique<agent::Daemon>();
  }
  const int code = agent::serve(options, daemon.get());
  if (daemon) {
    daemon->failed(code);
  }
  return code;
}

int run(const std::vector<std::string>& arguments) {
  const auto options = agent::parseOptions(arguments);
  if (!options) {
    std::fprintf(stderr, "tavagentd: %s\n%s", platform::visibleText(options.error()).c_str(),
                 agent::usage().c_str());
    return agent::kExitUsage;
  }
  switch (options->action) {
    case agent::Options::Action::kVersion:
      std::printf("tavagentd %s\n", TAV_VERSION);
      return agent::kExitOk;
    case agent::Options::Action::kHelp:
      std::printf("%s", agent::usage().c_str());
      return agent::kExitOk;
    case agent::Options::Action::kStatus:
      return agent::printStatus(platform::InstallTree(options->installDir));
    case agent::Options::Action::kServe:
      break;
  }
  return serve(*options);
}

}  // namespace

int main(int argc, char** argv) {
  platform::openClosedStandardStreams();
  try {
    return run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tavagentd: %s\n", error.what());
    return agent::kExitFailed;
  }
}
