#pragma once

#include <string>
#include <vector>

#include "task/ScanPlan.h"

namespace agent {

/// One stage of a fast or full scan: the numbers that report its begin and its end, and its places.
struct Stage {
  int begin = 0;
  int end = 0;
  const char* what = "";           ///< the detail of its notifications
  bool runningPrograms = false;    ///< walks the programs of all processes, too
  std::vector<std::string> paths;  ///< those that exist now
};

/// The stages of a mode, in order; empty for a custom scan. homes: the home folders of all users.
std::vector<Stage> stagesOf(json::ScanMode mode, bool memoryCheck, const std::vector<std::string>& homes);
/// The existing home folders of the user database, each once. Any thread.
std::vector<std::string> homeFolders();

}  // namespace agent
