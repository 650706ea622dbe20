#include "shell/Modules.h"

#include "shell/TavCliCompletion.h"

TavcliCmdInterface::TavcliCmdInterface(std::string name) {
  name_ = std::move(name);
}

TavcliCmdInterface::~TavcliCmdInterface() {
  TavCliCompletion::instance().unregisterModule(this);
}

int TavcliCmdInterface::load(CObject* owner) {
  owner_ = owner;
  return 0;
}

int TavcliCmdInterface::attach(CliTree* tree) {
  return buildTree(tree);
}

int TavcliCmdInterface::registerSelf() {
  return TavCliCompletion::instance().registerModule(this);
}
