// The console on a terminal: a real pty, a terminal emulator, and an agent that the test plays.
#include <gtest/gtest.h>

#include <csignal>

#include "json/Values.h"
#include "support/InstallTree.h"
#include "support/LunetctlAgent.h"
#include "support/Pty.h"

namespace {

using json::TaskState;
using testsupport::InstallTree;
using testsupport::LunetctlAgent;
using testsupport::PtyProgram;
using testsupport::TerminalScreen;

constexpr const char* kPagerPrompt = "*** Press <Space> or <Enter> to continue . . .";

class ConsolePty : public ::testing::Test {
 protected:
  std::unique_ptr<PtyProgram> startConsole(int cols = 80, const char* term = "xterm-256color") {
    PtyProgram::Options options;
    options.cols = cols;
    options.workingDir = tree_.at("bin");
    options.environment = {{"XDG_STATE_HOME", tree_.at("home")}, {"TERM", term}, {"CKORVIX_CLOG_LEVEL", ""}};
    return std::make_unique<PtyProgram>(std::vector<std::string>{TAV_BIN_DIR "/tavcli"}, options);
  }
  void start(int cols = 80, const char* term = "xterm-256color") {
    program_ = startConsole(cols, term);
    ASSERT_TRUE(program_->waitForText("[Load Command] Trust")) << program_->screen().text();
  }
  void startToPrompt(int cols = 80) {
    start(cols);
    ASSERT_TRUE(program_->waitForPrompt("TAV>")) << program_->screen().text();
  }
  PtyProgram& program() { return *program_; }
  const TerminalScreen& screen() { return program_->screen(); }
  std::string historyFile() const { return testsupport::readFile(tree_.at("home/tavcli/cli.history")); }
  /// Runs a line whose answer ends with the next prompt.
  void run(const std::string& line) {
    program().type(line);
    ASSERT_TRUE(program().waitForPrompt("TAV> " + line)) << screen().text();
    program().type("\r");
    ASSERT_TRUE(program().waitForPrompt("TAV>")) << screen().text();
  }
  std::string below(const std::string& row) {
    const std::string text = screen().text();
    const std::size_t at = text.rfind(row);
    return at == std::string::npos ? "" : text.substr(at);
  }

  InstallTree tree_;
  LunetctlAgent agent_{tree_};
  std::unique_ptr<PtyProgram> program_;
};

TEST_F(ConsolePty, ThePromptStandsInItsColourUnderTheStartUpLines) {
  startToPrompt();
  const int row = screen().cursorRow();
  EXPECT_EQ(screen().row(row - 1), "[Load Command] Trust");
  EXPECT_EQ(screen().cursorCol(), 5);
  EXPECT_EQ(screen().foreground(row, 0), 10);
}

TEST_F(ConsolePty, ScCompletesToScanWithABlank) {
  startToPrompt();
  program().type("sc\t");
  ASSERT_TRUE(program().waitForPrompt("TAV> SCAN"));
  EXPECT_EQ(screen().cursorCol(), 10);
}

TEST_F(ConsolePty, TabOnAnEmptyLineListsEveryCommandWithItsHelp) {
  startToPrompt();
  program().type("\t");
  ASSERT_TRUE(program().waitForText("显示命令历史"));
  for (const char* name :
       {"SCAN", "CONFIG", "ISOLATION", "TRUSTREGION", "CACHE", "HISTORY", "HELP", "QUIT", "缓存管理"}) {
    EXPECT_TRUE(screen().contains(name)) << name;
  }
  EXPECT_EQ(screen().row(screen().cursorRow()), "TAV>");
  program().type("x");
  ASSERT_TRUE(program().waitForPrompt("TAV> x"));
  EXPECT_FALSE(screen().contains("显示命令历史")) << "typing over the list leaves nothing of it";
}

TEST_F(ConsolePty, AKeywordWithoutABlankOffersNothingWithOneItsChildren) {
  startToPrompt();
  program().type("CACHE\t");
  ASSERT_TRUE(program().waitUntil(
      [&](const TerminalScreen&) { return program().written().find('\a') != std::string::npos; }));
  EXPECT_EQ(screen().row(screen().cursorRow()), "TAV> CACHE");
  EXPECT_EQ(below("TAV> CACHE"), "TAV> CACHE");
  program().type(" \t");
  ASSERT_TRUE(program().waitForText("清理缓存"));
  EXPECT_FALSE(screen().contains("显示命令历史")) << "children of CACHE only";
}

TEST_F(ConsolePty, AValueKeywordShowsItsHintInWhiteOnCyan) {
  startToPrompt();
  program().type("SCAN START HANDLE AUTO SPECIALCONFIG ON MODE CUSTOM PATH \t");
  ASSERT_TRUE(program().waitForText("[string]")) << screen().text();
  const int row = screen().cursorRow() + 1;
  EXPECT_EQ(screen().background(row, 2), 6);
  EXPECT_EQ(screen().foreground(row, 2), 7);
}

TEST_F(ConsolePty, HelpCtrlPausesAfterTwentyThreeLines) {
  startToPrompt();
  program().type("help ctrl\r");
  ASSERT_TRUE(program().waitForPrompt(kPagerPrompt));
  EXPECT_TRUE(screen().contains(" | F1                      |  显示快捷方式帮助信息"));
  EXPECT_EQ(screen().row(22), " | Ctrl-T                  |  置换光标前两个字符位置");
  program().type(" ");
  ASSERT_TRUE(program().waitForText("查看历史命令"));
  ASSERT_TRUE(program().waitForPrompt(kPagerPrompt));
  program().type("\r");
  ASSERT_TRUE(program().waitForText("清空行"));
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
}

TEST_F(ConsolePty, AnyOtherKeyEndsTheListing) {
  startToPrompt();
  program().type("HELP CTRL\r");
  ASSERT_TRUE(program().waitForPrompt(kPagerPrompt));
  program().type("q");
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
  EXPECT_FALSE(screen().contains("清空行"));
  EXPECT_FALSE(screen().contains("***"));
}

TEST_F(ConsolePty, F1ShowsTheSameTableAndTheLineComesBack) {
  startToPrompt();
  program().type("half a line\033OP");
  ASSERT_TRUE(program().waitForPrompt(kPagerPrompt));
  EXPECT_EQ(screen().row(22), " | Ctrl-T                  |  置换光标前两个字符位置");
  program().type("q");
  ASSERT_TRUE(program().waitForPrompt("TAV> half a line"));
}

TEST_F(ConsolePty, AHistorySearchPutsTheChosenLineIntoThePrompt) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\nCONFIG SHOW\nCACHE SHOW SCANCACHE\n");
  startToPrompt();
  program().type("\x12");
  ASSERT_TRUE(program().waitForPrompt("Input Patterns <F1> help:"));
  program().type("show -config\r");
  ASSERT_TRUE(program().waitForText("Input history id: 1"));
  EXPECT_TRUE(screen().contains("   1  SCAN SHOW\n   2  CACHE SHOW SCANCACHE\nInput history id: 1"));
  program().type(
      "\x7f"
      "2\r");
  ASSERT_TRUE(program().waitForPrompt("TAV> CACHE SHOW SCANCACHE"));
  program().type(" ");
  ASSERT_TRUE(program().waitUntil([](const TerminalScreen& now) { return !now.contains("Input"); }));
  EXPECT_EQ(screen().row(screen().cursorRow() - 1), "[Load Command] Trust")
      << "nothing of the search is left";
}

