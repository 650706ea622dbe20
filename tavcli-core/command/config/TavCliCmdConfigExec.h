#pragma once

#include <json/value.h>

#include <cstdint>

#include "shell/Modules.h"

/// The task of one CONFIG line: show all settings, or change settings of one section.
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
  Json::Value settings;  ///< the keys that the line changes; null without a key

  /// Returns 0, whatever the agent answers; -1 when the change cannot be written as text.
  std::int32_t execute() override;
};
