#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "shell/CliTree.h"
#include "shell/Modules.h"

/// The shell. The shell holds the command modules, their common grammar tree and the task of the line being
/// executed. The handlers of a line build the task; the shell executes the task of an accepted line. The line
/// editor calls completionHook(). Main thread only, except the registry of modules.
class TavCliCompletion : public utils::ModuleAbstract<TavCliCompletion, TavcliCmdInterface>,
                         public utils::SingletonAbstract<TavCliCompletion> {
 public:
  /// Loads every registered module, then attaches every module to the tree, both in name order. Call once,
  /// before the first line. Returns 1.
  int init();

  /// Stores the task of the line being executed. The shell executes the task at most once, then deletes the
  /// task.
  void setPendingTask(std::unique_ptr<TavCliCmdExec> task);
  /// The pending task; null when no task of this type is pending.
  template <class Task>
  Task* pendingTaskAs() const {
    return dynamic_cast<Task*>(pendingTask_.get());
  }

  /// Parses the line and executes the task that a complete line has built. Returns the code of the task, or
  /// the result of the parse when no task was executed. The task of a refused line is never executed: the
  /// next line that is not empty deletes the task.
  std::int32_t executeLine(const char* line);

  /// For the line editor. text: the text before the cursor. Fills the candidates and the hint. Returns 1.
  int completionHook(const char* text, lineeditor::CompletionState* state);

  /// QUIT calls the hook before the process ends. The console's hook stops the agent link and releases the
  /// single-instance lock.
  void setQuitHook(std::function<void()> hook) { quitHook_ = std::move(hook); }
  /// Ends the process with exit status 0, without saving the history.
  [[noreturn]] void quit();

  CliTree& tree() { return *tree_; }

 protected:
  friend class utils::SingletonAbstract<TavCliCompletion>;
  TavCliCompletion();

 private:
  std::unique_ptr<TavCliCmdExec> pendingTask_;
  lineeditor::CompletionState* completionState_ = nullptr;  ///< the state of the completion in progress
  std::unique_ptr<CliTree> tree_;
  std::function<void()> quitHook_;
};
