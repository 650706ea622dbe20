#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "HistoryRing.h"
#include "lineeditor/EditorFixture.h"
#include "support/TempDir.h"

namespace lineeditor {

namespace {

class History : public EditorFixture {
 protected:
  /// The output of historyList().
  std::string listed(bool numbered, const char* patterns, std::int32_t* count = nullptr) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    const std::int32_t result = historyList(stream, numbered, patterns, 0, false);
    std::fclose(stream);
    std::string out(text, size);
    std::free(text);
    if (count != nullptr) {
      *count = result;
    }
    return out;
  }
  void store(std::initializer_list<const char*> lines) {
    for (const char* line : lines) {
      historyStore(line);
    }
  }
  testsupport::TempDir dir_;
};

TEST_F(History, After300LinesTheListingShows256BeginningWithThe45th) {
  storeLines(300);
  std::int32_t count = 0;
  const std::string text = listed(true, nullptr, &count);
  EXPECT_EQ(count, 256);
  EXPECT_TRUE(text.starts_with("   1  line 45\n   2  line 46\n")) << text.substr(0, 60);
  EXPECT_TRUE(text.ends_with("\n 255  line 299\n 256  line 300\n"));
}

TEST_F(History, ASavedHistoryOfTenLinesReloadsAsTheSameLines) {
  std::string expected;
  for (int i = 1; i <= 10; ++i) {
    historyStore("第 " + std::to_string(i));
    expected += "第 " + std::to_string(i) + "\n";
  }
  const std::string path = dir_.at("cli.history");
  EXPECT_EQ(historySave(path.c_str()), 0);
  EXPECT_EQ(testsupport::readFile(path), expected);
  historyClear();
  EXPECT_EQ(historyLoad(path.c_str()), 0);
  EXPECT_EQ(listed(false, nullptr), expected);
}

TEST_F(History, BlankLinesOfTheFileAreDroppedAndCarriageReturnsRemoved) {
  const std::string path = dir_.write("h", "\none\r\n\r\n\ntwo\r\r\n\nthree");
  EXPECT_EQ(historyLoad(path.c_str()), 0);
  EXPECT_EQ(listed(false, nullptr), "one\ntwo\nthree\n");
}

TEST_F(History, ALineOf5000BytesComesBackAsTwoEntries) {
  const std::string path = dir_.write("h", std::string(5000, 'x') + "\nnext\n");
  historyLoad(path.c_str());
  EXPECT_EQ(historyCount, 3U);
  EXPECT_EQ(std::string(historyRing[0]).size(), 4095U);
  EXPECT_EQ(std::string(historyRing[1]).size(), 905U);
  EXPECT_STREQ(historyRing[2], "next");
}

TEST_F(History, ALineOf4095BytesIsOneEntry) {
  const std::string path = dir_.write("h", std::string(4095, 'x') + "\n");
  historyLoad(path.c_str());
  EXPECT_EQ(historyCount, 1U);
}

TEST_F(History, ALongLineOfTheFileIsNeverCutThroughACharacter) {
  const std::string path = dir_.write("h", std::string(4094, 'x') + "中文\n");
  historyLoad(path.c_str());
  EXPECT_EQ(std::string(historyRing[0]), std::string(4094, 'x'));
  EXPECT_STREQ(historyRing[1], "中文");
}

TEST_F(History, LoadedLinesAreNotCheckedForDuplicates) {
  const std::string path = dir_.write("h", "a\na\nhistory\n");
  historyLoad(path.c_str());
  EXPECT_EQ(listed(false, nullptr), "a\na\nhistory\n");
}

TEST_F(History, ADamagedFileIsLoadedAsFarAsItGoes) {
  const std::string path = dir_.write("h", std::string("a\0b\nc\x1b[2J\xff\n\0\nlast", 17));
  EXPECT_EQ(historyLoad(path.c_str()), 0);
  EXPECT_EQ(historyCount, 3U);
  EXPECT_EQ(listed(false, nullptr), "a\nc\\x1b[2J\\xff\nlast\n") << "nothing raw reaches the terminal";
}

TEST_F(History, LoadSaysMinusOneWithoutAPathOrAFile) {
  store({"kept"});
  EXPECT_EQ(historyLoad(nullptr), -1);
  EXPECT_EQ(historyLoad(dir_.at("none").c_str()), -1);
  EXPECT_EQ(historyLoad(dir_.path().c_str()), -1);
  mkfifo(dir_.at("pipe").c_str(), 0600);
  EXPECT_EQ(historyLoad(dir_.at("pipe").c_str()), -1);
  EXPECT_EQ(historyCount, 1U);
}

TEST_F(History, SaveSaysMinusOneWithoutAPathOrAFolderAndKeepsTheMemory) {
  store({"kept"});
  EXPECT_EQ(historySave(nullptr), -1);
  EXPECT_EQ(historySave(dir_.at("no/such/folder/h").c_str()), -1);
  EXPECT_EQ(historyCount, 1U);
}

TEST_F(History, TheFileIsCreatedWithMode0600) {
  store({"secret path"});
  const mode_t before = umask(0);
  const std::string path = dir_.at("h");
  EXPECT_EQ(historySave(path.c_str()), 0);
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(History, AnOldFileWithWiderModeBecomes0600) {
  const std::string path = dir_.write("h", "old\n");
  chmod(path.c_str(), 0644);
  store({"new"});
  EXPECT_EQ(historySave(path.c_str()), 0);
  struct stat status {};
  stat(path.c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

/// A child process with a limit on the size of files; its writes fail as on a full disk.
TEST_F(History, AFullDiskLeavesTheOldFileWhole) {
  const std::string path = dir_.write("h", "old one\nold two\n");
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 50; ++i) {
      historyStore(std::string(4000, static_cast<char>('a' + i % 26)));
    }
    _exit(historySave(path.c_str()) == -1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(testsupport::readFile(path), "old one\nold two\n");
  int files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    ++files;
  }
  EXPECT_EQ(files, 1) << "no temporary file stays";
}

/// A kill at any moment of a save leaves a whole file.
TEST_F(History, AKillLeavesTheOldOrTheNewFileWhole) {
  const std::string path = dir_.write("h", std::string(2000, 'a') + "\n");
  for (int round = 0; round < 20; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      for (int i = 0;; ++i) {
        historyClear();
        historyStore(std::string(2000, static_cast<char>('a' + i % 26)));
        historySave(path.c_str());
      }
    }
    usleep(static_cast<useconds_t>(300 + round * 137));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const std::string content = testsupport::readFile(path);
    ASSERT_EQ(content.size(), 2001U);
    EXPECT_EQ(content, std::string(2000, content[0]) + "\n");
  }
}

TEST_F(History, ClearEmptiesTheRing) {
  store({"a", "b"});
  historyClear();
  EXPECT_EQ(historyCount, 0U);
  EXPECT_EQ(listed(true, nullptr), "");
  EXPECT_EQ(historyRing[1][0], '\0');
}

TEST_F(History, AnEntryIsCutTo4095BytesBetweenCharacters) {
  historyStore(std::string(4094, 'x') + "中");
  EXPECT_EQ(std::string(historyRing[0]).size(), 4094U);
}

struct PatternRow {
  const char* name;
  const char* patterns;
  std::vector<std::string> tokens;
};
const PatternRow kPatterns[] = {
    {"Nothing", "", {}},
    {"BlanksOnly", "   ", {}},
    {"OneWord", "SCAN", {"scan"}},
    {"TwoWords", "  scan   Start ", {"scan", "start"}},
    {"Exclusion", "-Scan", {"-scan"}},
    {"Phrase", "\"Select From\"", {"select from"}},
    {"ExcludedPhrase", "-\"Order  By\"", {"-order  by"}},
    {"PhraseAndMore",
     "\"select from\" where -\"order by\" -limit",
     {"select from", "where", "-order by", "-limit"}},
    {"PhraseWithoutItsEnd", "a \"b c ", {"a", "b c "}},
    {"PhraseEndsAtItsQuote", "\"a b\"c", {"a b", "c"}},
    {"QuoteInsideAWord", "a\"b c\"", {"a\"b", "c\""}},
    {"EmptyPhrase", "\"\"", {""}},
    {"OnlyAMinus", "-", {"-"}},
};
class Patterns : public ::testing::TestWithParam<PatternRow> {};
TEST_P(Patterns, AreCutIntoTokens) {
  EXPECT_EQ(patternTokens(GetParam().patterns), GetParam().tokens);
}
INSTANTIATE_TEST_SUITE_P(, Patterns, ::testing::ValuesIn(kPatterns),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(History, TokensBeyondSixteenAreIgnored) {
  std::string text;
  for (int i = 0; i < 20; ++i) {
    text += "t" + std::to_string(i) + " ";
  }
  const std::vector<std::string> tokens = patternTokens(text);
  ASSERT_EQ(tokens.size(), 16U);
  EXPECT_EQ(tokens.back(), "t15");
}

TEST_F(History, AWordAndAnExcludedPhraseListWhatHasTheOneWithoutTheOther) {
  store({"SCAN START", "scan MODE CUSTOM PATH /x", "CONFIG SHOW", "Scan Mode custom path", "CUSTOM rescan"});
  EXPECT_EQ(listed(true, "SCAN -\"custom path\""), "   1  SCAN START\n   2  CUSTOM rescan\n");
}

TEST_F(History, NoPatternsMatchEveryLine) {
  store({"a", "b"});
  EXPECT_EQ(listed(false, ""), "a\nb\n");
}

TEST_F(History, SelectingPrintsNothingAndGivesTheSlotPlusOne) {
  store({"x1", "y", "x2"});
  EXPECT_EQ(historyList(stdout, true, "x", 2, false), 3);
  EXPECT_EQ(historyList(stdout, true, "x", 1, false), 1);
  EXPECT_EQ(historyList(stdout, true, "x", 3, false), 2) << "past the end: how many there were";
  flushOutput();
  EXPECT_EQ(terminal().written(), "");
}

TEST_F(History, HistoryShowIsNumberedAndPaged) {
  storeLines(60);
  terminal().type("q");
  historyShow();
  flushOutput();
  EXPECT_NE(terminal().text().find("  23  line 23"), std::string::npos);
  EXPECT_EQ(terminal().text().find("line 24"), std::string::npos);
}

TEST_F(History, HistoryShowIsNotPagedWhenInputIsNoTerminal) {
  terminal().isTerminal = false;
  storeLines(60);
  historyShow();
  flushOutput();
  EXPECT_TRUE(terminal().written().ends_with("  60  line 60\n"));
}

class Search : public History {
 protected:
  void SetUp() override {
    History::SetUp();
    lastPatterns.clear();
    store({"SCAN START", "CONFIG SHOW", "scan stop", "QUIT"});
  }
};

TEST_F(Search, TheMatchesAreListedAndTheIdChoosesOne) {
  typeThen("typed\x12", [this] { EXPECT_EQ(terminal().text(), "Input Patterns <F1> help:"); });
  typeThen("scan\r", [this] {
    EXPECT_EQ(terminal().text(),
              "Input Patterns <F1> help: scan\n   1  SCAN START\n   2  scan stop\nInput history id: 1");
    EXPECT_EQ(terminal().cursorCol(), 19);
  });
  typeThen(
      "\x7f"
      "2\r",
      [this] {
        EXPECT_EQ(terminal().text(),
                  "Input Patterns <F1> help: scan\n   1  SCAN START\n   2  scan stop\nInput history id: "
                  "2\nTAV> scan stop");
      });
  typeThen("!", [this] {
    EXPECT_EQ(terminal().text(), "TAV> scan stop!") << "typing leaves nothing of the search";
  });
  EXPECT_EQ(readKeys("\r"), "scan stop!");
}

TEST_F(Search, TheAnswersAreNotRecorded) {
  EXPECT_EQ(readKeys("\x12scan\r2\x7f\r\r"), "SCAN START");
  EXPECT_EQ(historyCount, 5U);
}

class InvalidId : public Search, public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};
TEST_P(InvalidId, IsReportedAndDoesNotChangeTheLine) {
  typeThen("typed\x12scan\r\x7f", nullptr);
  typeThen(std::string(GetParam().second) + "\r", [this] {
    EXPECT_NE(
        terminal().text().find(std::string("\nInvalid history id: ") + GetParam().second + "\nTAV> typed"),
        std::string::npos)
        << terminal().text();
  });
  typeThen("!", [this] { EXPECT_EQ(terminal().text(), "TAV> typed!"); });
  EXPECT_EQ(readKeys("\r"), "typed!");
}
INSTANTIATE_TEST_SUITE_P(, InvalidId,
                         ::testing::Values(std::make_pair("Zero", "0"), std::make_pair("TooLarge", "3"),
                                           std::make_pair("Negative", "-1"), std::make_pair("Letters", "abc"),
                                           std::make_pair("ManyDigits", "9999999")),
                         [](const auto& test) { return std::string(test.param.first); });

TEST_F(Search, AnEmptyIdListsTheMatchesOnceMoreAndSelectsNone) {
  typeThen("typed\x12scan\r\x7f\r", [this] {
    EXPECT_EQ(terminal().text(),
              "Input Patterns <F1> help: scan\n   1  SCAN START\n   2  scan stop\nInput history id:\n"
              "   1  SCAN START\n   2  scan stop\nTAV> typed");
  });
  EXPECT_EQ(readKeys("\r"), "typed");
}

TEST_F(Search, NothingFoundLeavesTheLine) {
  typeThen("typed\x12nothing like it\r",
           [this] { EXPECT_TRUE(terminal().text().ends_with("\nTAV> typed")); });
  EXPECT_EQ(readKeys("!\r"), "typed!");
}

TEST_F(Search, CancellingThePatternsLeavesTheLine) {
  for (const char* key : {"\x03", "\x04"}) {
    EXPECT_EQ(readKeys(std::string("typed\x12") + key + "!\r"), "typed!");
  }
}

TEST_F(Search, CancellingTheIdLeavesTheLine) {
  EXPECT_EQ(readKeys("typed\x12scan\r\x03!\r"), "typed!");
  EXPECT_EQ(readKeys("typed\x12scan\r\x18\x04!\r"), "typed!");
}

TEST_F(Search, F4StartsFromTheCurrentInput) {
  typeThen("stop\033OS", [this] { EXPECT_EQ(terminal().text(), "Input Patterns <F1> help: stop"); });
  EXPECT_EQ(readKeys("\r\r\r"), "scan stop");
}

TEST_F(Search, TheLastPatternsComeBackWithThePasteKeys) {
  for (const char* key : {"\x19", "\x16", "\033[2~"}) {
    lastPatterns.clear();
    typeThen("\x12stop -start\r\x03", nullptr);
    typeThen("\x12", nullptr);
    typeThen(key, [this] {
      EXPECT_TRUE(terminal().text().ends_with("Input Patterns <F1> help: stop -start")) << terminal().text();
    });
    EXPECT_EQ(readKeys("\r\r\r"), "scan stop");
  }
}

TEST_F(Search, WithoutLastPatternsThePasteKeysBringWhatWasCutLast) {
  for (const char* key : {"\x19", "\x16", "\033[2~"}) {
    lastPatterns.clear();
    typeThen("stop\x18\x12", nullptr);
    typeThen(key, [this] {
      EXPECT_TRUE(terminal().text().ends_with("Input Patterns <F1> help: stop")) << terminal().text();
    });
    EXPECT_EQ(readKeys("\r\r\r"), "scan stop");
  }
}

TEST_F(Search, WhatAnEarlierLineCutIsPastedInTheFirstSearchToo) {
  EXPECT_EQ(readKeys("stop\x18x\r"), "x");
  EXPECT_EQ(readKeys("\x12\x19\r\r\r"), "scan stop");
}

TEST_F(Search, LastPatternsComeBeforeWhatWasCut) {
  lastPatterns = "stop";
  EXPECT_EQ(readKeys("nothing like it\x18\x12\x19\r\r\r"), "scan stop");
}

TEST_F(Search, WhatIsCutInAPromptOfTheSearchComesBeforeItsLastPatterns) {
  lastPatterns = "nothing like it";
  EXPECT_EQ(readKeys("\x12stop\x18\x19\r\r\r"), "scan stop");
}

TEST_F(Search, TheIdPromptPastesWhatWasCutLast) {
  EXPECT_EQ(readKeys("2\x18\x12scan\r\x7f\x19\r\r"), "scan stop");
}

TEST_F(Search, WhatIsCutInASearchIsPastedAtThePrompt) {
  EXPECT_EQ(readKeys("older\x18\x12newer\x18\x03\x19\r"), "newer");
}

TEST_F(Search, F1ShowsThePatternHelp) {
  typeThen("\x12sc\033OP", [this] {
    EXPECT_EQ(terminal().text(),
              "Patterns are separated by ' ', patter match is case insensitive:\n"
              "  (Hint: use Ctrl-Y/Ctrl-V/Insert to paste last paterns)\n"
              "    select:   choose line including 'select'\n"
              "    -select:  choose line excluding 'select'\n"
              "    \"select from\":  choose line including \"select from\"\n"
              "    -\"select from\": choose line excluding \"select from\"\n"
              "Example:\n"
              "    \"select from\" where -\"order by\" -limit:\n"
              "         choose line including \"select from\" and 'where'\n"
              "         and excluding \"order by\" or 'limit'\n"
              "Input Patterns <F1> help: sc");
  });
  typeThen("an\r\r", nullptr);
  typeThen("!\x7f", [this] { EXPECT_EQ(terminal().text(), "TAV> SCAN START"); });
  EXPECT_EQ(readKeys("\r"), "SCAN START");
}

TEST_F(Search, F1InTheIdPromptShowsTheTableOfKeysAndLeavesNothingOfIt) {
  setKeyHelp([] { plainPrint(" \b\n | F1\n | Ctrl-B\n"); });
  typeThen("typed\x12scan\r", nullptr);
  typeThen("\033OP", [this] {
    EXPECT_EQ(terminal().text(),
              "Input Patterns <F1> help: scan\n   1  SCAN START\n   2  scan stop\n\n | F1\n | Ctrl-B\n"
              "Input history id: 1");
    EXPECT_EQ(terminal().cursorCol(), 19);
  });
  typeThen("\r", nullptr);
  typeThen("!", [this] { EXPECT_EQ(terminal().text(), "TAV> SCAN START!"); });
  EXPECT_EQ(readKeys("\r"), "SCAN START!");
}

TEST_F(Search, TheTableOfKeysIsPagedInTheIdPromptToo) {
  setKeyHelp([] {
    resetPager();
    for (int i = 1; i <= 52; ++i) {
      plainPrint(" | key %d\n", i);
      if (pageBreak(10) != 0) {
        return;
      }
    }
  });
  typeThen("\x12scan\r", nullptr);
  typeThen("\033OP", [this] {
    EXPECT_EQ(terminal().row(22), " | key 23");
    EXPECT_EQ(terminal().row(23), "*** Press <Space> or <Enter> to continue . . .");
  });
  typeThen(" ", [this] { EXPECT_EQ(terminal().row(22), " | key 46"); });
  typeThen("q", [this] {
    EXPECT_EQ(terminal().row(22), " | key 46");
    EXPECT_EQ(terminal().row(23), "Input history id: 1");
  });
  EXPECT_EQ(readKeys("\r\r"), "SCAN START");
}

/// The keys that lead to a prompt of the editor's own.
struct OwnPromptRow {
  const char* name;
  const char* keys;
  bool isAnswer;
};
const OwnPromptRow kOwnPrompts[] = {
    {"Patterns", "typed\x12sc", false},
    {"Id", "typed\x12scan\r", false},
    {"Answer", "an sc", true},
};
struct DeadKeyRow {
  const char* name;
  const char* bytes;
};
const DeadKeyRow kDeadKeys[] = {
    {"Tab", "\t"},     {"AltEquals", "\033="}, {"AltQuestionMark", "\033?"},
    {"F2", "\033OQ"},  {"F3", "\033OR"},       {"F4", "\033OS"},
    {"CtrlR", "\x12"}, {"CtrlS", "\x13"},      {"CtrlCircumflex", "\x1e"},
};
class OwnPrompts : public Search,
                   public ::testing::WithParamInterface<std::tuple<OwnPromptRow, DeadKeyRow>> {};

TEST_P(OwnPrompts, OpenNoListAndAreNotLeft) {
  const auto& [prompt, key] = GetParam();
  offer({{"SCAN", "help"}, {"SHOW", "help"}});
  std::string before;
  int row = -1;
  int col = -1;
  typeThen(prompt.keys, [&] {
    before = terminal().text();
    row = terminal().cursorRow();
    col = terminal().cursorCol();
  });
  typeThen(key.bytes, [&] {
    EXPECT_EQ(terminal().text(), before);
    EXPECT_EQ(terminal().cursorRow(), row);
    EXPECT_EQ(terminal().cursorCol(), col);
  });
  if (prompt.isAnswer) {
    typeThen("!\r", nullptr);
    char buffer[16];
    EXPECT_STREQ(readAnswer("? ", buffer, sizeof buffer), "an sc!");
  } else {
    EXPECT_EQ(readKeys("\x03!\r"), "typed!");
  }
  EXPECT_EQ(asked, std::nullopt);
}
INSTANTIATE_TEST_SUITE_P(, OwnPrompts,
                         ::testing::Combine(::testing::ValuesIn(kOwnPrompts), ::testing::ValuesIn(kDeadKeys)),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).name) + "_" +
                                  std::get<1>(test.param).name;
                         });

