#include "bin/ContainerConfig.h"

#include "lunet/Lunet.h"
#include "platform/Files.h"
#include "platform/InstallTree.h"

namespace tavcli {

const std::string& containerGuid() {
  static const std::string guid = lunet::kConsoleGuid;
  return guid;
}

ContainerConfig containerConfigFor(const std::string& installDir) {
  const platform::InstallTree tree(installDir);
  ContainerConfig config;
  config.name = "tavcli";
  config.guid = containerGuid();
  config.version = "1.0.0";
  config.installDir = installDir;
  config.debugConfigFile = tree.debugConfig();
  config.logDir = utils::FormatDir(tree.log(), true);
  config.busLibraryPath = utils::FormatFilePath(tree.busLibrary());
  config.busConfigFile = tree.busConfig();
  return config;
}

}  // namespace tavcli
