#include "bin/BusConfig.h"

#include "lunet/BusConfig.h"
#include "platform/Files.h"

namespace tavcli {

Json::Value completeBusConfig(Json::Value file, const ContainerConfig& config) {
  const std::string logName = config.name.empty() ? "container." + config.guid : config.name;
  const std::string stem = config.name.empty() ? "container" : config.name;
  return lunet::completeBusConfig(std::move(file), config.installDir, {config.logDir + "/" + logName, stem});
}

platform::Expected<std::string> readBusConfig(const ContainerConfig& config) {
  auto file = lunet::readBusConfig(config.busConfigFile);
  if (file) {
    return lunet::compactText(completeBusConfig(std::move(*file), config));
  }
  const auto safe = CDir::resolveSafe(config.busConfigFile);  // fails for a missing file too
  return platform::failure(safe ? "no JSON object can be read from " + config.busConfigFile
                                : "the bus configuration is not used: " + safe.error());
}

}  // namespace tavcli