TEST_F(Search, F1ShowsTheTableOfKeysWhileAnAnswerIsTyped) {
  setKeyHelp([] { plainPrint(" \b\n the table of keys\n"); });
  typeThen("answer\033OP",
           [this] { EXPECT_EQ(terminal().text(), "? answer\n the table of keys\n? answer"); });
  typeThen("!\r", nullptr);
  char buffer[16];
  EXPECT_STREQ(readAnswer("? ", buffer, sizeof buffer), "answer!");
}

TEST_F(Search, ALongListingIsPagedAndLeavesNothingEither) {
  historyClear();
  storeLines(60);
  typeThen("\x12\r", [this] {
    EXPECT_EQ(terminal().row(22), "  23  line 23");
    EXPECT_EQ(terminal().row(23), "*** Press <Space> or <Enter> to continue . . .");
  });
  typeThen(" ", [this] { EXPECT_EQ(terminal().row(22), "  46  line 46"); });
  typeThen(" ", [this] { EXPECT_EQ(terminal().row(23), "Input history id: 1"); });
  typeThen(
      "\x7f"
      "59\r",
      [this] { EXPECT_EQ(terminal().row(23), "TAV> line 59"); });
  typeThen("!", [this] { EXPECT_EQ(terminal().text(), "TAV> line 59!"); });
  EXPECT_EQ(readKeys("\r"), "line 59!");
  const auto& scrolled = terminal().look([](const auto& screen) { return screen.scrolledOff(); });
  EXPECT_FALSE(scrolled.empty()) << "the operator can scroll back to the first page";
}

