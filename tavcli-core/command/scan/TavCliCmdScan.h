#pragma once

#include "command/CommandModule.h"

/// The SCAN command: starts, stops, pauses, resumes and lists the agent's scans.
class TavCliCmdScan : public CommandModule {
 public:
  TavCliCmdScan();
  /// Also creates the receivers of the agent's notifications. The agent link must be up.
  int load(CObject* owner) override;

  static TavCliCmdScan module;
};