TEST_F(ConsolePty, HistoryInLowerCaseIsListedTwice) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\n");
  startToPrompt();
  run("history");
  EXPECT_EQ(below("TAV> history"), "TAV> history\n   1  SCAN SHOW\n   1  SCAN SHOW\nTAV>");
  run("HISTORY");
  EXPECT_EQ(below("TAV> HISTORY"), "TAV> HISTORY\n   1  SCAN SHOW\n   2  HISTORY\nTAV>");
}

class NotificationsAt : public ConsolePty, public ::testing::WithParamInterface<int> {};
TEST_P(NotificationsAt, ComeAboveTheHalfTypedLine) {
  startToPrompt(GetParam());
  program().type("SCAN START HANDLE AUTO SPECIALCONFIG ON MODE CUSTOM PATH /home/扫描\x02\x02\x02");
  const auto lineStands = [](const TerminalScreen& now) {
    std::string line;
    for (int row = 0; row < now.rows(); ++row) {
      if (now.row(row).starts_with("TAV> ")) {
        line.clear();
      }
      line += now.row(row);
    }
    const std::string whole =
        now.cols() == 50 ? "TAV> SCAN START HANDLE AUTO SPECIALCONFIG ON MODECUSTOM PATH /home/扫描"
                         : "TAV> SCAN START HANDLE AUTO SPECIALCONFIG ON MODE CUSTOM PATH /home/扫描";
    constexpr int kColumnsBeforeTheCursor = 67;
    return line == whole && now.cursorCol() == kColumnsBeforeTheCursor % now.cols();
  };
  ASSERT_TRUE(program().waitUntil(lineStands)) << screen().text() << screen().cursorCol();
  agent_.state(TaskState::kStarted);
  ASSERT_TRUE(program().waitForText("扫描任务开始:"));
  for (int percent = 10; percent <= 50; percent += 10) {
    agent_.progress(percent);
  }
  ASSERT_TRUE(program().waitForText("扫描进度: 50%"));
  ASSERT_TRUE(program().waitUntil(lineStands)) << screen().text() << screen().cursorCol();
  program().type("\x18");
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
}
INSTANTIATE_TEST_SUITE_P(, NotificationsAt, ::testing::Values(80, 50),
                         [](const auto& test) { return "Columns" + std::to_string(test.param); });

