// Every key of the key help, in five surroundings: plain, with Chinese text, and wrapped at three widths.
#include "Display.h"
#include "HistoryRing.h"
#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

struct KeyRow {
  const char* name;
  const char* bytes;
  const char* before;  ///< '|' cursor, '^' prefix, '~' letter, '@' letter in upper case
  const char* after;
};

const KeyRow kKeys[] = {
    {"CtrlBMovesBackOneCharacter", "\x02", "^a~|c", "^a|~c"},
    {"LeftMovesBackOneCharacter", "\033[D", "^a~|c", "^a|~c"},
    {"CtrlFMovesForwardOneCharacter", "\x06", "^a|~c", "^a~|c"},
    {"RightMovesForwardOneCharacter", "\033[C", "^a|~c", "^a~|c"},
    {"CtrlAMovesToTheStartOfTheLine", "\x01", "^a|~c", "|^a~c"},
    {"HomeMovesToTheStartOfTheLine", "\033[H", "^a|~c", "|^a~c"},
    {"CtrlEMovesToTheEndOfTheLine", "\x05", "|^a~c", "^a~c|"},
    {"EndMovesToTheEndOfTheLine", "\033[F", "|^a~c", "^a~c|"},
    {"CtrlHErasesTheCharacterBefore", "\x08", "^a~|c", "^a|c"},
    {"BackspaceErasesTheCharacterBefore", "\x7f", "^a~|c", "^a|c"},
    {"CtrlDErasesTheCharacterAtTheCursor", "\x04", "^a|~c", "^a|c"},
    {"DelErasesTheCharacterAtTheCursor", "\033[3~", "^a|~c", "^a|c"},
    {"AltUPutsTheNextWordIntoUpperCase", "\033u", "^|, one~ two", "^, ONE@| two"},
    {"AltShiftUPutsTheNextWordIntoUpperCase", "\033U", "^|, one~ two", "^, ONE@| two"},
    {"AltLPutsTheNextWordIntoLowerCase", "\033l", "^| ONE@ TWO", "^ one~| TWO"},
    {"AltShiftLPutsTheNextWordIntoLowerCase", "\033L", "^| ONE@ TWO", "^ one~| TWO"},
    {"AltCPutsTheNextCharacterIntoUpperCase", "\033c", "^| one~ two", "^ One~| two"},
    {"AltShiftCPutsTheNextCharacterIntoUpperCase", "\033C", "^| one~ two", "^ One~| two"},
    {"AltBackslashErasesTheBlanksAroundTheCursor", "\033\\", "^a~  |  c", "^a~|c"},
    {"CtrlTSwapsTheTwoCharactersBefore", "\x14", "^a~|c", "^~a|c"},
    {"CtrlKCutsToTheEndOfTheLine", "\x0b", "^a|~c", "^a|"},
    {"EscEndCutsToTheEndOfTheLine", "\033\033[F", "^a|~c", "^a|"},
    {"CtrlUCutsToTheStartOfTheLine", "\x15", "^a~|c", "|c"},
    {"EscHomeCutsToTheStartOfTheLine", "\033\033[H", "^a~|c", "|c"},
    {"CtrlXCutsTheWholeLine", "\x18", "^a|~c", "|"},
    {"CtrlYPastesWhatWasCut", "\x0b\x19\x19", "^a|~c", "^a~c~c|"},
    {"CtrlVPastesWhatWasCut", "\x0b\x16\x16", "^a|~c", "^a~c~c|"},
    {"InsertPastesWhatWasCut", "\x0b\033[2~\033[2~", "^a|~c", "^a~c~c|"},
    {"AltREmptiesTheLine", "\033r", "^a|~c", "|"},
    {"AltShiftREmptiesTheLine", "\033R", "^a|~c", "|"},
    // Keys that the help does not name.
    {"AltBMovesToTheStartOfTheWord", "\033b", "^ one~ , |two", "^ |one~ , two"},
    {"AltFMovesToTheEndOfTheWord", "\033f", "^| one~ two", "^ one~| two"},
    {"CtrlWCutsTheWordBefore", "\x17", "^ one~ |two", "^ |two"},
    {"AltBackspaceCutsTheWordBefore", "\033\x7f", "^ one~ |two", "^ |two"},
    {"AltDCutsTheWordAfter", "\033d", "^ |one~ two", "^ | two"},
};

