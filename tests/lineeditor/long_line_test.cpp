// Lines longer than the window, windows that change, and characters of every kind.
#include <cstdlib>

#include "EditorState.h"
#include "Painter.h"
#include "Sequences.h"
#include "Utf8.h"
#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

class LongLine : public EditorFixture, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    EditorFixture::SetUp();
    open(24, GetParam());
  }
};
INSTANTIATE_TEST_SUITE_P(, LongLine, ::testing::Values(6, 7, 20, 40, 50, 80),
                         [](const auto& test) { return "Columns" + std::to_string(test.param); });

TEST_P(LongLine, WrapsAndIsEditedInPlace) {
  open(24, GetParam());
  PlainModel model;
  for (const char* c : {"a", "扫", "e\u0301", "描", "b", "c", " ", "中", "文", "d", "e", "f", "扫", "描"}) {
    model.characters.push_back(c);
    ++model.cursor;
    typeThen(c, [this, model] { EXPECT_TRUE(shows(model)); });
  }
  while (model.cursor > 0) {
    --model.cursor;
    typeThen("\x02", [this, model] { EXPECT_TRUE(shows(model)); });
  }
  model.cursor = 3;
  typeThen("\x06\x06\x06", [this, model] { EXPECT_TRUE(shows(model)); });
  while (model.cursor > 0) {
    model.characters.erase(model.characters.begin() + static_cast<std::ptrdiff_t>(--model.cursor));
    typeThen("\x7f", [this, model] { EXPECT_TRUE(shows(model)); });
  }
  while (!model.characters.empty()) {
    model.characters.erase(model.characters.begin());
    typeThen("\033[3~", [this, model] { EXPECT_TRUE(shows(model)); });
  }
  read();
}

class Window : public EditorFixture {};

TEST_F(Window, OfTwoColumnsStillShowsEverything) {
  open(10, 2);
  typeThen("ab中", [this] {
    EXPECT_EQ(terminal().text(), "TA\nV>\n a\nb\n中");
    EXPECT_EQ(terminal().cursorRow(), 5);
  });
  EXPECT_EQ(readKeys("\r"), "ab中");
}

TEST_F(Window, ALineThatFillsItsRowPutsTheCursorOnTheNext) {
  open(24, 20);
  typeThen("123456789012345", [this] {
    EXPECT_EQ(terminal().cursorRow(), 1);
    EXPECT_EQ(terminal().cursorCol(), 0);
  });
  typeThen("\x7f", [this] {
    EXPECT_EQ(terminal().cursorRow(), 0);
    EXPECT_EQ(terminal().cursorCol(), 19);
  });
  read();
}

TEST_F(Window, ALineLongerThanTheWindowScrollsWithTheCursor) {
  open(5, 20);
  plainPrint("before\n");
  std::string text;
  for (int i = 0; i < 30; ++i) {
    text += "row " + std::to_string(100 + i) + " of the text. ";
  }
  const PlainModel whole = modelOf(text, false);
  typeThen(text, [&] { EXPECT_TRUE(shows(whole)); });
  typeThen("\x01", [&] {
    EXPECT_EQ(terminal().row(0), "TAV> row 100 of the");
    EXPECT_EQ(terminal().cursorRow(), 0);
    EXPECT_EQ(terminal().cursorCol(), 5);
    EXPECT_NE(terminal().row(4), "");
  });
  typeThen("\x05", [&] { EXPECT_TRUE(shows(whole)); });
  text.pop_back();
  EXPECT_EQ(readKeys("\r"), text);
}

class Resize : public EditorFixture, public ::testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(Resize, RedrawsTheLine) {
  open(24, GetParam().first);
  plainPrint("output above\n");
  const PlainModel model = modelOf("scan 扫描 one two three fo|ur five six seven 中文 eight nine ten", true);
  terminal().type(keysFor(model));
  terminal().resizeTo(24, GetParam().second);
  bool looked = false;
  terminal().onIdle = [&] {
    if (!looked) {
      looked = true;
      EXPECT_TRUE(shows(model));
      EXPECT_EQ(terminal().row(0), "output above");
      EXPECT_TRUE(terminal().row(1).starts_with("TAV> scan"));
      terminal().type("!\r");
    }
  };
  EXPECT_EQ(read(), "scan 扫描 one two three fo!ur five six seven 中文 eight nine ten");
}