TEST_F(Search, ALongListingIsScrolledOffOnce) {
  storeLines(60);
  typeThen("\x12line\r", nullptr);
  typeThen(" ", nullptr);
  typeThen(" ", [this] {
    terminal().look([](const auto& screen) {
      const std::vector<std::string>& rows = screen.scrolledOff();
      ASSERT_GT(rows.size(), 30U);
      for (std::size_t i = 1; i < rows.size(); ++i) {
        EXPECT_TRUE(rows[i].ends_with("  line " + std::to_string(i))) << rows[i];
      }
    });
  });
  read();
}

TEST_F(Search, OfALineTypedInOneBurstWithItsKeyShowsItsOwnPrompt) {
  typeThen("a\033OS", [this] { EXPECT_EQ(terminal().text(), "Input Patterns <F1> help: a"); });
  read();
}

TEST_F(Search, ThePatternHelpEndsWhenItsPagerIsLeft) {
  open(8, 80);
  typeThen("\x12\033OP", [this] { EXPECT_NE(terminal().text().find("***"), std::string::npos); });
  typeThen("q", [this] { EXPECT_TRUE(terminal().text().ends_with("Input Patterns <F1> help:")); });
  read();
  terminal().look([](const auto& screen) { EXPECT_FALSE(screen.contains("and excluding")); });
}

