#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Values.h"
#include "shell/Modules.h"

/// The task of one TRUSTREGION line.
class TavCliCmdtrustregionExec : public TavCliCmdExec {
 public:
  enum Action : std::int32_t {
    kAdd = json::toNumber(json::RegionAction::kAdd),
    kDelete = json::toNumber(json::RegionAction::kDelete),
    kReport
  };
  enum ItemType : std::int32_t {
    kFile = json::toNumber(json::RegionItemType::kFile),
    kFolder = json::toNumber(json::RegionItemType::kFolder),
    kExtension = json::toNumber(json::RegionItemType::kExtension),
    kMd5 = json::toNumber(json::RegionItemType::kMd5)
  };

  std::int32_t action = kReport;
  std::int32_t item_type = kFile;
  std::vector<std::string> items;  ///< bytes as typed, in the order given

  /// Returns 0, whatever the agent answers; -1 for an action outside the list.
  std::int32_t execute() override;
};
