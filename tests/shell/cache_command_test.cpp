#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "lunet/Lunet.h"
#include "shell/TavCliCmdCache.h"
#include "support/BuiltGrammar.h"
#include "support/ConsoleLink.h"
#include "support/ProcessShell.h"
#include "support/ScriptedAgent.h"
#include "support/TempDir.h"

using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;
using testsupport::ConsoleLink;
using testsupport::ScriptedAgent;
using testsupport::TempDir;

namespace {

const char kGrammar[] = "shell/data/grammar_cache.txt";

/// The output of a failed call, with any error number of the bus library.
testing::Matcher<std::string> failedCall(const char* operation) {
  return MatchesRegex(std::string("Caught exception:\nClient connector error: lunet ") + operation +
                      " error ret\\[[0-9-]+\\]\n");
}

class CacheGrammarRow : public testsupport::GrammarRow<TavCliCmdCache> {};

class CacheGrammar : public testsupport::GrammarTask<TavCliCmdCache, TavCliCmdCacheExec> {};

class CacheCommand : public testing::Test {
 protected:
  TempDir tree_;
  ScriptedAgent agent_{tree_.path()};
  ConsoleLink link_{tree_.path()};
};

}  // namespace

TEST_P(CacheGrammarRow, IsInTheTree) {
  expectInTree();
}

INSTANTIATE_TEST_SUITE_P(Rows, CacheGrammarRow, testing::ValuesIn(testsupport::goldenLines(kGrammar)),
                         testsupport::grammarRowName);

TEST_F(CacheGrammar, StandsInItsOrder) {
  testsupport::expectGolden(kGrammar, testsupport::grammarText(tree_));
}

TEST_F(CacheGrammar, TheTaskStartsAsShow) {
  const TavCliCmdCacheExec task;
  EXPECT_EQ(task.action, TavCliCmdCacheExec::kShow);
  EXPECT_EQ(task.subject, TavCliCmdCacheExec::kScanCache);
}

TEST_F(CacheGrammar, TheKeywordsSetActionAndSubject) {
  for (const auto& [line, action] : {std::pair{"CACHE SHOW SCANCACHE", TavCliCmdCacheExec::kShow},
                                     std::pair{"CACHE CLEAN SCANCACHE", TavCliCmdCacheExec::kClean}}) {
    EXPECT_EQ(tree_.parse(line), 0);
    const auto* const task = pending();
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->action, action);
    EXPECT_EQ(task->subject, TavCliCmdCacheExec::kScanCache);
  }
}

TEST_F(CacheGrammar, TheHandlersDoNothingAndGiveZeroWithoutATask) {
  expectHandlersGiveZeroWithoutATask("");
  EXPECT_FALSE(row("CACHE SHOW")->handler);
  EXPECT_FALSE(row("CACHE CLEAN")->handler);
}

TEST(CacheModule, IsNamedCacheAndPrintsItsLoadMessage) {
  TavCliCmdCache module;
  EXPECT_EQ(module.name(), "cache");
  EXPECT_EQ(testsupport::outputOf([&module] { EXPECT_EQ(module.load(nullptr), 1); }),
            "[Load Command] Cache\n");
}

TEST(CacheModule, CommonAndCacheAreLoadedByTheShell) {
  EXPECT_THAT(loadedShell(), StartsWith("[Load Command] Cache\n"));
}

TEST(CacheWithoutAgentLink, NothingIsPrintedAndTheResultIsZero) {
  for (const char* line : {"CACHE SHOW SCANCACHE", "CACHE CLEAN SCANCACHE"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, 0) << line;
    EXPECT_EQ(executed.printed, "") << line;
  }
}

