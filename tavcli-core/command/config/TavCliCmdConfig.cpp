#include "command/config/TavCliCmdConfig.h"

#include "command/config/ConfigGrammar.h"

TavCliCmdConfig TavCliCmdConfig::module;

TavCliCmdConfig::TavCliCmdConfig() : CommandModule("config", "Config") {}

int TavCliCmdConfig::buildTree(CliTree* tree) {
  grammar_.build(*tree, command::configGrammar());
  return 1;
}
