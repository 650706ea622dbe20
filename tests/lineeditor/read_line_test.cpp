#include <cerrno>

#include "HistoryRing.h"
#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

class ReadLine : public EditorFixture {};

TEST_F(ReadLine, ABadCallGivesNoLineAndWritesNothing) {
  char buffer[16];
  terminal().type("abc\r");
  EXPECT_EQ(readLine("TAV> ", nullptr, 16), nullptr);
  EXPECT_EQ(readLine("TAV> ", buffer, 0), nullptr);
  EXPECT_EQ(readLine("TAV> ", buffer, 1), nullptr);
  EXPECT_EQ(terminal().written() + outputBuffer, "");
}

TEST_F(ReadLine, OneTrailingBlankIsRemoved) {
  EXPECT_EQ(readKeys("scan \r"), "scan");
}

TEST_F(ReadLine, OfTwoTrailingBlanksOneStays) {
  EXPECT_EQ(readKeys("scan  \r"), "scan ");
}

TEST_F(ReadLine, ALineOfOneBlankIsEmpty) {
  EXPECT_EQ(readKeys(" \r"), "");
  EXPECT_EQ(historyCount, 0U);
}

TEST_F(ReadLine, HistoryTypedTwiceAddsNothing) {
  EXPECT_EQ(readKeys("history\r"), "history");
  EXPECT_EQ(readKeys("history\r"), "history");
  EXPECT_EQ(readKeys("history \r"), "history");
  EXPECT_EQ(historyCount, 0U);
}

TEST_F(ReadLine, TheSameCommandTwiceInARowIsAddedOnce) {
  readKeys("scan\r");
  readKeys("scan \r");
  EXPECT_EQ(historyCount, 1U);
  readKeys("quit\r");
  readKeys("scan\r");
  EXPECT_EQ(historyCount, 3U) << "an equal line further back is stored again";
}

TEST_F(ReadLine, HistoryInOtherCaseIsAdded) {
  readKeys("HISTORY\r");
  EXPECT_EQ(historyCount, 1U);
}

TEST_F(ReadLine, AnAnswerIsNotRecordedAndNotCompleted) {
  offer({});
  char buffer[16];
  terminal().type("an\tswer\r");
  EXPECT_STREQ(readAnswer("? ", buffer, sizeof buffer), "answer");
  EXPECT_EQ(historyCount, 0U);
  EXPECT_EQ(asked, std::nullopt);
}

TEST_F(ReadLine, CtrlDOnAnEmptyAnswerIsEndOfInput) {
  char buffer[16];
  terminal().type("\x04");
  errno = 0;
  EXPECT_EQ(readAnswer("? ", buffer, sizeof buffer), nullptr);
  EXPECT_NE(errno, EAGAIN);
  EXPECT_EQ(terminal().text(), "?");
}

TEST_F(ReadLine, CtrlCGivesNoLineAndSaysEagain) {
  typeThen("half a line\x02\x02\x03", nullptr);
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_EQ(readErrno, EAGAIN);
  EXPECT_EQ(terminal().row(0), "TAV> half a line^C");
  EXPECT_NE(terminal().written().find(" \b^C\n"), std::string::npos);
  EXPECT_EQ(terminal().cursorRow(), 1);
  EXPECT_EQ(terminal().cursorCol(), 0);
}

TEST_F(ReadLine, CtrlCEmptiesTheBuffer) {
  char buffer[16] = "before";
  terminal().type("x\x03");
  EXPECT_EQ(readLine("TAV> ", buffer, sizeof buffer), nullptr);
  EXPECT_STREQ(buffer, "");
}

TEST_F(ReadLine, CtrlDOnAnEmptyLineIsEndOfInput) {
  EXPECT_EQ(readKeys("\x04"), std::nullopt);
  EXPECT_NE(readErrno, EAGAIN);
  EXPECT_EQ(terminal().text(), "TAV>") << "nothing is written";
}

TEST_F(ReadLine, CtrlDAtTheEndOfALineErasesNothingAndGoesOn) {
  EXPECT_EQ(readKeys("ab\x04\x02\x04\r"), "a");
}

TEST_F(ReadLine, EndOfInputGivesNoLine) {
  EXPECT_EQ(readKeys("half"), std::nullopt);
  EXPECT_EQ(historyCount, 0U);
}