TEST_F(ConsolePty, ANotificationInThePagerComesAboveItsPrompt) {
  startToPrompt();
  program().type("HELP CTRL\r");
  ASSERT_TRUE(program().waitForPrompt(kPagerPrompt));
  agent_.progress(7);
  ASSERT_TRUE(program().waitForText("扫描进度: 7%"));
  ASSERT_TRUE(program().waitForPrompt(kPagerPrompt));
  EXPECT_EQ(screen().row(22), "扫描进度: 7%");
}

TEST_F(ConsolePty, ANotificationInASearchComesAboveIt) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\n");
  startToPrompt();
  program().type("half\x12scan");
  ASSERT_TRUE(program().waitForPrompt("Input Patterns <F1> help: scan"));
  agent_.progress(7);
  ASSERT_TRUE(program().waitForText("扫描进度: 7%"));
  ASSERT_TRUE(program().waitForPrompt("Input Patterns <F1> help: scan"));
  program().type("\x03");
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
}

TEST_F(ConsolePty, KeysTypedWhileACommandWaitsForTheAgentArriveAtTheNextPrompt) {
  startToPrompt();
  program().type("CACHE SHOW SCANCACHE\r");
  const LunetctlAgent::Message call = agent_.waitForCall("getScanCacheDetail");
  program().type("half a line");
  agent_.answer(call, 42);
  ASSERT_TRUE(program().waitForText("  当前存在42项扫描缓存"));
  ASSERT_TRUE(program().waitForPrompt("TAV> half a line")) << screen().text();
}

TEST_F(ConsolePty, AMissingOptionIsReportedAndThePromptKeepsItsColour) {
  startToPrompt();
  run("CACHE");
  EXPECT_EQ(below("TAV> CACHE"),
            "TAV> CACHE\n缺少必要选项:CLEAN                         清理缓存\n"
            "SHOW                          显示缓存信息\nTAV>");
  EXPECT_EQ(screen().foreground(screen().cursorRow(), 0), 10);
  EXPECT_EQ(screen().foreground(screen().cursorRow(), 5), -1);
}

struct EndRow {
  const char* name;
  const char* keys;
  int signal;
  bool savesHistory;
};
const EndRow kEnds[] = {
    {"CtrlC", "half\x03", 0, true},
    {"CtrlD", "\x04", 0, true},
    {"Exit", "exit\r", 0, true},
    {"Quit", "QUIT\r", 0, false},
    {"QuitWithMoreWords", "quit now please\r", 0, false},
    {"Sigterm", "half", SIGTERM, true},
    {"Sighup", "half", SIGHUP, true},
    {"Sigint", "half", SIGINT, true},
};
class ConsoleEnds : public ConsolePty, public ::testing::WithParamInterface<EndRow> {};

TEST_P(ConsoleEnds, LeaveTerminalHistoryAndMarkInOrder) {
  startToPrompt();
  EXPECT_NE(program().sttyText(), program().sttyTextAtStart()) << "the prompt's settings are its own";
  run("HISTORY");
  program().type(GetParam().keys);
  if (GetParam().signal != 0) {
    ASSERT_TRUE(program().waitForPrompt("TAV> half"));
    program().kill(GetParam().signal);
  }
  EXPECT_EQ(program().wait(), 0) << screen().text();
  EXPECT_EQ(program().sttyText(), program().sttyTextAtStart());
  EXPECT_EQ(historyFile(),
            GetParam().savesHistory
                ? "HISTORY\n" + std::string(GetParam().name == std::string("Exit") ? "exit\n" : "")
                : "");
  EXPECT_EQ(screen().cursorCol(), 0) << "what comes next starts on a row of its own";
  const auto second = startConsole();
  EXPECT_TRUE(second->waitForText("[Load Command] Trust")) << "the mark is released";
}
INSTANTIATE_TEST_SUITE_P(, ConsoleEnds, ::testing::ValuesIn(kEnds),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(ConsolePty, AClosedTerminalEndsTheConsoleWithTheHistorySaved) {
  startToPrompt();
  run("HISTORY");
  program().type("half");
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
  program().closeTerminal();
  EXPECT_EQ(program().wait(), 0);
  EXPECT_EQ(historyFile(), "HISTORY\n");
}

TEST_F(ConsolePty, ADumbTerminalGetsNoSequence) {
  start(80, "DUMB");
  program().type("CACHE\r");
  ASSERT_TRUE(program().waitForText("缺少必要选项:CLEAN"));
  program().type("HELP CTRL\r");
  ASSERT_TRUE(program().waitForText(kPagerPrompt));
  program().type("q");
  ASSERT_TRUE(program().waitUntil([](const TerminalScreen& now) { return !now.contains("***"); }));
  program().type("exit\r");
  EXPECT_EQ(program().wait(), 0);
  EXPECT_EQ(program().written().find('\033'), std::string::npos);
  EXPECT_EQ(program().sttyText(), program().sttyTextAtStart());
}

}  // namespace