std::string expanded(const Surroundings& surroundings, std::string_view text) {
  const std::string upper = surroundings.letter == std::string("x") ? "X" : surroundings.letter;
  std::string out = surrounded(surroundings, text);
  for (std::size_t at = out.find('@'); at != std::string::npos; at = out.find('@')) {
    out.replace(at, 1, upper);
  }
  return out;
}

std::string withoutOneBlank(std::string line) {
  if (line.ends_with(' ')) {
    line.pop_back();
  }
  return line;
}

class KeyTable : public EditorFixture,
                 public ::testing::WithParamInterface<std::tuple<KeyRow, Surroundings>> {};

TEST_P(KeyTable, DoesWhatItsLineSays) {
  const auto& [key, around] = GetParam();
  open(24, around.cols);
  const PlainModel before = modelOf(expanded(around, key.before), true);
  const PlainModel after = modelOf(expanded(around, key.after), true);
  typeThen(keysFor(before), [&] { EXPECT_TRUE(shows(before)); });
  typeThen(key.bytes, [&] { EXPECT_TRUE(shows(after)); });
  typeThen("\r", nullptr);
  EXPECT_EQ(read(), withoutOneBlank(after.text()));
}

INSTANTIATE_TEST_SUITE_P(, KeyTable,
                         ::testing::Combine(::testing::ValuesIn(kKeys), ::testing::ValuesIn(kSurroundings)),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param).name) + "_" +
                                  std::get<1>(test.param).name;
                         });

/// Keys that do more than edit the line.
class Keys : public EditorFixture, public ::testing::WithParamInterface<Surroundings> {
 protected:
  void SetUp() override {
    EditorFixture::SetUp();
    open(24, GetParam().cols);
  }
  PlainModel model(std::string_view text) { return modelOf(surrounded(GetParam(), text), true); }
  std::string plain(std::string_view text) { return surrounded(GetParam(), text); }
  void startWith(std::string_view text) {
    const PlainModel start = model(text);
    typeThen(keysFor(start), [this, start] { EXPECT_TRUE(shows(start)); });
  }
  void thenShows(std::string_view keys, std::string_view text) {
    const PlainModel expected = model(text);
    typeThen(keys, [this, expected, typed = std::string(keys)] {
      EXPECT_TRUE(shows(expected)) << "after " << ::testing::PrintToString(typed);
    });
  }
  std::optional<std::string> accept() { return readKeys("\r"); }
};