TEST_F(CacheCommand, AlonePrintsWhatIsMissingAndSendsNothing) {
  const Executed executed = executeLine("CACHE");
  EXPECT_EQ(executed.result, -1);
  EXPECT_EQ(executed.printed,
            "缺少必要选项:"
            "CLEAN                         清理缓存                  \n"
            "SHOW                          显示缓存信息            \n");
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(CacheCommand, ShowPrintsTheCountInAnyLetterCase) {
  for (const int count : {0, 1, 123456, 2147483647, -1}) {
    agent_.answer("getScanCacheDetail", count);
    for (const char* line : {"CACHE SHOW SCANCACHE", "cache show scancache"}) {
      const Executed executed = executeLine(line);
      EXPECT_EQ(executed.result, 0);
      EXPECT_EQ(executed.printed, "  当前存在" + std::to_string(count) + "项扫描缓存\n");
    }
  }
}

TEST_F(CacheCommand, CleanSendsOneNotificationWithoutWaitingAndPrintsNothing) {
  const Executed executed = executeLine("CACHE CLEAN SCANCACHE");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
  ASSERT_TRUE(agent_.waitForCall("cleanScanCache"));
  const std::vector<ScriptedAgent::Call> calls = agent_.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].channel, lunet::kOnewayChannel);
  EXPECT_FALSE(calls[0].wantsReply);
}

TEST_F(CacheCommand, AnErrorOfTheAgentIsShownWithItsMessage) {
  agent_.answerError("getScanCacheDetail", -7, "the cache\x1b[2J is gone");
  const Executed executed = executeLine("CACHE SHOW SCANCACHE");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "Caught exception:\nthe cache\\x1b[2J is gone\n");
}

TEST_F(CacheCommand, AnAnswerOfAnotherKindIsShownAsAnException) {
  agent_.answer("getScanCacheDetail", "many");
  const Executed executed = executeLine("CACHE SHOW SCANCACHE");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "Caught exception:\nThe response is invalid: \"many\"\n\n")
      << "the message's own line end, and one behind it";
}

TEST_F(CacheCommand, AnAnswerOfManyLinesIsShownLineByLine) {
  Json::Value list(Json::arrayValue);
  list.append("a long text that does not fit into one line of the indented form of a list of values");
  list.append("\x1b[2J");
  agent_.answer("getScanCacheDetail", list);
  EXPECT_EQ(executeLine("CACHE SHOW SCANCACHE").printed,
            "Caught exception:\nThe response is invalid: " + list.toStyledString() + "\n");
}

TEST_F(CacheCommand, LineEndsAndTabsOfAMessageAreShownAsTheyAre) {
  agent_.answerError("getScanCacheDetail", -7, "\none\n\ttwo\n\n");
  EXPECT_EQ(executeLine("CACHE SHOW SCANCACHE").printed, "Caught exception:\n\none\n\ttwo\n\n\n");
}

TEST_F(CacheCommand, AnAgentThatDiesDuringTheCallIsShownAsAnException) {
  agent_.dieAt("getScanCacheDetail");
  const Executed executed = executeLine("CACHE SHOW SCANCACHE");
  EXPECT_EQ(executed.result, 0);
  EXPECT_THAT(executed.printed, failedCall("SyncSend"));
}

TEST_F(CacheCommand, AnAgentThatNeverAnswersIsShownAsAnException) {
  agent_.neverAnswer("getScanCacheDetail");
  link_.setTimeout(100);
  const Executed executed = executeLine("CACHE SHOW SCANCACHE");
  EXPECT_EQ(executed.result, 0);
  EXPECT_THAT(executed.printed, failedCall("SyncSend"));
}

TEST_F(CacheCommand, AnAbsentAgentIsShownAsAnException) {
  agent_.leave();
  EXPECT_THAT(executeLine("CACHE SHOW SCANCACHE").printed, failedCall("SyncSend"));
  EXPECT_THAT(executeLine("CACHE CLEAN SCANCACHE").printed, failedCall("OnewaySend"));
}

TEST_F(CacheCommand, WorksAgainWithTheAgentThatComesBack) {
  agent_.answer("getScanCacheDetail", 7);
  agent_.leave();
  executeLine("CACHE SHOW SCANCACHE");
  agent_.join();
  EXPECT_EQ(executeLine("CACHE SHOW SCANCACHE").printed, "  当前存在7项扫描缓存\n");
}

TEST_F(CacheCommand, AnotherSubjectOrActionDoesNothing) {
  TavCliCmdCacheExec task;
  task.subject = 1;
  EXPECT_EQ(testsupport::outputOf([&task] { EXPECT_EQ(task.execute(), 0); }), "");
  task.subject = 0;
  task.action = 2;
  EXPECT_EQ(testsupport::outputOf([&task] { EXPECT_EQ(task.execute(), 0); }), "");
  EXPECT_THAT(agent_.calls(), IsEmpty());
}
