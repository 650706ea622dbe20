#include "shell/Modules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lineeditor/Completion.h"
#include "shell/TaskHandlers.h"
#include "shell/TavCliCompletion.h"
#include "support/Capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::outputOf;

namespace {

/// A shell beside the one shell of the process.
class OwnShell : public TavCliCompletion {};

std::vector<std::string> happened;

class NotedModule : public TavcliCmdInterface {
 public:
  explicit NotedModule(const std::string& name) : TavcliCmdInterface(name) {}
  int load(CObject* owner) override {
    happened.push_back("load " + name());
    return TavcliCmdInterface::load(owner);
  }
  int buildTree(CliTree* /*tree*/) override {
    happened.push_back("build " + name());
    return 1;
  }
};

/// The task of the command JOB TAKE <value>. The task notes its construction, its execution and its end.
class JobTask : public TavCliCmdExec {
 public:
  JobTask() { happened.push_back("made"); }
  ~JobTask() override { happened.push_back("gone"); }
  std::int32_t execute() override {
    happened.push_back("run " + value);
    if (result == kThrow) {
      throw std::runtime_error("as tests do");
    }
    return result;
  }
  static constexpr std::int32_t kThrow = 99;
  static inline std::int32_t result = 0;
  std::string value;
};

class JobShell {
 public:
  JobShell() {
    job_.handler = shell::startTask<JobTask>;
    take_.handler = [](const CliNodeInfo&, const std::string& value) {
      return shell::changeTask<JobTask>([&value](JobTask& task) { task.value = value; });
    };
    // Handlers hand their tasks to the one shell of the process: the grammar goes there.
    CliTree& tree = TavCliCompletion::instance().tree();
    tree.addChild(&job_);
    tree.addChild(&job_, &take_);
    tree.addChild(&plain_);
  }

 private:
  static inline CliNodeInfo job_{"JOB", 1, 1, 0};
  static inline CliNodeInfo take_{"TAKE", 0, 1, 2};
  static inline CliNodeInfo plain_{"PLAIN", 1, 1, 0};
};

/// Builds the grammar once in the process and empties the notes.
JobShell& jobShell() {
  static JobShell shell;
  JobTask::result = 0;
  TavCliCompletion::instance().setPendingTask(nullptr);
  happened.clear();
  return shell;
}

std::int32_t execute(const char* line) {
  return TavCliCompletion::instance().executeLine(line);
}

class ExecuteLine : public testing::Test {
 protected:
  void SetUp() override { jobShell(); }
};

}  // namespace

TEST(Modules, AModuleKeepsItsNameAndItsOwner) {
  NotedModule module("noted");
  EXPECT_EQ(module.name(), "noted");
  OwnShell shell;
  EXPECT_EQ(module.TavcliCmdInterface::load(&shell), 0);
  EXPECT_EQ(module.owner(), &shell);
}

TEST(Modules, AttachingBuildsTheModulesGrammar) {
  happened.clear();
  NotedModule module("noted");
  CliTree tree;
  EXPECT_EQ(module.attach(&tree), 1);
  EXPECT_THAT(happened, ElementsAre("build noted"));
}

TEST(Modules, RegisteringNothingGivesZero) {
  OwnShell shell;
  EXPECT_EQ(shell.registerModule(nullptr), 0);
}

TEST(Modules, RegisteringAModuleGivesOne) {
  OwnShell shell;
  NotedModule module("noted");
  EXPECT_EQ(shell.registerModule(&module), 1);
}

TEST(Modules, AllModulesAreLoadedInNameOrderThenAttachedInNameOrder) {
  happened.clear();
  OwnShell shell;
  NotedModule second("b");
  NotedModule first("a");
  NotedModule third("c");
  shell.registerModule(&third);
  shell.registerModule(&second);
  shell.registerModule(&first);
  outputOf([&shell] { EXPECT_EQ(shell.init(), 1); });
  EXPECT_THAT(happened, ElementsAre("load a", "load b", "load c", "build a", "build b", "build c"));
  EXPECT_EQ(first.owner(), &shell);
}

TEST(Modules, ASecondModuleOfOneNameDoesNotReplaceTheFirst) {
  happened.clear();
  OwnShell shell;
  NotedModule first("same");
  NotedModule second("same");
  shell.registerModule(&first);
  EXPECT_EQ(shell.registerModule(&second), 1);
  outputOf([&shell] { shell.init(); });
  EXPECT_EQ(first.owner(), &shell);
  EXPECT_EQ(second.owner(), nullptr);
}

TEST(Modules, AModuleThatIsNotTheRegisteredOneTakesNoOtherOut) {
  OwnShell shell;
  NotedModule first("same");
  NotedModule second("same");
  NotedModule stranger("stranger");
  shell.registerModule(&first);
  shell.unregisterModule(&second);
  shell.unregisterModule(&stranger);
  outputOf([&shell] { shell.init(); });
  EXPECT_EQ(first.owner(), &shell);
}

TEST(Modules, LoadingTheRegistryGivesOne) {
  OwnShell shell;
  EXPECT_EQ(shell.load(&shell), 1);
}

