#pragma once

#include <cstdint>

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// Shows how many entries the agent's scan cache holds, or has it emptied.
class TavCliCmdCacheExec : public TavCliCmdExec {
 public:
  std::uint32_t action = 0;   ///< 0 show, 1 clean
  std::uint32_t subject = 0;  ///< 0: the scan cache; there is no other

  /// Always 0: what the agent says is printed, not returned.
  std::int32_t execute() override;
};

class TavCliCmdCache : public TavcliCmdInterface {
 public:
  TavCliCmdCache();
  int load(CObject* owner) override;
  int buildTree(CliTree* tree) override;
  const shell::GrammarTable& grammar() const { return grammar_; }

  static TavCliCmdCache module;

 private:
  shell::GrammarTable grammar_;
};
