#pragma once

#include <json/value.h>

#include <cstdint>

#include "shell/Modules.h"

/// What one CONFIG line asks for: to show all settings, or a change of one section's.
class TavCliCmdConfigExec : public TavCliCmdExec {
 public:
  enum Section : std::int32_t {
    kNone = -1,
    kShow = 0,
    kCommon = 1,
    kScan = 2,
    kCompressScan = 3,
    kWatcher = 4,
    kCompressWatcher = 5,
    kEngine = 6,
  };

  std::int32_t section = kNone;
  Json::Value settings;  ///< the keys that the line changes; null when it names none

  /// 0 whatever the agent answers; -1 when the change cannot be written as text.
  std::int32_t execute() override;
};
