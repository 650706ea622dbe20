#include "bin/ContainerConfig.h"

#include "lunet/Lunet.h"
#include "platform/Files.h"

namespace tavcli {

const std::string& containerGuid() {
  static const std::string guid = lunet::kConsoleGuid;
  return guid;
}

ContainerConfig containerConfigFor(const std::string& installDir) {
  ContainerConfig config;
  config.name = "tavcli";
  config.guid = containerGuid();
  config.version = "1.0.0";
  config.installDir = installDir;
  config.debugConfigFile = installDir + "etc/debug/cli_debug.conf";
  config.logDir = utils::FormatDir(installDir + "/log/", true);
  config.busLibraryPath = utils::FormatFilePath(installDir + "/lib/modules/libLunetClientMgr.so");
  config.busConfigFile = installDir + "etc/communication/cli_lunet.conf";
  return config;
}

}  // namespace tavcli