TEST_F(ReadLine, RestoreTerminalEndsThePromptsRow) {
  readKeys("\x04");
  restoreTerminal();
  EXPECT_EQ(terminal().cursorRow(), 1);
  EXPECT_EQ(terminal().cursorCol(), 0);
  restoreTerminal();
  EXPECT_EQ(terminal().cursorRow(), 1);
}

TEST_F(ReadLine, RestoreTerminalEndsTheLastRowOfALineWhereverItsCursorStands) {
  open(24, 20);
  readKeys(std::string(50, 'x') + "\x01");
  restoreTerminal();
  EXPECT_EQ(terminal().cursorRow(), 3);
}

TEST_F(ReadLine, KeyboardDebugModeShowsEveryByteUntilCtrlC) {
  typeThen("ab\x1e", [this] {
    EXPECT_NE(terminal().written().find("\b\nEnter keyboard debug mode, <Ctrl-C> to exit debug\n"),
              std::string::npos);
  });
  typeThen("A\033[A\xE4\x03", [this] {
    EXPECT_EQ(terminal().text(),
              "TAV> ab\nEnter keyboard debug mode, <Ctrl-C> to exit debug\n"
              " 65 0x41 (A)\n 27 0x1b ( )\n 91 0x5b ([)\n 65 0x41 (A)\n228 0xe4 ( )\nTAV> ab");
    EXPECT_TRUE(shows(modelOf("ab|", true)));
  });
  EXPECT_EQ(readKeys("c\r"), "abc");
}

TEST_F(ReadLine, KeyboardDebugModeShowsNoByteForAChangeOfTheWindow) {
  terminal().type("\x1e");
  terminal().resizeTo(24, 60);
  terminal().type("A\x03");
  read();
  EXPECT_NE(terminal().written().find("to exit debug\n 65 0x41 (A)\n"), std::string::npos);
}

TEST_F(ReadLine, WithoutATerminalTheLineIsReadPlainly) {
  terminal().isTerminal = false;
  terminal().type("scan\x02 \t start \r\n\nlast");
  EXPECT_EQ(read(), "scan\x02 \t start ");
  EXPECT_EQ(read(), "");
  EXPECT_EQ(read(), "last");
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_EQ(terminal().written(), "");
  EXPECT_EQ(historyCount, 0U);
}

TEST_F(ReadLine, ADumbTerminalIsReadPlainly) {
  terminal().isUsable = false;
  terminal().type("sc\t\n");
  EXPECT_EQ(read(), "sc\t");
  EXPECT_EQ(terminal().written(), "");
}

TEST_F(ReadLine, APlainLineLongerThanTheBufferComesInPieces) {
  terminal().isTerminal = false;
  terminal().type("abcdefgh\n");
  char buffer[5];
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "abcd");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "efgh");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "");
}

TEST_F(ReadLine, APlainLineIsNeverCutThroughACharacter) {
  for (const std::string character : {"é", "中", "\U0001F600"}) {
    for (std::size_t before = 4095 - character.size(); before <= 4095; ++before) {
      open(24, 80);
      terminal().isTerminal = false;
      terminal().type(std::string(before, 'x') + character + "文\nnext\n");
      const bool fits = before + character.size() <= 4095;
      EXPECT_EQ(read(), std::string(before, 'x') + (fits ? character : "")) << before << character;
      EXPECT_EQ(read(), (fits ? "" : character) + "文") << before << character;
      EXPECT_EQ(read(), "next");
      EXPECT_EQ(read(), std::nullopt);
    }
  }
}

TEST_F(ReadLine, OnADumbTerminalNoPlainLineIsCutThroughACharacterEither) {
  terminal().isUsable = false;
  terminal().type("ab中文\n");
  char buffer[5];
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "ab");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "中");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "文");
}

TEST_F(ReadLine, ABeginningOfACharacterAtTheEndOfAPlainPieceIsNotLost) {
  terminal().isTerminal = false;
  terminal().type("abc\xE4\nab\xE4\xB8");
  char buffer[5];
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "abc");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "\xE4");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "ab");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "\xE4\xB8");
  EXPECT_EQ(readLine("", buffer, sizeof buffer), nullptr);
}