TEST_F(Search, OnADumbTerminalReadsItsAnswersPlainly) {
  terminal().isUsable = false;
  terminal().type("scan\n2\n");
  EXPECT_EQ(historySearch(nullptr), 3);
}

TEST_F(Search, CtrlLInASearchRedrawsIt) {
  typeThen("typed\x12scan\r\x0c", [this] {
    EXPECT_EQ(terminal().text(),
              "Input Patterns <F1> help: scan\n   1  SCAN START\n   2  scan stop\nInput history id: 1");
  });
  EXPECT_EQ(readKeys("\r\r"), "SCAN START");
}

TEST_F(Search, EndOfInputInsideASearchEndsTheLine) {
  typeThen("typed\x12sc", nullptr);
  EXPECT_EQ(read(), std::nullopt);
}

class Browsing : public EditorFixture {};

TEST_F(Browsing, TheEditedLineComesBackAtTheNewestEnd) {
  historyStore("one");
  historyStore("two");
  EXPECT_EQ(readKeys("half\x10\x10 edited\x0e\x0e!\r"), "half!");
}

TEST_F(Browsing, EditingAnEntryDoesNotChangeTheHistory) {
  historyStore("one");
  EXPECT_EQ(readKeys("\x10 more\r"), "one more");
  EXPECT_STREQ(historyRing[0], "one");
  EXPECT_STREQ(historyRing[1], "one more");
}

