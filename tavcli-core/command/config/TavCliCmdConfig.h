#pragma once

#include "command/CommandModule.h"

/// The CONFIG command: shows the agent's settings and changes single settings.
class TavCliCmdConfig : public CommandModule {
 public:
  TavCliCmdConfig();
  int buildTree(CliTree* tree) override;
  static TavCliCmdConfig module;
};
