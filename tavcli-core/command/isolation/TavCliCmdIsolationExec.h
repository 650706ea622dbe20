#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "shell/Modules.h"

/// The task of one ISOLATION line.
class TavCliCmdIsolationExec : public TavCliCmdExec {
 public:
  enum Action : std::int32_t { kRestore = 0, kReport = 1 };

  std::int32_t action = kReport;
  std::int32_t notrust = 0;           ///< 0: restore and trust; otherwise restore only
  std::vector<std::string> item_ids;  ///< UIDs, in the order given

  /// Returns 0, whatever the agent answers; -1 for an action outside the list.
  std::int32_t execute() override;
};
