#pragma once

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// The commands of the console itself: QUIT, HISTORY, HELP CTRL and HELP APP. The handlers of these commands
/// act during the parse of the line, without a task.
class TavCliCmdCommon : public TavcliCmdInterface {
 public:
  TavCliCmdCommon();
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdCommon module;

 private:
  shell::GrammarTable grammar_;
};
