#pragma once

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The CONFIG command: shows the agent's settings and changes single settings.
class TavCliCmdConfig : public TavcliCmdInterface {
 public:
  TavCliCmdConfig();
  int load(CObject* owner) override;
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdConfig module;

 private:
  shell::GrammarTable grammar_;
};
