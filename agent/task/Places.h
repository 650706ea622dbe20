#pragma once

#include <string>
#include <vector>

#include "task/ScanPlan.h"

namespace agent {

/// One stage of a fast or full scan: the numbers that tell its begin and its end, and where it looks.
struct Stage {
  int begin = 0;
  int end = 0;
  const char* what = "";           ///< the detail of its notices
  bool runningPrograms = false;    ///< the programs of all processes, beside the paths
  std::vector<std::string> paths;  ///< those that exist now
};

/// The stages of a mode, in their order; none for a custom scan. `homes`: the home folders of all users.
std::vector<Stage> stagesOf(json::ScanMode mode, bool memoryCheck, const std::vector<std::string>& homes);
/// As the user database has them, each once; those of users without one left out. Any thread.
std::vector<std::string> homeFolders();

}  // namespace agent