INSTANTIATE_TEST_SUITE_P(, Keys, ::testing::ValuesIn(kSurroundings),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(Keys, F1ShowsTheKeyTableAndRedrawsTheLine) {
  setKeyHelp([] { plainPrint(" \b\n the table of keys\n"); });
  startWith("^a|~c");
  typeThen("\033OP", [this] {
    EXPECT_TRUE(shows(model("^a|~c")));
    EXPECT_NE(terminal().text().find("\n the table of keys\nTAV> "), std::string::npos) << terminal().text();
  });
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, UpMovesToTheScreenLineAboveAndAtTheFirstToTheHistory) {
  historyStore("from the history");
  startWith("^a~c|");
  const int rowsAbove = model("^a~c|").screen("TAV> ", GetParam().cols).cursorRow;
  for (int i = 1; i <= rowsAbove; ++i) {
    typeThen("\033[A", [this, rowsAbove, i] {
      EXPECT_NE(terminal().text().find("TAV> "), std::string::npos);
      const int top = model("^a~c|").screen("TAV> ", GetParam().cols).cursorRow;
      EXPECT_EQ(terminal().cursorRow(), top - i) << rowsAbove;
    });
  }
  thenShows("\033[A", "from the history|");
  EXPECT_EQ(accept(), "from the history");
}

TEST_P(Keys, DownMovesToTheScreenLineBelowAndAtTheLastThroughTheHistory) {
  historyStore("older");
  historyStore(plain("^newer"));
  thenShows("\x10", "^newer|");
  typeThen("\x01", nullptr);
  const int rows = model("^newer|").screen("TAV> ", GetParam().cols).cursorRow;
  for (int i = 1; i <= rows; ++i) {
    typeThen("\033[B", [this, i] { EXPECT_EQ(terminal().cursorRow(), i); });
  }
  thenShows("\033[B", "|");
  EXPECT_EQ(accept(), "");
}

TEST_P(Keys, EscUpAndEscDownMoveBetweenScreenLinesOnly) {
  historyStore("from the history");
  startWith("^a~c|");
  const int rows = model("^a~c|").screen("TAV> ", GetParam().cols).cursorRow;
  typeThen(std::string("\033\033[A\033\033[A\033\033[A\033\033[A\033\033[A\033\033[A\033\033[A\033\033[A"),
           [this] {
             EXPECT_EQ(terminal().cursorRow(), 0);
             EXPECT_EQ(terminal().text().find("from the history"), std::string::npos);
           });
  typeThen("\033\033[B\033\033[B\033\033[B\033\033[B\033\033[B\033\033[B\033\033[B\033\033[B",
           [this, rows] { EXPECT_EQ(terminal().cursorRow(), rows); });
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, CtrlLClearsTheScreenAndRedrawsTheLine) {
  terminal().print("what was there\n");
  startWith("^a|~c");
  typeThen("\x0c", [this] {
    EXPECT_EQ(terminal().timesCleared, 1);
    EXPECT_EQ(terminal().text().find("what was there"), std::string::npos);
    EXPECT_TRUE(terminal().row(0).starts_with("TAV> "));
    EXPECT_TRUE(shows(model("^a|~c")));
  });
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, TabAndCtrlIComplete) {
  offer({{"SCAN", "扫描"}, {"CACHE", "缓存管理"}});
  startWith("^ sc|");
  thenShows("\t", "^ SCAN |");
  EXPECT_EQ(accept(), plain("^ SCAN"));
}

TEST_P(Keys, AltEqualsListsWhatIsExpectedWithoutInserting) {
  offer({{"SCAN", "扫描"}, {"CACHE", "缓存管理"}});
  startWith("^ sc|");
  typeThen("\033=", [this] {
    EXPECT_NE(terminal().text().find("SCAN  扫描"), std::string::npos) << terminal().text();
  });
  thenShows("x", "^ scx|");
  EXPECT_EQ(accept(), plain("^ scx"));
}

TEST_P(Keys, AltQuestionMarkListsWhatIsExpectedWithoutInserting) {
  offer({{"SCAN", "扫描"}, {"CACHE", "缓存管理"}});
  startWith("^ |");
  typeThen("\033?", [this] {
    EXPECT_NE(terminal().text().find("SCAN"), std::string::npos);
    EXPECT_NE(terminal().text().find("缓存管理"), std::string::npos);
  });
  thenShows("x", "^ x|");
  EXPECT_EQ(accept(), plain("^ x"));
}

TEST_P(Keys, CtrlPGoesToThePreviousEntry) {
  historyStore(plain("^one~"));
  historyStore("two");
  startWith("^a|~c");
  thenShows("\x10", "two|");
  thenShows("\x10", "^one~|");
  thenShows("\x10", "^one~|");
  EXPECT_EQ(accept(), plain("^one~"));
}

TEST_P(Keys, CtrlNGoesToTheNextEntryAndBackToTheEditedLine) {
  historyStore("one");
  historyStore(plain("^two~"));
  startWith("^a|~c");
  thenShows("\x10\x10", "one|");
  thenShows("\x0e", "^two~|");
  thenShows("\x0e", "^a~c|");
  thenShows("\x0e", "^a~c|");
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, AltLessAndPgUpGoToTheFirstEntry) {
  historyStore(plain("^first~"));
  historyStore("second");
  historyStore("third");
  startWith("^a|~c");
  thenShows("\033<", "^first~|");
  thenShows("\x0e\x0e\x0e", "^a~c|");
  thenShows("\033[5~", "^first~|");
  EXPECT_EQ(accept(), plain("^first~"));
}

TEST_P(Keys, AltGreaterAndPgDnGoToTheLastEntry) {
  historyStore("first");
  historyStore("second");
  historyStore(plain("^third~"));
  startWith("^a|~c");
  thenShows("\033<\033>", "^third~|");
  thenShows("\033[5~\033[6~", "^third~|");
  thenShows("\x0e", "^a~c|");
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, CtrlRAndCtrlSSearchTheHistory) {
  historyStore(plain("^needle~"));
  historyStore("hay");
  startWith("^a|~c");
  for (const char* key : {"\x12", "\x13"}) {
    typeThen(key, [this] { EXPECT_NE(terminal().text().find("Input Patterns"), std::string::npos); });
    typeThen("needle\r", [this] { EXPECT_NE(terminal().text().find("Input history"), std::string::npos); });
    typeThen("\r", nullptr);
    thenShows("!\x7f", "^needle~|");
    thenShows("\x18", "|");
  }
  EXPECT_EQ(accept(), "");
}

TEST_P(Keys, F4SearchesTheHistoryForTheCurrentInput) {
  historyStore(plain("^needle~ and more"));
  historyStore("hay");
  startWith("needle~|");
  typeThen("\033OS", [this] { EXPECT_NE(terminal().text().find(plain("needle~")), std::string::npos); });
  typeThen("\r\r", nullptr);
  thenShows("!\x7f", "^needle~ and more|");
  EXPECT_EQ(accept(), plain("^needle~ and more"));
}

TEST_P(Keys, F2ShowsTheHistoryAndRedrawsTheLine) {
  historyStore("first");
  historyStore("second");
  startWith("^a|~c");
  typeThen("\033OQ", [this] {
    EXPECT_NE(terminal().text().find("\n   1  first\n   2  second\nTAV> "), std::string::npos)
        << terminal().text();
    EXPECT_TRUE(shows(model("^a|~c")));
  });
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, F3ClearsTheHistoryWhenConfirmed) {
  historyStore("first");
  startWith("^a|~c");
  typeThen("\033OR", [this] {
    EXPECT_NE(terminal().written().find("\b\n!!! Confirm to clear history [y]:"), std::string::npos);
  });
  typeThen("y", [this] {
    EXPECT_NE(terminal().written().find("\b\nHistory are cleared!"), std::string::npos);
    EXPECT_NE(terminal().text().find("\nHistory are cleared!\nTAV> "), std::string::npos)
        << terminal().text();
    EXPECT_TRUE(shows(model("^a|~c")));
    EXPECT_EQ(historyCount, 0U);
  });
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, F3TakesACapitalAsConfirmedToo) {
  historyStore("first");
  readKeys("\033OR\033[200~y\033[201~\r");
  EXPECT_EQ(historyCount, 1U) << "a paste confirms nothing";
  readKeys("\033ORY\r");
  EXPECT_EQ(historyCount, 0U);
}

TEST_P(Keys, F3KeepsTheHistoryOnAnyOtherAnswer) {
  historyStore("first");
  startWith("^a|~c");
  typeThen("\033ORn", [this] {
    EXPECT_EQ(terminal().text().find("cleared"), std::string::npos);
    EXPECT_TRUE(shows(model("^a|~c")));
    EXPECT_EQ(historyCount, 1U);
  });
  EXPECT_EQ(accept(), plain("^a~c"));
}

TEST_P(Keys, EnterCtrlJAndCtrlMAcceptTheLine) {
  for (const char* key : {"\r", "\n", "\033OM"}) {
    open(24, GetParam().cols);
    startWith("^a|~c");
    typeThen(key, nullptr);
    EXPECT_EQ(read(), plain("^a~c"));
    const int last = static_cast<int>(model("^a~c|").screen("TAV> ", GetParam().cols).rows.size());
    EXPECT_EQ(terminal().cursorRow(), last);
    EXPECT_EQ(terminal().cursorCol(), 0);
  }
}

}  // namespace

}  // namespace lineeditor
