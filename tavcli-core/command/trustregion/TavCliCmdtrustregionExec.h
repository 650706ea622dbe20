#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "shell/Modules.h"

/// The task of one TRUSTREGION line.
class TavCliCmdtrustregionExec : public TavCliCmdExec {
 public:
  enum Action : std::int32_t { kAdd = 0, kDelete = 1, kReport = 2 };
  enum ItemType : std::int32_t { kFile = 0, kFolder = 1, kExtension = 2, kMd5 = 3 };

  std::int32_t action = kReport;
  std::int32_t item_type = kFile;
  std::vector<std::string> items;  ///< bytes as typed, in the order given

  /// Returns 0, whatever the agent answers; -1 for an action outside the list.
  std::int32_t execute() override;
};
