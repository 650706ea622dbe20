#pragma once

#include <string>
#include <vector>

#include "platform/Expected.h"
#include "platform/LogLevel.h"

namespace agent {

/// The exit codes of the program.
enum ExitCode {
  kExitOk = 0,
  kExitFailed = 1,  ///< with --status: unknown whether an agent runs
  kExitUsage = 2,
  kExitNotRunning = 3,  ///< --status: no agent runs
  kExitOtherRuns = 4    ///< another agent serves the tree
};

struct Options {
  enum class Action { kServe, kStatus, kVersion, kHelp };
  Action action = Action::kServe;
  bool daemon = false;
  LogLevel logLevel = LogLevel::kInfo;
  std::string installDir;                            ///< absolute
  std::string systemSignatures = "/var/lib/clamav";  ///< made absolute; may be missing
};

/// arguments: without the program's name.
platform::Expected<Options> parseOptions(const std::vector<std::string>& arguments);
/// The text of --help.
std::string usage();
/// The folder above the folder of this program; empty when /proc does not name the program.
std::string ownTree();

}  // namespace agent
