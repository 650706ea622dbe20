#include "shell/Modules.h"

#include "shell/TavCliCompletion.h"

TavcliCmdInterface::TavcliCmdInterface(std::string name) {
  name_ = std::move(name);
}

TavcliCmdInterface::~TavcliCmdInterface() {
  TavCliCompletion::instance().unregisterModule(this);
}

int TavcliCmdInterface::registerSelf() {
  return TavCliCompletion::instance().registerModule(this);
}
