#pragma once

#include <string>

namespace tavcli {

/// What the container manager is built from. Folders end in a separator.
struct ContainerConfig {
  std::string name;
  std::string uuid;  ///< fresh for every run
  std::string guid;
  std::string version;
  std::string installDir;
  std::string debugConfigFile;
  std::string logDir;
  std::string busLibraryPath;
  std::string busConfigFile;
};

/// The console's GUID: names the single-instance mark and the console's endpoint.
const std::string& containerGuid();

/// All fields but the uuid, for a tree.
ContainerConfig containerConfigFor(const std::string& installDir);

}  // namespace tavcli
