#pragma once

#include <string>
#include <vector>

namespace agent {

/// How the program ends.
enum ExitCode {
  kExitOk = 0,
  kExitFailed = 1,  ///< also --status: it cannot be told whether an agent runs
  kExitUsage = 2,
  kExitNotRunning = 3,  ///< --status: no agent runs
  kExitOtherRuns = 4    ///< another agent serves the tree
};

struct Options {
  enum class Action { kServe, kStatus, kVersion, kHelp };
  Action action = Action::kServe;
  bool daemon = false;
  int logLevel = 2;                                  ///< 1 (every skipped entry) to 4 (errors)
  std::string installDir;                            ///< absolute
  std::string systemSignatures = "/var/lib/clamav";  ///< may be missing
};

/// False, and one line in *why, for arguments that cannot be understood. arguments: without the program's
/// name.
bool parseOptions(const std::vector<std::string>& arguments, Options* options, std::string* why);
/// What --help prints.
std::string usage();
/// The folder above the one that holds this program; empty when it cannot be told.
std::string ownTree();

}  // namespace agent