TEST_F(ReadLine, APlainLineThatEndsInsideACharacterIsOneLine) {
  terminal().isTerminal = false;
  terminal().type("ab\xE4\xB8");
  EXPECT_EQ(read(), "ab\xE4\xB8");
  EXPECT_EQ(read(), std::nullopt);
}

TEST_F(ReadLine, APlainCharacterThatNoBufferHoldsComesInPieces) {
  terminal().isTerminal = false;
  terminal().type("中\n");
  char buffer[3];
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "\xE4\xB8");
  EXPECT_STREQ(readLine("", buffer, sizeof buffer), "\xAD");
}

TEST_F(ReadLine, ALineNeverGrowsOverTheBufferAndNeverEndsInHalfACharacter) {
  char buffer[8];
  terminal().type("ab中文字\r");
  EXPECT_STREQ(readLine("TAV> ", buffer, sizeof buffer), "ab中")
      << "7 bytes hold no second Chinese character";
}

TEST_F(ReadLine, AFullLineTakesNoMoreAndBeeps) {
  const std::string full(4095, 'x');
  typeThen(full, [this] { terminal().forgetWritten(); });
  typeThen("y", [this] { EXPECT_NE(terminal().written().find('\a'), std::string::npos); });
  EXPECT_EQ(readKeys("\r"), full);
}

TEST_F(ReadLine, ALineOf4095BytesIsReturnedWhole) {
  const std::string full = std::string(4092, 'x') + "中";
  EXPECT_EQ(readKeys(full + "中\r"), full);
}

TEST_F(ReadLine, KeysTypedAheadArriveAtTheNextPrompt) {
  terminal().type("one\rtwo\rthree\r");
  EXPECT_EQ(read(), "one");
  EXPECT_EQ(read(), "two");
  EXPECT_EQ(read(), "three");
  EXPECT_EQ(terminal().text(), "TAV> one\nTAV> two\nTAV> three");
}

TEST_F(ReadLine, ThePromptStartsOnARowOfItsOwn) {
  plainPrint("no line end");
  typeThen("x", [this] { EXPECT_EQ(terminal().text(), "no line end\nTAV> x"); });
  read();
}

TEST_F(ReadLine, APasteBecomesOneLineThatWaitsForEnter) {
  typeThen("\033[200~scan start\r\nquit\nexit\r\033[201~",
           [this] { EXPECT_TRUE(shows(modelOf("scan start quit exit |", true))); });
  EXPECT_EQ(readKeys("!\r"), "scan start quit exit !");
}

TEST_F(ReadLine, AnEndMarkInsideAPasteChangesNothing) {
  typeThen("\033[200~scan\033[201~\rquit\r\033[201~",
           [this] { EXPECT_TRUE(shows(modelOf("scan quit |", true))); });
  EXPECT_EQ(readKeys("\r"), "scan quit") << "nothing was accepted before this Enter";
  EXPECT_EQ(historyCount, 1U);
}

TEST_F(ReadLine, AnEndMarkWithMoreBytesBehindItThanAreLookedThroughIsPastedText) {
  EXPECT_EQ(readKeys("\033[200~scan\033[201~\rquit\r" + std::string(65536, 'x') + "\033[201~\x15\r"), "")
      << "nothing was accepted before this Enter";
}

/// A look through the rest of the paste at each mark would take hours.
TEST_F(ReadLine, APasteOfManyEndMarksIsLookedThroughOnce) {
  std::string marks;
  for (int i = 0; i < (1 << 19); ++i) {
    marks += "\033[201~";
  }
  EXPECT_EQ(readKeys("\033[200~scan" + marks + "\r quit\033[201~!\r"), "scan  quit!");
}

/// Each "1~" behind the mark would make a new mark out of the half one before it.
TEST_F(ReadLine, APasteOfEndMarksInsideEndMarksIsLookedThroughOnce) {
  std::string halves;
  std::string rests;
  for (int i = 0; i < (1 << 17); ++i) {
    halves += "\033[20";
    rests += "1~";
  }
  terminal().type("\033[200~" + halves + "\033[201~" + rests + "\033[201~\x15!\r");
  EXPECT_EQ(readKeys(""), "!");
}

