#pragma once

#include <json/value.h>

#include <string>

#include "json/Values.h"
#include "platform/Expected.h"

namespace agent {

/// The settings documents, one for each configuration type. A document is whole: every key has a value.
class Settings {
 public:
  virtual ~Settings() = default;
  virtual Json::Value document(json::ConfigType configType) const = 0;
  /// Merges a partial change after a check against the settings table. A refused change changes nothing. A
  /// null section changes nothing.
  virtual platform::Expected<void> change(json::ConfigType configType, const std::string& changeText) = 0;
};

}  // namespace agent
