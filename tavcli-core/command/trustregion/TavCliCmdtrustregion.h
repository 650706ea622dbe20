#pragma once

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The TRUSTREGION command: shows the agent's trust and reject lists, and changes the trust list.
class TavCliCmdtrustregion : public TavcliCmdInterface {
 public:
  TavCliCmdtrustregion();
  int load(CObject* owner) override;
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdtrustregion module;

 private:
  shell::GrammarTable grammar_;
};
