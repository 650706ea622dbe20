#pragma once

#include "command/CommandModule.h"

/// The TRUSTREGION command: shows the agent's trust and reject lists, and changes the trust list.
class TavCliCmdtrustregion : public CommandModule {
 public:
  TavCliCmdtrustregion();
  static TavCliCmdtrustregion module;
};
