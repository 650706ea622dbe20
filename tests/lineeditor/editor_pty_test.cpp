// The editor on a real terminal: the settings of the terminal, signals and hang-ups.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "RealTerminal.h"
#include "platform/Descriptor.h"
#include "support/Process.h"
#include "support/Pty.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace {

using testsupport::PtyProgram;
using testsupport::TerminalScreen;

const std::string kDriver = TAV_BIN_DIR "/editor_driver";

class EditorPty : public ::testing::Test {
 protected:
  void start(std::vector<std::string> arguments = {}, PtyProgram::Options options = {}) {
    arguments.insert(arguments.begin(), {kDriver, "--history", history_});
    arguments.insert(arguments.begin(), launcher_.begin(), launcher_.end());
    program_ = std::make_unique<PtyProgram>(arguments, options);
  }
  void startToPrompt(PtyProgram::Options options = {}) {
    start({}, options);
    ASSERT_TRUE(program().waitForPrompt("TAV>"));
  }
  PtyProgram& program() { return *program_; }
  void expectSettingsAsBefore() { EXPECT_EQ(program().sttyText(), program().sttyTextAtStart()); }
  /// Empties the line first.
  void expectSettingsAsBeforeAfterExit() {
    program().type(
        "\x15"
        "exit\r");
    EXPECT_EQ(program().wait(), 0);
    expectSettingsAsBefore();
  }
  void stop() {
    program().kill(SIGSTOP);
    ASSERT_TRUE(testsupport::waitFor([this] {
      return testsupport::readFile("/proc/" + std::to_string(program().pid()) + "/stat").find(") T ") !=
             std::string::npos;
    }));
  }
  bool raw() { return (program().settings().c_lflag & ICANON) == 0; }

  std::vector<std::string> launcher_;  ///< the words before the name of the program
  testsupport::TempDir dir_;
  const std::string history_ = dir_.at("cli.history");
  std::unique_ptr<PtyProgram> program_;
};

TEST_F(EditorPty, ThePromptStandsInItsColourWithTheCursorBehindIt) {
  startToPrompt();
  EXPECT_EQ(program().screen().cursorCol(), 5);
  EXPECT_EQ(program().screen().foreground(0, 0), 10);
}

TEST_F(EditorPty, RawModeClearsWhatItMustAndNothingElse) {
  start();
  const termios& before = program().settingsAtStart();
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
  const termios during = program().settings();
  EXPECT_EQ(during.c_lflag, before.c_lflag & ~static_cast<tcflag_t>(ISIG | ICANON | ECHO));
  EXPECT_EQ(during.c_iflag, before.c_iflag & ~static_cast<tcflag_t>(IXON));
  EXPECT_EQ(during.c_oflag, before.c_oflag);
  EXPECT_EQ(during.c_cc[VMIN], 1);
  EXPECT_EQ(during.c_cc[VTIME], 0);
}

TEST_F(EditorPty, AKeyIsShownAndALineIsHandedBack) {
  startToPrompt();
  program().type("scan 扫描");
  ASSERT_TRUE(program().waitForPrompt("TAV> scan 扫描"));
  EXPECT_EQ(program().screen().cursorCol(), 14);
  program().type("\r");
  ASSERT_TRUE(program().waitForText("<scan 扫描>"));
}

/// Starts the editor with a signal ignored, as nohup does.
class IgnoredSignal : public EditorPty, public ::testing::WithParamInterface<int> {};
TEST_P(IgnoredSignal, StaysIgnored) {
  const auto before = ::signal(GetParam(), SIG_IGN);
  start();
  ::signal(GetParam(), before);
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
  program().kill(GetParam());
  program().type("still here\r");
  EXPECT_TRUE(program().waitForText("<still here>"));
}
INSTANTIATE_TEST_SUITE_P(, IgnoredSignal,
                         ::testing::Values(SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGUSR1, SIGALRM),
                         [](const auto& test) { return std::string(sigabbrev_np(test.param)); });

