#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "OnATerminal.h"
#include "lineeditor/History.h"
#include "shell/TavCliCmdCommon.h"
#include "support/BuiltGrammar.h"
#include "support/ProcessShell.h"
#include "support/TempDir.h"

using testing::HasSubstr;
using testing::Not;
using testsupport::goldenText;
using testsupport::readFile;

namespace {

const char kGrammar[] = "shell/data/grammar_common.txt";

class CommonGrammarRow : public testsupport::GrammarRow<TavCliCmdCommon> {};

constexpr const char* kPagerPrompt = "*** Press <Space> or <Enter> to continue . . .";

std::ptrdiff_t tableLines(const std::string& output) {
  return std::count(output.begin(), output.end(), '\n') - 1;  // the first holds a blank and a backspace
}

}  // namespace

TEST_P(CommonGrammarRow, IsInTheTree) {
  expectInTree();
}

INSTANTIATE_TEST_SUITE_P(Rows, CommonGrammarRow, testing::ValuesIn(testsupport::goldenLines(kGrammar)),
                         testsupport::grammarRowName);

TEST(CommonGrammar, StandsInItsOrder) {
  testsupport::BuiltGrammar<TavCliCmdCommon> built;
  testsupport::expectGolden(kGrammar, testsupport::grammarText(built.tree));
}

TEST(CommonCommand, TheModuleIsNamedCommonAndPrintsNoLoadMessage) {
  TavCliCmdCommon module;
  EXPECT_EQ(module.name(), "common");
  EXPECT_EQ(testsupport::outputOf([&module] { EXPECT_EQ(module.load(nullptr), 0); }), "");
}

TEST(CommonCommand, EachHandlerGivesOne) {
  const testsupport::BuiltGrammar<TavCliCmdCommon> built;
  const shell::GrammarTable& grammar = built.module.grammar();
  for (const char* path : {"HELP CTRL", "HELP APP", "HISTORY"}) {
    const CliNodeInfo* const node = grammar.find(path);
    testsupport::outputOf([&] { EXPECT_EQ(node->handler(*node, ""), 1) << path; });
  }
  EXPECT_FALSE(grammar.find("HELP")->handler);
}

TEST(CommonCommand, HelpAlonePrintsWhatIsMissingAndNoHelpScreen) {
  const Executed executed = executeLine("HELP");
  EXPECT_EQ(executed.result, -1);
  EXPECT_EQ(executed.printed,
            "缺少必要选项:"
            "APP                           显示程序说明            \n"
            "CTRL                          显示快捷键说明         \n");
}

TEST(CommonCommand, HelpCtrlPrintsTheKeyTableByteForByte) {
  const std::string table = goldenText("shell/data/help_ctrl.txt");
  ASSERT_EQ(std::count(table.begin(), table.end(), '\n'), 53);
  for (const char* line : {"HELP CTRL", "help ctrl", "Help Ctrl"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, 0);
    EXPECT_EQ(executed.printed, table);
  }
}

TEST(CommonCommand, HelpAppPrintsTheExampleBoxByteForByte) {
  const std::string box = goldenText("shell/data/help_app.txt");
  ASSERT_EQ(std::count(box.begin(), box.end(), '\n'), 22);
  for (const char* line : {"HELP APP", "help app"}) {
    EXPECT_EQ(executeLine(line).printed, box);
  }
}

TEST(CommonCommand, HelpCtrlPausesAfterTwentyThreeLinesInATerminalOfTwentyFour) {
  loadedShell();
  OnATerminal console([] { TavCliCompletion::instance().executeLine("help ctrl"); });
  const std::string page = console.readUntil(kPagerPrompt);
  ASSERT_THAT(page, HasSubstr(kPagerPrompt));
  EXPECT_EQ(tableLines(page), 23);
  console.press('q');
}

TEST(CommonCommand, ABlankOrEnterShowsTheNextPageOfTheKeyTable) {
  loadedShell();
  for (const char key : {' ', '\r', '\n'}) {
    OnATerminal console([] { TavCliCompletion::instance().executeLine("HELP CTRL"); });
    console.readUntil(kPagerPrompt);
    console.press(key);
    const std::string second = console.readUntil(kPagerPrompt);
    EXPECT_EQ(std::count(second.begin(), second.end(), '\n'), 23);
    console.press(key);
    const std::string rest = console.readToTheEnd();
    EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 6);
    EXPECT_THAT(rest, HasSubstr("Alt-R"));
  }
}

TEST(CommonCommand, AnyOtherKeyEndsTheKeyTable) {
  loadedShell();
  OnATerminal console([] { TavCliCompletion::instance().executeLine("HELP CTRL"); });
  console.readUntil(kPagerPrompt);
  console.press('x');
  const std::string rest = console.readToTheEnd();
  EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 0);
}

TEST(CommonCommand, HistoryListsTheLinesNumbered) {
  const testsupport::TempDir folder;
  lineeditor::historyClear();
  ASSERT_EQ(lineeditor::historyLoad(folder.write("history", "SCAN SHOW\nCACHE SHOW SCANCACHE\n").c_str()), 0);
  for (const char* line : {"HISTORY", "history"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, 0);
    EXPECT_EQ(executed.printed, "   1  SCAN SHOW\n   2  CACHE SHOW SCANCACHE\n");
  }
}

TEST(CommonCommandDeathTest, QuitEndsTheProcessWithStatusZeroAtOnceWhateverFollows) {
  loadedShell();
  for (const char* line : {"QUIT", "quit", "QUIT SCAN START", "QUIT bogus"}) {
    EXPECT_EXIT(TavCliCompletion::instance().executeLine(line), testing::ExitedWithCode(0), "") << line;
  }
}

TEST(CommonCommandDeathTest, QuitRunsTheHookBeforeTheEnd) {
  loadedShell();
  EXPECT_EXIT(
      {
        TavCliCompletion::instance().setQuitHook([] { std::fputs("link stopped", stderr); });
        TavCliCompletion::instance().executeLine("QUIT");
      },
      testing::ExitedWithCode(0), "link stopped");
}

TEST(CommonCommandDeathTest, QuitWritesOutWhatWasPrinted) {
  loadedShell();
  const testsupport::TempDir folder;
  const std::string path = folder.at("out");
  EXPECT_EXIT(
      {
        dup2(open(path.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        std::fputs("half a line", stdout);
        TavCliCompletion::instance().executeLine("QUIT");
      },
      testing::ExitedWithCode(0), "");
  EXPECT_THAT(readFile(path), HasSubstr("half a line"));
}

TEST(CommonCommand, QuitInsideAnotherCommandDoesNotEndTheProcess) {
  const Executed executed = executeLine("HELP QUIT");
  EXPECT_EQ(executed.result, -1);
}
