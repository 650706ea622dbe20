#pragma once

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The console's own commands: QUIT, HISTORY, HELP CTRL, HELP APP. Their handlers act at once, while the line
/// is parsed; there is no task.
class TavCliCmdCommon : public TavcliCmdInterface {
 public:
  TavCliCmdCommon();
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdCommon module;

 private:
  shell::GrammarTable grammar_;
};