TEST_F(Browsing, AnEditedEntryIsThereAgainAfterUpAndDown) {
  for (const auto& [up, down] :
       {std::pair("\033[A", "\033[B"), std::pair("\x10", "\x0e"), std::pair("\033<", "\033>")}) {
    historyClear();
    historyStore("one");
    historyStore("two");
    typeThen(std::string("\x10 edited") + up, [this] { EXPECT_EQ(terminal().row(0), "TAV> one"); });
    typeThen(down, [this] { EXPECT_TRUE(shows(modelOf("two edited|", true))); });
    EXPECT_EQ(readKeys("!\r"), "two edited!");
    open(24, 80);
  }
}

TEST_F(Browsing, EveryLineKeepsItsOwnEdit) {
  historyStore("one");
  historyStore("two");
  typeThen("half\x10 edited\x10\x18", [this] { EXPECT_EQ(terminal().text(), "TAV>"); });
  typeThen("\x0e", [this] { EXPECT_EQ(terminal().text(), "TAV> two edited"); });
  typeThen("\x0e", [this] { EXPECT_EQ(terminal().text(), "TAV> half"); });
  typeThen("\x10\x10", [this] { EXPECT_EQ(terminal().text(), "TAV>") << "emptied is edited, too"; });
  EXPECT_EQ(readKeys("\x0e\x0e!\r"), "half!");
}

