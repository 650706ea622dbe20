#include "Display.h"
#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

class Terminal : public EditorFixture {
 protected:
  /// Prints lines until the pager ends the listing. Returns the number of lines printed.
  int list(int count) {
    resetPager();
    for (int i = 1; i <= count; ++i) {
      const std::string line = "line " + std::to_string(i);
      plainPrint("%s\n", line.c_str());
      if (pageBreak(displayWidth(line) + 1) != 0) {
        flushOutput();
        return i;
      }
    }
    flushOutput();
    return count;
  }
};

struct ColourRow {
  const char* name;
  std::uint32_t attribute;
  const char* sequence;
};
const ColourRow kColours[] = {
    {"None", 0, "\033[m"},
    {"Black", 1, "\033[m\033[30m"},
    {"Cyan", 7, "\033[m\033[36m"},
    {"White", 8, "\033[m\033[37m"},
    {"BrightRed", 130, "\033[m\033[91m"},
    {"BrightGreen", 131, "\033[m\033[92m"},
    {"BrightYellow", 132, "\033[m\033[93m"},
    {"BrightMagenta", 134, "\033[m\033[95m"},
    {"BrightCyan", 135, "\033[m\033[96m"},
    {"WhiteOnCyan", 1800, "\033[m\033[37m\033[46m"},
    {"BrightBackground", 7 + (2 << 8) + 32768, "\033[m\033[36m\033[101m"},
    {"Underline", 65536, "\033[m\033[4m"},
    {"UnderlinedBrightRedOnBlue", 65536 + 130 + (5 << 8), "\033[m\033[91m\033[44m\033[4m"},
    {"BrightWithoutColour", 128, "\033[m"},
};
class Colours : public EditorFixture, public ::testing::WithParamInterface<ColourRow> {};

