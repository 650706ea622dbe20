#pragma once

#include <cstdio>
#include <span>

#include "shell/GrammarTable.h"
#include "shell/Modules.h"

/// Base of the modules whose commands talk to the agent.
class CommandModule : public TavcliCmdInterface {
 public:
  /// Prints the line that names the module. Returns 1.
  int load(CObject* /*owner*/) override {
    std::printf("[Load Command] %s\n", title_);
    return 1;
  }
  int buildTree(CliTree* tree) override {
    grammar_.build(*tree, rows_);
    return 1;
  }
  const shell::GrammarTable& grammar() const { return grammar_; }

 protected:
  CommandModule(const char* name, const char* title, std::span<const shell::GrammarRow> rows = {})
      : TavcliCmdInterface(name), title_(title), rows_(rows) {
    registerSelf();
  }

  shell::GrammarTable grammar_;

 private:
  const char* title_;
  std::span<const shell::GrammarRow> rows_;
};
