// The places that a new command of the console touches, as CONTRIBUTING.md lists them: a module with its
// grammar and a task, nothing else.
#include <gtest/gtest.h>

#include "lineeditor/Completion.h"
#include "shell/GrammarTable.h"
#include "shell/TaskHandlers.h"
#include "shell/TavCliCompletion.h"
#include "support/ProcessShell.h"

namespace {

constexpr std::int32_t kTaskRan = 77;

class PingTask : public TavCliCmdExec {
 public:
  std::int32_t times = 0;
  std::int32_t execute() override { return times == 2 ? kTaskRan : 0; }
};

const shell::GrammarRow kGrammar[] = {
    {"PING", "a new command", shell::kNoHint, shell::kChoice, shell::kNoValue, shell::startTask<PingTask>},
    {"PING TWICE", "sends two", shell::kNoHint, shell::kChoice, shell::kNoValue,
     shell::setField<&PingTask::times, 2>},
};

class PingModule : public TavcliCmdInterface {
 public:
  PingModule() : TavcliCmdInterface("ping") { registerSelf(); }
  int buildTree(CliTree* tree) override {
    grammar_.build(*tree, kGrammar);
    return 1;
  }

 private:
  shell::GrammarTable grammar_;
};

/// In a program of its own: a shell loads its modules once, and this program's shell may be loaded.
[[noreturn]] void runANewCommand() {
  const PingModule module;
  testsupport::outputOf([] { TavCliCompletion::instance().init(); });
  lineeditor::CompletionState state;
  TavCliCompletion::instance().completionHook("PING ", &state);
  const bool offered = state.candidates.size() == 1 && state.candidates[0].name == "TWICE";
  _exit(offered && TavCliCompletion::instance().executeLine("ping twice") == kTaskRan ? 0 : 1);
}

TEST(NewCommand, IsItsModuleAndItsTaskAlone) {
  const std::string before = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runANewCommand(), testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, before);
}

}  // namespace