struct EndRow {
  const char* name;
  const char* keys;
  int signal;
  bool savesHistory;
};
const EndRow kEnds[] = {
    {"Exit", "exit\r", 0, true},
    {"CtrlC", "half\x03", 0, true},
    {"CtrlD", "\x04", 0, true},
    {"Sigterm", "half", SIGTERM, true},
    {"Sighup", "half", SIGHUP, true},
    {"Sigint", "half", SIGINT, true},
    {"SigtermInASearch", "half\x12pat", SIGTERM, true},
    {"SigtermInAList", "\t", SIGTERM, true},
    {"SigtermInThePager", "\033OP", SIGTERM, true},
    {"SigtermInAQuestion", "\033OR", SIGTERM, true},
    {"SigtermInAPaste", "\033[200~half", SIGTERM, true},
    {"SigtermInHalfASequence", "half\033[", SIGTERM, true},
    {"SigtermInTheDebugMode", "\x1e", SIGTERM, true},
    {"SigtermInACommand", "!busy\r", SIGTERM, true},
    {"SigintInACommand", "!busy\r", SIGINT, true},
    {"Sigquit", "half", SIGQUIT, false},
    {"Sigalrm", "half", SIGALRM, false},
    {"Sigvtalrm", "half", SIGVTALRM, false},
    {"Sigprof", "half", SIGPROF, false},
    {"Sigusr1", "half", SIGUSR1, false},
    {"Sigusr2", "half", SIGUSR2, false},
    {"Sigio", "half", SIGIO, false},
    {"Sigpwr", "half", SIGPWR, false},
    {"Sigstkflt", "half", SIGSTKFLT, false},
    {"Sigxcpu", "half", SIGXCPU, false},
    {"Sigxfsz", "half", SIGXFSZ, false},
    {"Sigsys", "half", SIGSYS, false},
    {"Sigtrap", "half", SIGTRAP, false},
    {"ARealTimeSignal", "half", SIGRTMIN + 3, false},
};
class EditorEnds : public EditorPty, public ::testing::WithParamInterface<EndRow> {};

TEST_P(EditorEnds, LeaveTheTerminalAsItWas) {
  const EndRow& end = GetParam();
  startToPrompt();
  program().type("kept\r");
  ASSERT_TRUE(program().waitForText("<kept>"));
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
  ASSERT_TRUE(raw());
  program().type(end.keys);
  if (end.signal != 0) {
    ASSERT_TRUE(program().waitUntil(
        [&](const TerminalScreen& screen) { return screen.text() != "TAV> kept\n<kept>\nTAV>"; }));
    program().kill(end.signal);
  }
  EXPECT_EQ(program().wait(), end.savesHistory ? 0 : 128 + end.signal) << program().screen().text();
  expectSettingsAsBefore();
  EXPECT_EQ(testsupport::readFile(history_).starts_with("kept\n"), end.savesHistory);
  EXPECT_GT(program().written().rfind("\033[?2004l"), program().written().rfind("\033[?2004h"));
  if (end.savesHistory) {
    EXPECT_EQ(program().screen().cursorCol(), 0) << program().screen().text();
  }
}

INSTANTIATE_TEST_SUITE_P(, EditorEnds, ::testing::ValuesIn(kEnds),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(EditorPty, AnOverflowOfItsStackLeavesTheTerminalAsItWas) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "the sanitizers handle the overflow";
#endif
  startToPrompt();
  program().type("overflow \t");
  EXPECT_EQ(program().wait(), 128 + SIGSEGV) << program().screen().text();
  expectSettingsAsBefore();
  EXPECT_GT(program().written().rfind("\033[?2004l"), program().written().rfind("\033[?2004h"));
}

