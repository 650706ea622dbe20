#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "shell/CliTree.h"
#include "shell/Modules.h"

/// The shell: holds the command modules, their one grammar tree and the task of the line being executed, and
/// is the line editor's completion hook. The line's handlers build the task; the shell runs it when the whole
/// line has been accepted. Main thread only, but for the registry.
class TavCliCompletion : public utils::ModuleAbstract<TavCliCompletion, TavcliCmdInterface>,
                         public utils::SingletonAbstract<TavCliCompletion> {
 public:
  ~TavCliCompletion() override;

  /// Loads every registered module, then attaches each to the tree, in name order. Once, before the first
  /// line. Returns 1.
  int init();

  /// The task of the line being executed; the shell runs it at most once, then deletes it.
  void setPendingTask(std::unique_ptr<TavCliCmdExec> task);
  TavCliCmdExec* pendingTask() const { return pendingTask_.get(); }
  /// The pending task when it is one of that kind; else null.
  template <class Task>
  Task* pendingTaskAs() const {
    return dynamic_cast<Task*>(pendingTask_.get());
  }

  /// Parses the line and, when it is complete, runs the task it built. Returns the task's code, or the
  /// parse's result where there is no task to run. A refused line's task never runs: it is dropped before
  /// the next line that is not empty.
  std::int32_t executeLine(const char* line);

  /// For the line editor: the text before the cursor, and the candidates to fill.
  int completionHook(const char* text, lineeditor::CompletionState* state);

  /// What has to be done before the process ends at QUIT: restore the terminal, stop the agent link, give
  /// the mark back.
  void setQuitHook(std::function<void()> hook) { quitHook_ = std::move(hook); }
  /// Ends the process with exit status 0; the history is not saved.
  [[noreturn]] void quit();

  CliTree& tree() { return *tree_; }

 protected:
  friend class utils::SingletonAbstract<TavCliCompletion>;
  TavCliCompletion();

 private:
  std::unique_ptr<TavCliCmdExec> pendingTask_;
  lineeditor::CompletionState* completionState_ = nullptr;  ///< of the completion in progress
  std::unique_ptr<CliTree> tree_;
  std::function<void()> quitHook_;
};
