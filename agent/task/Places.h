#pragma once

#include <optional>
#include <string>
#include <vector>

#include "task/HomeFolders.h"
#include "task/NamedPrograms.h"
#include "task/ScanPlan.h"

namespace agent {

/// A place of a stage: a file, or a folder with all that is below.
struct Place {
  std::string path;
  std::optional<HomeFolder> home;  ///< the place lies below that home folder
  SettingKind setting = SettingKind::kNone;
};

/// One stage of a fast or full scan: the numbers that report its begin and its end, and its places.
struct Stage {
  int begin = 0;
  int end = 0;
  const char* what = "";         ///< the detail of its notifications
  bool runningPrograms = false;  ///< walks the programs of all processes, too
  bool setuidFiles = false;      ///< then looks for setuid and setgid files everywhere
  std::vector<Place> places;     ///< those that exist now; below home folders, all
};

/// The stages of a mode, in order; empty for a custom scan. homes: the home folders of all users.
std::vector<Stage> stagesOf(json::ScanMode mode, bool memoryCheck, const std::vector<HomeFolder>& homes);

}  // namespace agent
