#pragma once

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The SCAN command: starts, stops, pauses, resumes and lists the agent's scans.
class TavCliCmdScan : public TavcliCmdInterface {
 public:
  TavCliCmdScan();
  /// Also creates the receivers of the agent's notifications. The agent link must be up.
  int load(CObject* owner) override;
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdScan module;

 private:
  shell::GrammarTable grammar_;
};