TEST_P(Colours, AnAttributeGivesItsSequencesInOrder) {
  setColour(GetParam().attribute);
  EXPECT_EQ(outputBuffer, GetParam().sequence);
}
INSTANTIATE_TEST_SUITE_P(, Colours, ::testing::ValuesIn(kColours),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(Terminal, ColouredTextGoesStraightOutAndItsSequencesWithTheNextFlush) {
  colourPrint(kBrightRed, "ERR: %s \n", "parameter error");
  EXPECT_EQ(outputBuffer, "\033[m\033[91m\033[m");
  EXPECT_EQ(terminal().written(), "");
  flushOutput();
  EXPECT_EQ(terminal().written(), "ERR: parameter error \n\033[m\033[91m\033[m");
  EXPECT_EQ(outputBuffer, "");
}

TEST_F(Terminal, AColouredMessageIsFollowedByTheResetAndThePromptInItsOwnColour) {
  setPromptColour(kBrightGreen);
  colourPrint(kBrightRed, "ERR: %s \n", "parameter error");
  typeThen("x", [this] {
    terminal().look([](const auto& screen) {
      EXPECT_EQ(screen.row(0), "ERR: parameter error");
      EXPECT_EQ(screen.foreground(1, 0), 10);
      EXPECT_EQ(screen.foreground(1, 5), -1);
    });
  });
  read();
}

TEST_F(Terminal, CursorSequencesAreOneBased) {
  setCursor(0, 9);
  EXPECT_EQ(outputBuffer, "\033[1;10H");
}

TEST_F(Terminal, MovingTheCursorWritesColumnsFirstAndNothingForZero) {
  moveCursor(2, 3);
  moveCursor(-4, -5);
  moveCursor(0, 0);
  EXPECT_EQ(outputBuffer, "\033[3C\033[2B\033[5D\033[4A");
}

TEST_F(Terminal, ShowCursorHidesWhenNotZero) {
  showCursor(1);
  showCursor(0);
  EXPECT_EQ(outputBuffer, "\033[?25l\033[?25h");
}

TEST_F(Terminal, TheCursorsPlaceIsAskedOfTheTerminalAndZeroBased) {
  setCursor(4, 11);
  int row = -1;
  int col = -1;
  EXPECT_EQ(cursorPosition(row, col), 0);
  EXPECT_EQ(row, 4);
  EXPECT_EQ(col, 11);
}

TEST_F(Terminal, AnAnswerThatCannotBeReadGivesNoPlace) {
  int row = 7;
  int col = 7;
  terminal().type("nonsenseR");
  EXPECT_EQ(cursorPosition(row, col), -1);
  EXPECT_EQ(row, 7);
}

TEST_F(Terminal, AnAnswerOfThirtyOneBytesIsReadNoFurther) {
  int row = 0;
  int col = 0;
  terminal().type(std::string(31, 'x') + "y");
  EXPECT_EQ(cursorPosition(row, col), -1);
  EXPECT_EQ(readKey(), 'y');
}

TEST_F(Terminal, ReadKeyTakesAndRestoresTheSettingsAroundItsByte) {
  terminal().type("ab");
  EXPECT_EQ(readKey(), 'a');
  EXPECT_EQ(terminal().timesTaken, 1);
  EXPECT_EQ(terminal().timesRestored, 1);
  EXPECT_EQ(readKey(), 'b');
  EXPECT_EQ(terminal().timesRestored, 2);
}

TEST_F(Terminal, ReadKeyGivesZeroWhenTheReadFails) {
  EXPECT_EQ(readKey(), 0);
}

TEST_F(Terminal, ReadKeyWaitsOnWhenTheWindowChanges) {
  terminal().resizeTo(30, 100);
  terminal().type("a");
  EXPECT_EQ(readKey(), 'a');
}

TEST_F(Terminal, ReadKeyFlushesTheOutputFirst) {
  setColour(kCyan);
  terminal().type("a");
  readKey();
  EXPECT_EQ(terminal().written(), "\033[m\033[36m");
}

TEST_F(Terminal, ReadLineTakesAndRestoresTheSettingsOnce) {
  EXPECT_EQ(readKeys("many keys\r"), "many keys");
  EXPECT_EQ(terminal().timesTaken, 1);
  EXPECT_EQ(terminal().timesRestored, 1);
}

TEST_F(Terminal, WhereTheTerminalIsNotUsableNoSequenceIsCollectedOrWritten) {
  terminal().isUsable = false;
  int row = 0;
  int col = 0;
  setColour(kBrightRed);
  setCursor(1, 1);
  moveCursor(1, 1);
  showCursor(1);
  colourPrint(kBrightRed, "text\n");
  EXPECT_EQ(cursorPosition(row, col), -1);
  EXPECT_EQ(outputBuffer, "");
  flushOutput();
  EXPECT_EQ(terminal().written(), "text\n");
}

TEST_F(Terminal, AListingOfAHundredLinesPausesAfterTwentyThree) {
  terminal().onIdle = [this] {
    EXPECT_EQ(terminal().row(22), "line 23");
    EXPECT_EQ(terminal().row(23), "*** Press <Space> or <Enter> to continue . . .");
    terminal().type("q");
  };
  EXPECT_EQ(list(100), 23);
  EXPECT_EQ(terminal().row(23), "") << "the prompt is erased in place";
  EXPECT_EQ(terminal().cursorCol(), 0);
}

class PagerKeys : public Terminal,
                  public ::testing::WithParamInterface<std::tuple<const char*, const char*, bool>> {};
TEST_P(PagerKeys, BlankAndEnterShowTheNextPageAnyOtherKeyStops) {
  int pauses = 0;
  terminal().onIdle = [&] {
    ++pauses;
    terminal().type(pauses < 3 ? std::get<1>(GetParam()) : "q");
  };
  EXPECT_EQ(list(100), std::get<2>(GetParam()) ? 69 : 23);
  terminal().onIdle = nullptr;
  terminal().type("x\r");
  EXPECT_EQ(read(), "x") << "nothing of the key is left for the prompt";
}
INSTANTIATE_TEST_SUITE_P(
    , PagerKeys,
    ::testing::Values(std::make_tuple("Blank", " ", true), std::make_tuple("CarriageReturn", "\r", true),
                      std::make_tuple("LineFeed", "\n", true), std::make_tuple("Q", "q", false),
                      std::make_tuple("CtrlC", "\x03", false), std::make_tuple("Up", "\033[A", false),
                      std::make_tuple("Chinese", "中", false)),
    [](const auto& test) { return std::string(std::get<0>(test.param)); });

TEST_F(Terminal, ThePagersPromptIsErasedWithBackspacesAndBlanks) {
  terminal().type("q");
  list(30);
  const std::string back(46, '\b');
  EXPECT_NE(terminal().written().find("*** Press <Space> or <Enter> to continue . . ." + back +
                                      std::string(46, ' ') + back),
            std::string::npos);
}

TEST_F(Terminal, ThePagersPromptLeavesNothingInANarrowWindow) {
  for (const int cols : {20, 46}) {
    open(10, cols);
    terminal().type(" q");
    EXPECT_EQ(list(30), 18);
    EXPECT_EQ(terminal().text().find("***"), std::string::npos) << terminal().text();
    EXPECT_NE(terminal().text().find("line 18"), std::string::npos);
  }
}

TEST_F(Terminal, ThePagersPromptIsErasedWithBackspacesOnANarrowDumbTerminal) {
  open(10, 20);
  terminal().isUsable = false;
  terminal().type("q");
  list(30);
  EXPECT_TRUE(terminal().written().ends_with(std::string(46, ' ') + std::string(46, '\b')));
}

TEST_F(Terminal, AChangeOfTheWindowDoesNotAnswerThePager) {
  terminal().resizeTo(24, 60);
  terminal().type(" q");
  EXPECT_EQ(list(100), 46);
}

TEST_F(Terminal, AListingNeverPausesWhenInputIsNoTerminal) {
  terminal().isTerminal = false;
  EXPECT_EQ(list(100), 100);
}

TEST_F(Terminal, ThePagerCountsTheRowsThatALongLineTakes) {
  open(24, 40);
  resetPager();
  EXPECT_EQ(pageBreak(81), 0);
  EXPECT_EQ(pagerLines, 3);
}

TEST_F(Terminal, ThePagerWorksOnADumbTerminalWithoutSequences) {
  terminal().isUsable = false;
  terminal().type("q");
  EXPECT_EQ(list(100), 23);
  EXPECT_EQ(terminal().written().find('\033'), std::string::npos);
}

TEST_F(Terminal, ClearScreenRunsClearAfterWhatWasWrittenBefore) {
  plainPrint("before");
  clearScreen();
  EXPECT_EQ(terminal().timesCleared, 1);
  EXPECT_EQ(terminal().text(), "");
}

TEST_F(Terminal, ClearScreenClearsByItselfWhereClearFails) {
  terminal().clearWorks = false;
  plainPrint("before");
  clearScreen();
  flushOutput();
  EXPECT_EQ(terminal().text(), "");
}

TEST_F(Terminal, DisplayWidthCountsColumnsNotBytes) {
  EXPECT_EQ(displayWidth("abc"), 3);
  EXPECT_EQ(displayWidth("扫描"), 4);
  EXPECT_EQ(displayWidth("e\u0301"), 1);
  EXPECT_EQ(displayWidth("\xE4"), 4);
  EXPECT_EQ(displayWidth("\x01"), 2);
  EXPECT_EQ(displayWidth(" | F1                      |  显示快捷方式帮助信息"), 50);
}

}  // namespace

}  // namespace lineeditor
