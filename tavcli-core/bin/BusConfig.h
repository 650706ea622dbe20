#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "bin/ContainerConfig.h"

namespace tavcli {

/// The bus library's configuration: what the file says, with where to log, the tree, and the level put in.
Json::Value completeBusConfig(Json::Value file, const ContainerConfig& config);

/// The same from the configuration file, as compact text; nothing when it cannot be read as a JSON object.
std::optional<std::string> readBusConfig(const ContainerConfig& config);

}  // namespace tavcli
