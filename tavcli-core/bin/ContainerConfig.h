#pragma once

#include <string>

namespace tavcli {

/// The configuration of the container manager. Folders end in a separator.
struct ContainerConfig {
  std::string name;
  std::string uuid;  ///< new for every run
  std::string guid;
  std::string version;
  std::string installDir;
  std::string debugConfigFile;
  std::string logDir;
  std::string busLibraryPath;
  std::string busConfigFile;
};

/// The console's GUID: the name of the single-instance mark and the address of the console's endpoint.
const std::string& containerGuid();

/// The configuration for an install tree, without the uuid.
ContainerConfig containerConfigFor(const std::string& installDir);

}  // namespace tavcli
