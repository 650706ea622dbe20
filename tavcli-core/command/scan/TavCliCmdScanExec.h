#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Values.h"
#include "shell/Modules.h"

/// The task of one SCAN line. The agent reports the outcome of a scan by notifications.
class TavCliCmdScanExec : public TavCliCmdExec {
 public:
  enum Action : std::int32_t {
    kStart,
    kStop = json::toNumber(json::ControlAction::kStop),
    kPause = json::toNumber(json::ControlAction::kPause),
    kResume = json::toNumber(json::ControlAction::kResume),
    kShow
  };
  enum Handle : std::int32_t { kAutomatic = 0, kReportOnly = 1 };
  enum Special : std::int32_t { kStrongOn = 0, kStrongOff = 1 };
  enum Mode : std::int32_t {
    kFast = json::toNumber(json::ScanMode::kFast),
    kFull = json::toNumber(json::ScanMode::kFull),
    kCustom = json::toNumber(json::ScanMode::kCustom)
  };

  std::int32_t action = kResume;
  std::int32_t handle = kAutomatic;
  std::int32_t special = kStrongOff;
  std::int32_t mode = kFast;
  std::vector<std::string> paths;  ///< bytes as typed, in the order given
  std::string token_id;
  std::string log_path;  ///< without the prefix of an unattended run

  /// Returns 0, whatever the agent answers; -1 for an action outside the list.
  std::int32_t execute() override;

 private:
  void start() const;
};