TEST(Modules, AModuleThatGoesLeavesTheRegistry) {
  happened.clear();
  {
    NotedModule module("passing");
    EXPECT_EQ(module.registerSelf(), 1);
  }
  TavCliCompletion& shell = TavCliCompletion::instance();
  outputOf([&shell] { shell.load(&shell); });
  EXPECT_THAT(happened, IsEmpty());
}

TEST(Modules, TheShellIsOneObject) {
  EXPECT_EQ(&TavCliCompletion::instance(), &TavCliCompletion::instance());
}

TEST_F(ExecuteLine, AnEmptyLineGivesZeroAtOnce) {
  EXPECT_EQ(execute(""), 0);
  EXPECT_EQ(execute(nullptr), 0);
  EXPECT_THAT(happened, IsEmpty());
}

TEST_F(ExecuteLine, ABlankLineGivesZeroWithoutATask) {
  EXPECT_EQ(execute("    "), 0);
  EXPECT_EQ(TavCliCompletion::instance().pendingTaskAs<TavCliCmdExec>(), nullptr);
  EXPECT_THAT(happened, IsEmpty());
}

TEST_F(ExecuteLine, RunsTheTaskOfAWholeLineThenDeletesIt) {
  EXPECT_EQ(execute("JOB TAKE this"), 0);
  EXPECT_THAT(happened, ElementsAre("made", "run this", "gone"));
  EXPECT_EQ(TavCliCompletion::instance().pendingTaskAs<TavCliCmdExec>(), nullptr);
}

TEST_F(ExecuteLine, GivesTheTasksCode) {
  JobTask::result = -10011;
  EXPECT_EQ(execute("JOB TAKE this"), -10011);
  JobTask::result = 3;
  EXPECT_EQ(execute("JOB TAKE this"), 3);
}

TEST_F(ExecuteLine, TwoLinesOfOneCommandEachMakeRunAndDeleteTheirOwnTask) {
  execute("JOB TAKE one");
  execute("JOB TAKE two");
  EXPECT_THAT(happened, ElementsAre("made", "run one", "gone", "made", "run two", "gone"));
}

TEST_F(ExecuteLine, ALineWithAMissingOptionGivesMinusOneAndDoesNotRunItsTask) {
  std::int32_t result = 0;
  outputOf([&result] { result = execute("JOB"); });
  EXPECT_EQ(result, -1);
  EXPECT_THAT(happened, ElementsAre("made"));
}

TEST_F(ExecuteLine, ALineWithAMissingValueGivesMinusOneAndDoesNotRunItsTask) {
  EXPECT_EQ(execute("JOB TAKE"), -1);
  EXPECT_THAT(happened, ElementsAre("made"));
}

TEST_F(ExecuteLine, ARefusedLinesTaskNeverRuns) {
  for (const char* next : {"   ", "exit", "PLAIN", "bogus words"}) {
    happened.clear();
    outputOf([] { execute("JOB"); });
    EXPECT_EQ(execute(next), 0) << next;
    EXPECT_THAT(happened, ElementsAre("made", "gone")) << next;
  }
}

TEST_F(ExecuteLine, AnEmptyLineBehindARefusedOneRunsNothingEither) {
  outputOf([] { execute("JOB"); });
  EXPECT_EQ(execute(""), 0);
  EXPECT_THAT(happened, ElementsAre("made"));
}

TEST_F(ExecuteLine, ARefusedLinesTaskIsReplacedByTheNextLines) {
  outputOf([] { execute("JOB"); });
  EXPECT_EQ(execute("JOB TAKE two"), 0);
  EXPECT_THAT(happened, ElementsAre("made", "gone", "made", "run two", "gone"));
}

TEST_F(ExecuteLine, ATaskThatThrowsIsDeletedAllTheSame) {
  JobTask::result = JobTask::kThrow;
  EXPECT_THROW(execute("JOB TAKE this"), std::runtime_error);
  EXPECT_THAT(happened, ElementsAre("made", "run this", "gone"));
  EXPECT_EQ(TavCliCompletion::instance().pendingTaskAs<TavCliCmdExec>(), nullptr);
}

TEST_F(ExecuteLine, ATaskOfAnotherCommandIsNotTaken) {
  class OtherTask : public TavCliCmdExec {
    std::int32_t execute() override { return 0; }
  };
  TavCliCompletion::instance().setPendingTask(std::make_unique<OtherTask>());
  EXPECT_EQ(TavCliCompletion::instance().pendingTaskAs<JobTask>(), nullptr);
  TavCliCompletion::instance().setPendingTask(nullptr);
}

TEST_F(ExecuteLine, TheCompletionHookOffersWhatTheTreeHas) {
  lineeditor::CompletionState state;
  EXPECT_EQ(TavCliCompletion::instance().completionHook("JOB ", &state), 1);
  ASSERT_EQ(state.candidates.size(), 1u);
  EXPECT_EQ(state.candidates[0].name, "TAKE");
}

TEST_F(ExecuteLine, TheCompletionHookTakesNoTextAsAnEmptyLine) {
  lineeditor::CompletionState state;
  EXPECT_EQ(TavCliCompletion::instance().completionHook(nullptr, &state), 1);
  EXPECT_FALSE(state.candidates.empty());
}