INSTANTIATE_TEST_SUITE_P(, Resize,
                         ::testing::Values(std::make_pair(80, 40), std::make_pair(40, 80),
                                           std::make_pair(40, 20), std::make_pair(20, 80),
                                           std::make_pair(50, 23)),
                         [](const auto& test) {
                           return "From" + std::to_string(test.param.first) + "To" +
                                  std::to_string(test.param.second);
                         });

struct RewrapRow {
  const char* name;
  std::vector<int> above;  ///< the columns of the lines above the prompt, in a window of 20 columns
  int promptColumns;
  int nowCols;
  int rowsUp;
  int rowsUpInOrder;  ///< for a terminal that keeps its rows
};
const RewrapRow kRewraps[] = {
    {"AShortLine", {5}, 2, 7, 1, 1},
    {"AnEmptyLine", {0}, 2, 7, 1, 1},
    {"TwoLines", {5, 15}, 2, 7, 4, 2},
    {"AWrappedLineIsOneLine", {21}, 2, 7, 3, 2},
    {"AWrappedLineBetweenTwo", {1, 21, 8}, 2, 7, 6, 4},
    {"AWrappedPrompt", {1}, 15, 7, 3, 1},
    {"AWrappedPromptOfTwoRows", {1}, 34, 7, 5, 2},
    {"AWindowThatGetsWider", {21, 3}, 2, 40, 2, 3},
    {"AWindowThatOnlyGetsLower", {21}, 2, 20, 2, 2},
};
class Rewrap : public EditorFixture, public ::testing::WithParamInterface<RewrapRow> {
 protected:
  void TearDown() override {
    unsetenv("TMUX");
    EditorFixture::TearDown();
  }
  /// The rows from the cursor up to the first row, in the window as it is now.
  static std::string erased() {
    std::vector<Row> above;
    for (const int columns : GetParam().above) {
      for (Row& row : textRows(std::string(static_cast<std::size_t>(columns), 'x'), 0, 20)) {
        above.push_back(std::move(row));
      }
    }
    Content content;
    content.prompt = std::string(static_cast<std::size_t>(GetParam().promptColumns), '>');
    Painter painter;
    painter.paint(layout(content, above, {24, 20}), {24, 20});
    return painter.erase({23, GetParam().nowCols});
  }
  static std::string up(int rows) { return "\r" + sequence::move(-rows, 0) + sequence::kEraseBelow; }
};

TEST_P(Rewrap, ErasesAllRowsWhereTheTerminalWrapsThemAnew) {
  setenv("TMUX", "/tmp/tmux", 1);
  EXPECT_EQ(erased(), up(GetParam().rowsUp));
}

TEST_P(Rewrap, ErasesTheRowsDrawnWhereTheTerminalKeepsThem) {
  EXPECT_EQ(erased(), up(GetParam().rowsUpInOrder));
}

