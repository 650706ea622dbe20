#pragma once

#include "command/CommandModule.h"

/// The ISOLATION command: lists the agent's quarantine and restores its items.
class TavCliCmdIsolation : public CommandModule {
 public:
  TavCliCmdIsolation();
  static TavCliCmdIsolation module;
};