TEST_F(Browsing, EditsLiveUntilEnterAndTheHistoryKeepsItsLines) {
  historyStore("one");
  historyStore("two");
  EXPECT_EQ(readKeys("\x10 edited\x10 changed\x0e\r"), "two edited");
  EXPECT_EQ(historyCount, 3U);
  EXPECT_STREQ(historyRing[0], "one");
  EXPECT_STREQ(historyRing[1], "two");
  EXPECT_STREQ(historyRing[2], "two edited");
  typeThen("\x10", [this] { EXPECT_TRUE(shows(modelOf("two edited|", true))); });
  typeThen("\x10", [this] { EXPECT_TRUE(shows(modelOf("two|", true))); });
  typeThen("\x10", [this] { EXPECT_TRUE(shows(modelOf("one|", true))); });
  read();
}

TEST_F(Browsing, CtrlCForgetsTheEdits) {
  historyStore("one");
  EXPECT_EQ(readKeys("\x10 edited\x0e\x03"), std::nullopt);
  EXPECT_EQ(readKeys("\x10\r"), "one");
}

TEST_F(Browsing, AnEntryFoundBySearchLeavesTheEditsOfOthers) {
  historyStore("one");
  historyStore("two");
  typeThen("\x10 edited\x12one\r\r", nullptr);
  typeThen("!", [this] { EXPECT_TRUE(shows(modelOf("one!|", true))); });
  typeThen("\x10", [this] { EXPECT_TRUE(shows(modelOf("two edited|", true))); });
  EXPECT_EQ(readKeys("\x0e\r"), "one!");
}

