#pragma once

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The ISOLATION command: lists the agent's quarantine and restores its items.
class TavCliCmdIsolation : public TavcliCmdInterface {
 public:
  TavCliCmdIsolation();
  int load(CObject* owner) override;
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdIsolation module;

 private:
  shell::GrammarTable grammar_;
};