TEST_F(ReadLine, ADroppedEndMarkJoinsNoBytesToANewOne) {
  EXPECT_EQ(readKeys("\033[200~a\033[20\033[201~1~b\033[201~\r"), "a\033[201~b");
}

TEST_F(ReadLine, APastedControlCharacterNeverReachesTheTerminal) {
  typeThen("\033[200~\x7f\033[201~", [this] { EXPECT_EQ(terminal().text(), "TAV> ^?"); });
  typeThen("\033[200~\x01\033[201~", [this] { EXPECT_EQ(terminal().text(), "TAV> ^?^A"); });
  typeThen("\033[200~\033\033[201~", [this] { EXPECT_EQ(terminal().text(), "TAV> ^?^A^["); });
  read();
}

TEST_F(ReadLine, TwoPastesInARowAreBothPastes) {
  typeThen("\033[200~a\r\033[201~\033[200~b\r\033[201~",
           [this] { EXPECT_TRUE(shows(modelOf("a b |", true))); });
  read();
}

TEST_F(ReadLine, KeysBehindAPasteAreKeys) {
  EXPECT_EQ(readKeys("\033[200~abc\033[201~\x02\x7f!\r"), "a!c");
}

TEST_F(ReadLine, APasteThatComesInPiecesIsOnePaste) {
  terminal().type("\033[200~ab\xE4");
  terminal().pause();
  terminal().type(
      "\xB8\xAD"
      "d\r");
  terminal().pause();
  terminal().type("\ne\033[20");
  terminal().pause();
  terminal().type("1~\r");
  EXPECT_EQ(read(), "ab中d e");
}

TEST_F(ReadLine, ALongPasteLosesAndDoublesNothing) {
  std::string text;
  for (int i = 0; text.size() < 4000; ++i) {
    text += std::to_string(i) + "扫,";
  }
  EXPECT_EQ(readKeys("\033[200~" + text + "\033[201~\r"), text);
}

TEST_F(ReadLine, AKeyBetweenTwoPartsOfAPasteIsPasted) {
  EXPECT_EQ(readKeys("\033[200~a\033[A\x7f"
                     "b\033[201~\r"),
            "a\033[A\x7f"
            "b");
}

TEST_F(ReadLine, AControlCAtTheEndOfAPieceOfAPasteIsPasted) {
  terminal().type("\033[200~ab\x03");
  terminal().pause();
  terminal().type("cd\033[201~\r");
  EXPECT_EQ(read(),
            "ab\x03"
            "cd");
}

TEST_F(ReadLine, CtrlCGetsOutOfAPasteWhoseEndNeverCame) {
  terminal().type("\033[200~abc");
  terminal().pause();
  terminal().pause();
  terminal().type("\x03");
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_EQ(readErrno, EAGAIN);
}

TEST_F(ReadLine, ACtrlCWithBytesBehindItIsPastedAfterAnyWait) {
  terminal().type("\033[200~abc");
  terminal().pause();
  terminal().pause();
  terminal().type("\x03 d\033[201~\r");
  EXPECT_EQ(read(), "abc\x03 d");
}

TEST_F(ReadLine, AnotherByteThanCtrlCNeverEndsAPaste) {
  terminal().type("\033[200~abc");
  terminal().pause();
  terminal().pause();
  terminal().type("d");
  terminal().pause();
  terminal().type("\033[201~\r");
  EXPECT_EQ(read(), "abcd");
}

TEST_F(ReadLine, PasteMarksStayAskedForThroughoutASearch) {
  storeLines(3);
  typeThen("\x12line\r", [this] {
    EXPECT_NE(terminal().text().find("Input history id"), std::string::npos);
    EXPECT_EQ(terminal().written().find("\033[?2004l"), std::string::npos);
  });
  readKeys("\r\r");
  EXPECT_TRUE(terminal().written().ends_with("\033[?2004l"));
}

TEST_F(ReadLine, PasteMarksAreAskedForWhileALineIsReadOnly) {
  readKeys("x\r");
  const std::string written = terminal().written();
  EXPECT_EQ(written.find("\033[?2004h"), written.rfind("\033[?2004h"));
  EXPECT_LT(written.find("\033[?2004h"), written.find("\033[?2004l"));
}

}  // namespace

}  // namespace lineeditor
