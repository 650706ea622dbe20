#include "bin/MarkDirectory.h"

#include "lunet/BusConfig.h"
#include "platform/CGlobalTag.h"
#include "platform/Files.h"

namespace tavcli {

std::string markDirectory(const std::string& installDir, const std::string& busConfigFile) {
  const auto config = lunet::readBusConfig(busConfigFile);
  if (!config && config.error().kind == lunet::BusConfigFailure::Kind::kUnsafe) {
    return "";  // a user who may write the file must not choose where root makes folders
  }
  return CDir::resolveForMaking(lunet::socketDirectory(installDir, config.value_or(Json::objectValue)))
      .value_or("");
}

void useMarkDirectory(const std::string& installDir, const std::string& busConfigFile) {
  if (std::string directory = markDirectory(installDir, busConfigFile); !directory.empty()) {
    CGlobalTag::TagConfig::setUserDirectory(std::move(directory));
  }
}

}  // namespace tavcli