INSTANTIATE_TEST_SUITE_P(, Rewrap, ::testing::ValuesIn(kRewraps),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(Window, ALongPasteScrollsOffOnlyWhatStoodAbove) {
  open(5, 20);
  plainPrint("one\ntwo\nthree\n");
  typeThen("\033[200~" + std::string(200, 'x') + "\033[201~", [this] {
    terminal().look([](const auto& screen) {
      EXPECT_EQ(screen.scrolledOff(), (std::vector<std::string>{"one", "two", "three"}));
    });
  });
  read();
}

TEST_F(Window, AKeyInsideTheLineWritesOnlyWhatItChanges) {
  typeThen("scan start\x02\x02", [this] { terminal().forgetWritten(); });
  typeThen("x", [this] {
    EXPECT_TRUE(shows(modelOf("scan stax|rt", true)));
    EXPECT_EQ(terminal().written(), "xrt\033[2D");
  });
  read();
}

TEST_F(Window, ALetterAndALeftInOneBurstLeaveTheCursorBeforeTheLetter) {
  typeThen("a", nullptr);
  typeThen("b\033[D", [this] { EXPECT_TRUE(shows(modelOf("a|b", true))); });
  read();
}

TEST_F(Window, AResizeKeepsAnOpenCompletionList) {
  offer({{"SCAN", "help"}, {"SHOW", "help"}});
  terminal().type("s\033=");
  terminal().resizeTo(24, 20);
  terminal().onIdle = [this] { EXPECT_EQ(terminal().text(), "TAV> s\nSCAN  help\nSHOW  help"); };
  read();
}

struct TextRow {
  const char* name;
  std::string_view text;
  const char* shown;
  std::size_t characters;
  int width;
};

using namespace std::string_view_literals;
const TextRow kTexts[] = {
    {"Ascii", "abc", "abc", 3, 3},
    {"Chinese", "扫描", "扫描", 2, 4},
    {"CombiningAccent", "e\u0301x", "e\u0301x", 2, 2},
    {"TwoCombiningAccents", "e\u0301\u0323", "e\u0301\u0323", 1, 1},
    {"AccentWithoutABase", "\u0301x", "\\xcc\\x81x", 2, 9},
    {"ZeroWidthNonJoiner", "a\u200Cb", "a\u200Cb", 2, 2},
    {"Emoji", "\U0001F600", "\U0001F600", 1, 2},
    {"FamilyOfEmoji", "\U0001F468\u200D\U0001F469", "\U0001F468\u200D\U0001F469", 1, 4},
    {"Flag", "\U0001F1E9\U0001F1EA", "\U0001F1E9\U0001F1EA", 1, 2},
    {"Control", "\x01\x1b\x7f"sv, "^A^[^?", 3, 6},
    {"Tab", "a\tb", "a^Ib", 3, 4},
    {"C1Control", "\u009Bm", "\\xc2\\x9bm", 2, 9},
    {"BidirectionalOverride", "\u202Eabc", "\\xe2\\x80\\xaeabc", 4, 15},
    {"Unassigned", "\u0378", "\\xcd\\xb8", 1, 8},
    {"SoftHyphen", "\u00AD", "\\xc2\\xad", 1, 8},
    {"HiddenTagBehindALetter", "a\U000E0041", "a\\xf3\\xa0\\x81\\x81", 2, 17},
    {"LineSeparator", "\u2028", "\\xe2\\x80\\xa8", 1, 12},
    {"ZeroWidthBlank", "\u200B", "\\xe2\\x80\\x8b", 1, 12},
    {"LoneContinuation", "\x80", "\\x80", 1, 4},
    {"Overlong", "\xC0\x80", "\\xc0\\x80", 2, 8},
    {"Surrogate", "\xED\xA0\x80", "\\xed\\xa0\\x80", 3, 12},
    {"BeyondUnicode", "\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", 4, 16},
    {"CutCharacter", "a\xE4\xB8", "a\\xe4\\xb8", 3, 9},
    {"HalfWidthKana", "\uFF71", "\uFF71", 1, 1},
    {"FullWidthColon", "：", "：", 1, 2},
};

class Texts : public EditorFixture, public ::testing::WithParamInterface<TextRow> {};
TEST_P(Texts, AreCutIntoCharactersAndColumns) {
  const TextRow& row = GetParam();
  std::string shown;
  for (const Character& c : lineeditor::characters(row.text)) {
    for (const Glyph& glyph : glyphs(row.text.substr(c.offset, c.length), c.shownAsEscape)) {
      shown += glyph.text;
      EXPECT_GE(glyph.width, 1);
      EXPECT_LE(glyph.width, 2);
    }
  }
  EXPECT_EQ(shown, row.shown);
  EXPECT_EQ(characters(row.text).size(), row.characters);
  EXPECT_EQ(displayWidth(row.text), row.width);
}

TEST_P(Texts, AreSteppedOverAndErasedWhole) {
  const TextRow& row = GetParam();
  EditorState state(4095);
  state.set(row.text);
  std::size_t steps = 0;
  while (state.left()) {
    ++steps;
  }
  EXPECT_EQ(steps, row.characters);
  state.set(row.text);
  for (std::size_t i = 0; i < row.characters; ++i) {
    EXPECT_TRUE(state.eraseBefore());
  }
  EXPECT_EQ(state.line(), "");
}

INSTANTIATE_TEST_SUITE_P(, Texts, ::testing::ValuesIn(kTexts),
                         [](const auto& test) { return std::string(test.param.name); });

class Characters : public EditorFixture {};

TEST_F(Characters, ACombiningAccentTypedLaterJoinsItsLetter) {
  typeThen("ae", nullptr);
  typeThen("\u0301", [this] { EXPECT_TRUE(shows(modelOf("ae\u0301|", true))); });
  typeThen("\x7f", [this] { EXPECT_TRUE(shows(modelOf("a|", true))); });
  read();
}

TEST_F(Characters, ErasingALetterBetweenALetterAndAnAccentKeepsTheCursorAtABoundary) {
  EditorState state(100);
  state.set("a\xFF\u0301");
  state.moveTo(1);
  EXPECT_TRUE(state.eraseAt());
  EXPECT_EQ(state.cursor(), 3U) << "the accent has joined the letter";
}

TEST_F(Characters, APlaceBehindTheLineIsItsEnd) {
  EditorState state(100);
  state.set("a中");
  state.moveTo(99);
  EXPECT_EQ(state.cursor(), 4U);
}

struct StepRow {
  const char* name;
  bool (EditorState::*step)();
  const char* where;  ///< '|' cursor; the step changes something here
  std::size_t stuck;  ///< the step changes nothing with the cursor here
};
const StepRow kSteps[] = {
    {"Left", &EditorState::left, "a|b", 0},
    {"Right", &EditorState::right, "a|b", 2},
    {"EraseBefore", &EditorState::eraseBefore, "a|b", 0},
    {"EraseAt", &EditorState::eraseAt, "a|b", 2},
    {"EraseBlanksAround", &EditorState::eraseBlanksAround, "a | b", 0},
    {"TransposeBefore", &EditorState::transposeBefore, "ab|", 1},
    {"UpperWord", &EditorState::upperWord, "|ab", 2},
    {"LowerWord", &EditorState::lowerWord, "|AB", 2},
    {"Capitalise", &EditorState::capitalise, "|ab", 2},
};
class Steps : public EditorFixture, public ::testing::WithParamInterface<StepRow> {};
TEST_P(Steps, SayWhetherTheyCouldBeTaken) {
  const PlainModel model = modelOf(GetParam().where, true);
  EditorState state(100);
  state.set(model.text());
  state.moveTo(model.cursor);
  EXPECT_TRUE((state.*GetParam().step)());
  EXPECT_TRUE(state.line() != model.text() || state.cursor() != model.cursor);
  state.set(model.text());
  state.moveTo(GetParam().stuck);
  EXPECT_FALSE((state.*GetParam().step)());
  EXPECT_EQ(state.line(), model.text());
  EXPECT_EQ(state.cursor(), GetParam().stuck);
}
INSTANTIATE_TEST_SUITE_P(, Steps, ::testing::ValuesIn(kSteps),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(Characters, CaseChangesReachLettersBeyondAscii) {
  EXPECT_EQ(readKeys("éßж扫 é\x01\033u\r"), "ÉẞЖ扫 é");
  EXPECT_EQ(readKeys("a\xFF\x01\033u\r"), "A\xFF");
}

TEST_F(Characters, ACaseChangeThatDoesNotFitChangesNothing) {
  EditorState state(2);
  state.set("\u0131");  // two bytes; its capital has one
  state.moveTo(0);
  EXPECT_TRUE(state.upperWord());
  EXPECT_EQ(state.line(), "I");
  state.set("\u0250");  // two bytes; its capital has three
  state.moveTo(0);
  EXPECT_FALSE(state.upperWord());
  EXPECT_EQ(state.line(), "\u0250");
}

}  // namespace

}  // namespace lineeditor
