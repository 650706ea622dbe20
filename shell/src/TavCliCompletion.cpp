#include "shell/TavCliCompletion.h"

#include <cstdlib>

#include "lineeditor/Terminal.h"
#include "shell/TavCliCmdCache.h"
#include "shell/TavCliCmdCommon.h"

namespace {

// The modules of this folder register themselves before main. The references below make the linker take the
// modules out of the archive.
[[gnu::used]] const TavcliCmdInterface* const kOwnModules[] = {&TavCliCmdCommon::module,
                                                               &TavCliCmdCache::module};

}  // namespace

TavCliCompletion::TavCliCompletion() : tree_(std::make_unique<CliTree>()) {}

int TavCliCompletion::init() {
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
