#include "shell/TavCliCompletion.h"

#include <cstdlib>

#include "lineeditor/Terminal.h"
#include "shell/TavCliCmdCache.h"
#include "shell/TavCliCmdCommon.h"

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

TavCliCompletion::TavCliCompletion() : tree_(std::make_unique<CliTree>()) {}

TavCliCompletion::~TavCliCompletion() = default;

int TavCliCompletion::init() {
  // Named here so that the linker keeps the modules of this folder: each registers itself before main.
  registerModule(&TavCliCmdCommon::module);
  registerModule(&TavCliCmdCache::module);
  load(this);
  forEachModule([this](TavcliCmdInterface& module) { module.attach(tree_.get()); });
  return 1;
}

void TavCliCompletion::setPendingTask(std::unique_ptr<TavCliCmdExec> task) {
  pendingTask_ = std::move(task);
}

std::int32_t TavCliCompletion::executeLine(const char* line) {
  if (line == nullptr || *line == '\0') {
    return 0;
  }
  pendingTask_.reset();
  const std::int32_t result = tree_->parse(line);
  if (result < 0 || !pendingTask_) {
    return result;
  }
  const std::unique_ptr<TavCliCmdExec> task = std::move(pendingTask_);
  return task->execute();
}

int TavCliCompletion::completionHook(const char* text, lineeditor::CompletionState* state) {
  completionState_ = state;
  return tree_->complete(text == nullptr ? "" : text, completionState_);
}

void TavCliCompletion::quit() {
  lineeditor::flushOutput();
  lineeditor::restoreTerminal();
  if (quitHook_) {
    quitHook_();
  }
  std::exit(0);
}