/// Input from a pipe, whose last line may lack its end; a line that a signal cuts off is another thing.
TEST(EditorOnAPipe, ToldToEndDoesNotRunHalfALine) {
  testsupport::Process program({kDriver});
  program.write("whole\nhalf");
  ASSERT_TRUE(program.waitForOut("<whole>"));
  const platform::Descriptor input(
      open(("/proc/" + std::to_string(program.pid()) + "/fd/0").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  ASSERT_TRUE(testsupport::waitFor([&] {
    int unread = -1;
    return ioctl(input.get(), FIONREAD, &unread) == 0 && unread == 0;
  }));
  program.kill(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.out().find("half"), std::string::npos) << program.out();
}

TEST(EditorOnAPipe, WritesNoSequenceWhenAFatalSignalEndsIt) {
  testsupport::Process program({kDriver});
  program.write("whole\n");
  ASSERT_TRUE(program.waitForOut("<whole>"));
  program.kill(SIGQUIT);
  EXPECT_EQ(program.wait(), 128 + SIGQUIT);
  EXPECT_EQ(program.out().find('\033'), std::string::npos) << program.out();
}

/// Puts the file in place of a descriptor of this process; a child calls it.
void putInPlace(int descriptor, const char* path, int flags) {
  const platform::Descriptor file(open(path, flags | O_CLOEXEC));
  dup2(file.get(), descriptor);
}

class OutputThatFails : public ::testing::TestWithParam<std::size_t> {};
TEST_P(OutputThatFails, EndsTheInput) {
  const auto inputIsEnded = [] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[0], STDIN_FILENO) < 0) {
      return false;
    }
    putInPlace(STDOUT_FILENO, "/dev/full", O_WRONLY);
    lineeditor::RealTerminal terminal;
    const bool before = terminal.read(0).kind == lineeditor::InputKind::kTimeout;
    terminal.write(std::string(GetParam(), 'x'));
    return before && terminal.read(0).kind == lineeditor::InputKind::kEnd;
  };
  EXPECT_EXIT(_exit(inputIsEnded() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}
INSTANTIATE_TEST_SUITE_P(, OutputThatFails, ::testing::Values(1, 1 << 20),
                         [](const auto& test) { return "OfBytes" + std::to_string(test.param); });

TEST(InputThatEnds, EndsWhateverErrorCameBefore) {
  const auto inputIsEnded = [] {
    putInPlace(STDIN_FILENO, "/dev/null", O_RDONLY);
    alarm(20);
    lineeditor::RealTerminal terminal;
    errno = EAGAIN;
    return terminal.read(lineeditor::kForever).kind == lineeditor::InputKind::kEnd;
  };
  EXPECT_EXIT(_exit(inputIsEnded() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(EditorPty, AHangUpEndsItWithTheHistorySaved) {
  startToPrompt();
  program().type("kept\rhalf");
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
  program().closeTerminal();
  EXPECT_EQ(program().wait(), 0);
  EXPECT_EQ(testsupport::readFile(history_), "kept\n");
}

TEST_F(EditorPty, CtrlLClearsTheScreenWithoutTheCommandClearToo) {
  for (const char* path : {"/usr/bin:/bin", "/nonexistent"}) {
    PtyProgram::Options options;
    options.environment["PATH"] = path;
    startToPrompt(options);
    program().type("one\rhalf");
    ASSERT_TRUE(program().waitForPrompt("TAV> half"));
    program().type("\x0c");
    EXPECT_TRUE(program().waitUntil([](const TerminalScreen& screen) {
      return screen.text() == "TAV> half";
    })) << path
        << program().screen().text();
  }
}

TEST_F(EditorPty, AHangUpIsNoErrorOfTheSettings) {
  const std::string errors = dir_.at("errors");
  launcher_ = {"sh", "-c", "exec \"$@\" 2>" + errors, "sh"};
  startToPrompt();
  program().closeTerminal();
  EXPECT_EQ(program().wait(), 0);
  EXPECT_EQ(testsupport::readFile(errors), "");
}

TEST_F(EditorPty, ASuspendedProgramComesBackWithItsLine) {
  startToPrompt();
  program().type("half");
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
  const termios during = program().settings();
  stop();
  program().makeCooked();
  program().kill(SIGCONT);
  ASSERT_TRUE(program().waitUntil(
      [&](const TerminalScreen&) { return testsupport::sameSettings(program().settings(), during); }));
  program().type("!\r");
  EXPECT_TRUE(program().waitForText("<half!>"));
}

TEST_F(EditorPty, AContinueWithoutAStopLeavesTheSavedSettings) {
  startToPrompt();
  program().type("half");
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
  program().kill(SIGCONT);
  program().type("!");
  ASSERT_TRUE(program().waitForPrompt("TAV> half!"));
  expectSettingsAsBeforeAfterExit();
}

TEST_F(EditorPty, ACommandThatIsStoppedAndContinuedLeavesTheSavedSettings) {
  startToPrompt();
  program().type("!busy\r");
  ASSERT_TRUE(program().waitForText("busy\n"));
  ASSERT_TRUE(program().waitUntil([this](const TerminalScreen&) { return !raw(); }));
  stop();
  program().kill(SIGCONT);
  program().kill(SIGURG);
  ASSERT_TRUE(program().waitForPrompt("TAV>"));
  program().type("half");
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
  expectSettingsAsBeforeAfterExit();
}

TEST_F(EditorPty, AWindowThatGetsNarrowerRedrawsTheLine) {
  startToPrompt();
  program().type("one two three four five six seven eight nine ten eleven twelve");
  ASSERT_TRUE(program().waitForText("twelve"));
  program().resize(24, 40);
  EXPECT_TRUE(program().waitUntil([](const TerminalScreen& screen) {
    return screen.row(0) == "TAV> one two three four five six seven e" &&
           screen.row(1) == "ight nine ten eleven twelve" && screen.cursorRow() == 1;
  })) << program().screen().text();
  program().resize(24, 80);
  EXPECT_TRUE(program().waitUntil([](const TerminalScreen& screen) {
    return screen.text() == "TAV> one two three four five six seven eight nine ten eleven twelve";
  })) << program().screen().text();
}

/// On a terminal that is not the controlling one: no signal tells of a change of the window.
class UncontrolledTerminal : public EditorPty {
 protected:
  UncontrolledTerminal() { launcher_ = {"setsid", "-w"}; }
};

TEST_F(UncontrolledTerminal, ARedrawIsMadeForTheWindowAsItIs) {
  startToPrompt();
  program().type("one two three four five six seven eight nine ten eleven twelve");
  ASSERT_TRUE(program().waitForText("twelve"));
  program().resize(24, 40);
  program().type("!");
  EXPECT_TRUE(program().waitUntil([](const TerminalScreen& screen) {
    return screen.row(0) == "TAV> one two three four five six seven e" &&
           screen.row(1) == "ight nine ten eleven twelve!" && screen.cursorRow() == 1;
  })) << program().screen().text();
}

TEST_F(UncontrolledTerminal, ALineIsBegunForTheWindowAsItIs) {
  startToPrompt();
  program().resize(24, 40);
  program().type("\r");
  EXPECT_TRUE(program().waitUntil([](const TerminalScreen& screen) {
    return screen.text() == "TAV>\n<>\nTAV>";
  })) << program().screen().text();
}

TEST_F(UncontrolledTerminal, APageIsCountedForTheWindowAsItIs) {
  std::string lines;
  for (int i = 1; i <= 60; ++i) {
    lines += "line " + std::to_string(i) + "\n";
  }
  dir_.write("cli.history", lines);
  startToPrompt();
  program().resize(10, 80);
  program().type("!list\r");
  ASSERT_TRUE(program().waitForText("*** Press <Space> or <Enter> to continue . . ."));
  EXPECT_EQ(program().screen().row(0), "   1  line 1") << program().screen().text();
  EXPECT_EQ(program().screen().row(8), "   9  line 9") << program().screen().text();
}

TEST_F(EditorPty, ALongPasteArrivesWholeAndIsEchoedByNobodyElse) {
  startToPrompt();
  std::string text;
  for (int i = 0; text.size() < 4000; ++i) {
    text += std::to_string(i) + "扫\r";
  }
  program().type("\033[200~" + text + "\033[201~");
  std::string expected;
  for (int i = 0, size = 0; size < 4000; ++i) {
    expected += std::to_string(i) + "扫 ";
    size += static_cast<int>(std::to_string(i).size()) + 4;
  }
  ASSERT_TRUE(program().waitUntil([](const TerminalScreen& screen) { return screen.cursorRow() > 20; }));
  program().type("\r");
  expected.pop_back();
  EXPECT_TRUE(program().waitUntil([&](const TerminalScreen&) {
    return program().written().find("<" + expected + ">") != std::string::npos;
  }));
  EXPECT_EQ(program().written().find("\033[200~"), std::string::npos);
  EXPECT_EQ(program().written().find("^["), std::string::npos) << "the terminal has echoed a key";
}

TEST_F(EditorPty, APasteWithoutMarksRunsLineByLineAndLosesNothing) {
  startToPrompt();
  std::string text;
  for (int i = 0; i < 200; ++i) {
    text += "line " + std::to_string(i) + "\r";
  }
  program().type(text);
  ASSERT_TRUE(program().waitForText("<line 199>"));
  std::size_t at = 0;
  for (int i = 0; i < 200; ++i) {
    at = program().written().find("<line " + std::to_string(i) + ">", at);
    ASSERT_NE(at, std::string::npos) << i;
  }
}

TEST_F(EditorPty, KeysTypedWhileACommandRunsArriveAtTheNextPrompt) {
  startToPrompt();
  program().type("!busy\r");
  ASSERT_TRUE(program().waitForText("busy\n"));
  ASSERT_TRUE(program().waitUntil([this](const TerminalScreen&) { return !raw(); }));
  program().type("next line\r");
  program().type("half");
  program().kill(SIGURG);
  ASSERT_TRUE(program().waitForText("<next line>")) << program().screen().text();
  ASSERT_TRUE(program().waitForPrompt("TAV> half"));
}

TEST_F(EditorPty, TheCursorsPlaceComesFromTheTerminal) {
  startToPrompt();
  program().type("!where\r");
  EXPECT_TRUE(program().waitForText("cursor 0 1 0"));
}

class DumbTerminals : public EditorPty, public ::testing::WithParamInterface<const char*> {};
TEST_P(DumbTerminals, GetNoSequenceFromAnErrorAndAPagedList) {
  std::string lines;
  for (int i = 0; i < 60; ++i) {
    lines += "line " + std::to_string(i) + "\n";
  }
  dir_.write("cli.history", lines);
  PtyProgram::Options options;
  options.environment["TERM"] = GetParam();
  start({}, options);
  program().type("!error\r");
  ASSERT_TRUE(program().waitForText("ERR: parameter error"));
  program().type("!list\r");
  ASSERT_TRUE(program().waitForText("*** Press <Space> or <Enter> to continue . . ."));
  program().type(" ");
  ASSERT_TRUE(program().waitForText("line 40"));
  program().type("qexit\r");
  EXPECT_EQ(program().wait(), 0);
  EXPECT_EQ(program().written().find('\033'), std::string::npos) << program().written();
  expectSettingsAsBefore();
}
INSTANTIATE_TEST_SUITE_P(, DumbTerminals,
                         ::testing::Values("dumb", "DUMB", "Dumb", "cons25", "emacs", "EMACS"),
                         [](const auto& test) { return std::string(test.param); });

class UsableTerminals : public EditorPty, public ::testing::WithParamInterface<const char*> {};
TEST_P(UsableTerminals, GetTheEditor) {
  PtyProgram::Options options;
  options.environment["TERM"] = GetParam();
  startToPrompt(options);
  program().type("x\x7fsc\t");
  EXPECT_TRUE(program().waitForPrompt("TAV> SCAN"));
}
INSTANTIATE_TEST_SUITE_P(, UsableTerminals, ::testing::Values("", "vt100", "linux", "screen", "dumber"));

TEST_F(EditorPty, AWindowThatReportsNoSizeCountsAs80By24) {
  startToPrompt();
  program().reportSize(0, 0);
  program().type(std::string(76, 'x'));
  EXPECT_TRUE(program().waitUntil([](const TerminalScreen& screen) {
    return screen.row(0) == "TAV> " + std::string(75, 'x') && screen.row(1) == "x";
  })) << program().screen().text();
  program().type("\x15\033OP");
  ASSERT_TRUE(program().waitForText("*** Press"));
  EXPECT_EQ(program().screen().row(22), " | key line 23");
}

TEST_F(EditorPty, NoticesThroughoutLeaveTheTypedLineWhole) {
  for (const int cols : {80, 50}) {
    PtyProgram::Options options;
    options.cols = cols;
    start({"--notices", "1"}, options);
    ASSERT_TRUE(program().waitForText("扫描进度"));
    const std::string text = "SCAN START HANDLE AUTO SPECIALCONFIG ON MODE CUSTOM PATH /home/扫描";
    for (const char c : text) {
      program().type(std::string(1, c));
    }
    const std::vector<std::string> rows =
        cols == 80 ? std::vector<std::string>{"TAV> " + text}
                   : std::vector<std::string>{"TAV> SCAN START HANDLE AUTO SPECIALCONFIG ON MODE",
                                              "CUSTOM PATH /home/扫描"};
    const int count = static_cast<int>(rows.size());
    ASSERT_TRUE(program().waitUntil([&](const TerminalScreen& screen) {
      bool same = screen.cursorRow() >= count - 1;
      for (int i = 0; same && i < count; ++i) {
        same = screen.row(screen.cursorRow() - count + 1 + i) == rows[static_cast<std::size_t>(i)];
      }
      return same;
    })) << program().screen().text();
    program().type("\r");
    ASSERT_TRUE(program().waitForText("<SCAN START"));
    program().type("exit\r");
    EXPECT_EQ(program().wait(), 0);
  }
}

}  // namespace
