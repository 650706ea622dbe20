#include "command/config/TavCliCmdConfig.h"

#include <cstdio>

#include "command/config/ConfigGrammar.h"

TavCliCmdConfig TavCliCmdConfig::module;

TavCliCmdConfig::TavCliCmdConfig() : TavcliCmdInterface("config") {
  registerSelf();
}

int TavCliCmdConfig::load(CObject* /*owner*/) {
  std::puts("[Load Command] Config");
  return 1;
}

int TavCliCmdConfig::buildTree(CliTree* tree) {
  grammar_.build(*tree, command::configGrammar());
  return 1;
}
