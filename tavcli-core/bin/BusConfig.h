#pragma once

#include <json/value.h>

#include <string>

#include "bin/ContainerConfig.h"
#include "platform/Expected.h"

namespace tavcli {

/// The bus library's configuration: the file's content, completed for this console.
Json::Value completeBusConfig(Json::Value file, const ContainerConfig& config);

/// The same for the configuration file, as compact text. A missing file is a failure.
platform::Expected<std::string> readBusConfig(const ContainerConfig& config);

}  // namespace tavcli