TEST_F(Browsing, WhenTheHistoryIsClearedTheLineShownIsTheOnlyOne) {
  historyStore("one");
  historyStore("two");
  typeThen("\x10 edited\x10\033ORy", [this] { EXPECT_TRUE(shows(modelOf("one|", true))); });
  typeThen("\x10", [this] { EXPECT_TRUE(shows(modelOf("one|", true))); });
  typeThen("\x0e", [this] { EXPECT_TRUE(shows(modelOf("one|", true))); });
  EXPECT_EQ(readKeys("\r"), "one");
}

TEST_F(Browsing, AnEntryTooLongForTheBufferIsCutBetweenCharacters) {
  historyStore("扫描中文");
  char buffer[9];
  terminal().type("\x10\r");
  EXPECT_STREQ(readLine("TAV> ", buffer, sizeof buffer), "扫描");
}

TEST_F(Browsing, OverwrittenEntriesAreBrowsedFromTheOldestLiveOne) {
  storeLines(300);
  EXPECT_EQ(readKeys("\033<\r"), "line 45");
}

class Delimiters : public EditorFixture {};

TEST_F(Delimiters, EachOfTheDefaultOnesEndsAWord) {
  for (const char c : std::string(" !\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~")) {
    EXPECT_EQ(readKeys(std::string("one") + c + "two\x01\033u\r"), std::string("ONE") + c + "two") << c;
  }
}

TEST_F(Delimiters, CanBeSetAndNullChangesNothing) {
  setWordDelimiters("x");
  setWordDelimiters(nullptr);
  EXPECT_EQ(readKeys("a bxc d\x01\033u\r"), "A Bxc d");
}

TEST_F(Delimiters, AreCutTo63Characters) {
  setWordDelimiters((std::string(62, ' ') + "xy").c_str());
  EXPECT_EQ(readKeys("axb\x01\033u\r"), "Axb");
  EXPECT_EQ(readKeys("ayb\x01\033u\r"), "AYB");
}

}  // namespace

}  // namespace lineeditor
