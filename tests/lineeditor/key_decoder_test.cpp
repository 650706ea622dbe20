// The bytes that terminals send for keys, and bytes that are no key.
#include "KeyDecoder.h"
#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

struct FormRow {
  const char* name;
  const char* bytes;
  KeyCode code;
  bool alt = false;
  bool ctrl = false;
};

const FormRow kForms[] = {
    {"XtermUp", "\033[A", KeyCode::kUp},
    {"XtermApplicationUp", "\033OA", KeyCode::kUp},
    {"XtermAltUp", "\033[1;3A", KeyCode::kUp, true},
    {"EscUp", "\033\033[A", KeyCode::kUp, true},
    {"EscApplicationUp", "\033\033OA", KeyCode::kUp, true},
    {"XtermDown", "\033[B", KeyCode::kDown},
    {"XtermApplicationDown", "\033OB", KeyCode::kDown},
    {"XtermRight", "\033[C", KeyCode::kRight},
    {"XtermApplicationRight", "\033OC", KeyCode::kRight},
    {"XtermCtrlRight", "\033[1;5C", KeyCode::kRight, false, true},
    {"RxvtCtrlRight", "\033Oc", KeyCode::kRight, false, true},
    {"OldXtermRightWithModifierZero", "\033O0C", KeyCode::kRight},
    {"RxvtShiftRight", "\033[c", KeyCode::kRight},
    {"XtermLeft", "\033[D", KeyCode::kLeft},
    {"XtermApplicationLeft", "\033OD", KeyCode::kLeft},
    {"OldXtermCtrlLeft", "\033O5D", KeyCode::kLeft, false, true},
    {"XtermHome", "\033[H", KeyCode::kHome},
    {"XtermApplicationHome", "\033OH", KeyCode::kHome},
    {"VtHome", "\033[1~", KeyCode::kHome},
    {"RxvtHome", "\033[7~", KeyCode::kHome},
    {"RxvtShiftHome", "\033[7$", KeyCode::kHome},
    {"RxvtEscHome", "\033\033[7~", KeyCode::kHome, true},
    {"XtermAltHome", "\033[1;3H", KeyCode::kHome, true},
    {"XtermEnd", "\033[F", KeyCode::kEnd},
    {"XtermApplicationEnd", "\033OF", KeyCode::kEnd},
    {"VtEnd", "\033[4~", KeyCode::kEnd},
    {"RxvtEnd", "\033[8~", KeyCode::kEnd},
    {"RxvtCtrlEnd", "\033[8^", KeyCode::kEnd, false, true},
    {"RxvtCtrlShiftEnd", "\033[8@", KeyCode::kEnd, false, true},
    {"XtermAltEnd", "\033[1;3F", KeyCode::kEnd, true},
    {"Insert", "\033[2~", KeyCode::kInsert},
    {"Delete", "\033[3~", KeyCode::kDelete},
    {"RxvtShiftDelete", "\033[3$", KeyCode::kDelete},
    {"PageUp", "\033[5~", KeyCode::kPageUp},
    {"PageDown", "\033[6~", KeyCode::kPageDown},
    {"XtermF1", "\033OP", KeyCode::kF1},
    {"VtF1", "\033[11~", KeyCode::kF1},
    {"XtermCtrlF1", "\033[11;5~", KeyCode::kF1, false, true},
    {"LinuxConsoleF1", "\033[[A", KeyCode::kF1},
    {"XtermF2", "\033OQ", KeyCode::kF2},
    {"VtF2", "\033[12~", KeyCode::kF2},
    {"LinuxConsoleF2", "\033[[B", KeyCode::kF2},
    {"XtermF3", "\033OR", KeyCode::kF3},
    {"VtF3", "\033[13~", KeyCode::kF3},
    {"LinuxConsoleF3", "\033[[C", KeyCode::kF3},
    {"XtermF4", "\033OS", KeyCode::kF4},
    {"VtF4", "\033[14~", KeyCode::kF4},
    {"LinuxConsoleF4", "\033[[D", KeyCode::kF4},
};

class KeyForms : public EditorFixture, public ::testing::WithParamInterface<FormRow> {};

TEST_P(KeyForms, IsTakenAsTheKeyItIs) {
  terminal().type(std::string(GetParam().bytes) + "z");
  KeyDecoder decoder;
  const Key key = decoder.next();
  EXPECT_EQ(key.code, GetParam().code);
  EXPECT_EQ(key.alt, GetParam().alt);
  EXPECT_EQ(key.ctrl, GetParam().ctrl);
  EXPECT_EQ(decoder.next().text, "z");
}

INSTANTIATE_TEST_SUITE_P(, KeyForms, ::testing::ValuesIn(kForms),
                         [](const auto& test) { return std::string(test.param.name); });

struct SwallowedRow {
  const char* name;
  const char* bytes;
};

const SwallowedRow kSwallowed[] = {
    {"F5", "\033[15~"},
    {"F12", "\033[24~"},
    {"LinuxConsoleF5", "\033[[E"},
    {"ShiftTab", "\033[Z"},
    {"CursorReport", "\033[12;40R"},
    {"CursorReportOfTheFirstPlace", "\033[1;1R"},
    {"DeviceAttributes", "\033[?1;2c"},
    {"ModeReport", "\033[?2004;1$y"},
    {"ModifiedLetter", "\033[27;5;97~"},
    {"KeyAsNumber", "\033[97;5u"},
    {"MouseReport", "\033[M !!"},
    {"LongMouseReport", "\033[<0;10;20M"},
    {"FocusIn", "\033[I"},
    {"ManyParameters",
     "\033[1;2;3;4;5;6;7;8;9;1;2;3;4;5;6;7;8;9;1;2;3;4;5;6;7;8;9;1;2;3;4;5;6;7;8;9;1;2;3;4;5;6;7;8;9m"},
    {"HugeNumber", "\033[99999999999999999999~"},
    {"NoNumber", "\033[;;~"},
    {"LeftWithAnotherNumber", "\033[2D"},
    {"SingleShiftWithAHugeNumber", "\033O99999999999999999999D"},
    {"SingleShiftThatLooksLikeAPaste", "\033O200~"},
    {"ConsoleMarkBehindANumber", "\033[1["},
    {"StringWithASequenceInside", "\033Pa\033[Db\033\\"},
    {"SubParameter", "\033[1:2D"},
    {"SingleShiftWithADollar", "\033O7$a"},
    {"EndOfPasteWithoutItsStart", "\033[201~"},
    {"KeypadKey", "\033Oj"},
    {"ColourReport", "\033]11;rgb:ffff/ffff/ffff\007"},
    {"ColourReportWithLongEnd", "\033]11;rgb:ffff/ffff/ffff\033\\"},
    {"DeviceString", "\033P1+r544e=787465726d\033\\"},
    {"AltOfAnUnboundLetter", "\033q"},
    {"AltOfChinese", "\033中"},
    {"AltEnter", "\033\r"},
};

class SwallowedWhole : public EditorFixture, public ::testing::WithParamInterface<SwallowedRow> {};

TEST_P(SwallowedWhole, LeavesNothingInTheLine) {
  typeThen("ab", nullptr);
  typeThen(GetParam().bytes, [this] { EXPECT_TRUE(shows(modelOf("ab|", true))); });
  typeThen("c\r", nullptr);
  EXPECT_EQ(read(), "abc");
}

TEST_P(SwallowedWhole, LeavesTheKeysThatFollowAtOnceAsTheyAre) {
  EXPECT_EQ(readKeys("ab" + std::string(GetParam().bytes) + "cdef\r"), "abcdef");
}

INSTANTIATE_TEST_SUITE_P(, SwallowedWhole, ::testing::ValuesIn(kSwallowed),
                         [](const auto& test) { return std::string(test.param.name); });

class HalfSequence : public EditorFixture, public ::testing::WithParamInterface<SwallowedRow> {};

const SwallowedRow kHalves[] = {{"Esc", "\033"},
                                {"EscEsc", "\033\033"},
                                {"Csi", "\033["},
                                {"CsiNumber", "\033[1"},
                                {"CsiModifier", "\033[1;"},
                                {"Ss3", "\033O"},
                                {"LinuxConsole", "\033[["},
                                {"PasteMark", "\033[200"},
                                {"Osc", "\033]11;rgb"},
                                {"EscEscCsi", "\033\033["},
                                {"Mouse", "\033[M "},
                                {"Dcs", "\033P1"}};

TEST_P(HalfSequence, LeavesNothingInTheLineAndDoesNotHang) {
  terminal().type("ab");
  terminal().type(GetParam().bytes);
  terminal().pause();
  terminal().type("c\r");
  EXPECT_EQ(read(), "abc");
}

TEST_P(HalfSequence, GivesWayToTheKeyAfterIt) {
  terminal().type("ab");
  terminal().type(GetParam().bytes);
  terminal().pause();
  terminal().type("\033[D!\r");
  EXPECT_EQ(read(), "a!b");
}

TEST_P(HalfSequence, IsNotTornByAChangeOfTheWindow) {
  terminal().type("ab\033");
  terminal().resizeTo(24, 60);
  terminal().type("[");
  terminal().resizeTo(24, 50);
  terminal().type("D!\r");
  EXPECT_EQ(read(), "a!b");
}

INSTANTIATE_TEST_SUITE_P(, HalfSequence, ::testing::ValuesIn(kHalves),
                         [](const auto& test) { return std::string(test.param.name); });

class KeyBytes : public EditorFixture {};

TEST_F(KeyBytes, ASequenceCutOffByAnotherGivesTheOther) {
  EXPECT_EQ(readKeys("ab\033[1;\033[D!\r"), "a!b");
}

TEST_F(KeyBytes, ASequenceCutOffByAnotherIsNoKey) {
  terminal().type("\033[1;\033[A");
  EXPECT_EQ(KeyDecoder().next().code, KeyCode::kUp);
}

TEST_F(KeyBytes, ASequenceCutOffByAControlCharacterGivesThatKey) {
  EXPECT_EQ(readKeys("ab\033[1\x02!\r"), "a!b");
}

TEST_F(KeyBytes, ASequenceCutOffByTextGivesTheText) {
  EXPECT_EQ(readKeys("ab\033[1中\r"), "ab中");
  EXPECT_EQ(readKeys("ab\033[1\x80\r"), "ab\x80");
}

TEST_F(KeyBytes, EscPressedByHandBeforeUpOrHomeIsThePrefix) {
  terminal().type("ab\x02\033");
  terminal().pause();
  terminal().type("\033[H!\r");
  EXPECT_EQ(read(), "!b") << "ESC, then Home, cuts to the start";
}

TEST_F(KeyBytes, EscPressedByHandBeforeEndIsThePrefix) {
  terminal().type("ab\x02\033");
  terminal().pause();
  terminal().type("\033[F!\r");
  EXPECT_EQ(read(), "a!") << "ESC, then End, cuts to the end";
}

TEST_F(KeyBytes, EscPressedByHandBeforeUpOrDownStaysInTheLine) {
  for (const char* key : {"\033[A", "\033[B"}) {
    historyClear();
    storeLines(3);
    terminal().type("\x10\x10\033");
    terminal().pause();
    terminal().type(std::string(key) + "\r");
    EXPECT_EQ(read(), "line 2");
  }
}

TEST_F(KeyBytes, ACharacterThatComesInPiecesIsOneCharacter) {
  terminal().type("\xE4");
  terminal().type("\xB8\xAD\x7f\r");
  EXPECT_EQ(read(), "");
}

TEST_F(KeyBytes, AWholeCharacterTakesNoByteBehindIt) {
  for (const std::string character :
       {"a", "\u0080", "\u07FF", "\u0800", "\uFFFD", "\U00010000", "\U0010FFFF"}) {
    terminal().type(character + "\x80");
    KeyDecoder decoder;
    EXPECT_EQ(decoder.next().text, character);
    EXPECT_EQ(decoder.next().text, "\x80");
  }
}

TEST_F(KeyBytes, ACharacterThatStopsHalfwayIsKeptAsItsBytes) {
  typeThen("a\xE4\xB8", [this] { EXPECT_TRUE(shows(modelOf("a\\xe4\\xb8|", true))); });
  typeThen("b\r", nullptr);
  EXPECT_EQ(read(),
            "a\xE4\xB8"
            "b");
}

TEST_F(KeyBytes, EnterBehindTheBeginningOfACharacterIsEnter) {
  EXPECT_EQ(readKeys("a\xE4\r"), "a\xE4");
}

TEST_F(KeyBytes, AChangeOfTheWindowBetweenTwoBytesOfAnEndMarkIsToldAndLosesNothing) {
  terminal().type("\033[200~ab\033");
  terminal().resizeTo(24, 60);
  terminal().type("[2");
  terminal().resizeTo(24, 70);
  terminal().type("01~");
  KeyDecoder decoder;
  EXPECT_EQ(decoder.next().text, "ab");
  EXPECT_EQ(decoder.next().code, KeyCode::kResized);
  EXPECT_EQ(decoder.next().code, KeyCode::kResized);
  const Key rest = decoder.next();
  EXPECT_EQ(rest.code, KeyCode::kPaste);
  EXPECT_EQ(rest.text, "");
}

TEST_F(KeyBytes, BytesThatAreNotUtf8AreShownAsHexAndKept) {
  typeThen(
      "a\xFF\x80"
      "b",
      [this] { EXPECT_TRUE(shows(modelOf("a\\xff\\x80b|", true))); });
  typeThen("\x02\x02", [this] { EXPECT_TRUE(shows(modelOf("a\\xff|\\x80b", true))); });
  typeThen("\x7f\r", nullptr);
  EXPECT_EQ(read(),
            "a\x80"
            "b");
}

TEST_F(KeyBytes, CtrlBlankIsNoKey) {
  EXPECT_EQ(readKeys(std::string("a\0b\r", 4)), "ab");
}

TEST_F(KeyBytes, CtrlZAndCtrlBackslashAreNoSignals) {
  EXPECT_EQ(readKeys("a\x1a\x1c"
                     "b\r"),
            "ab");
}

}  // namespace

}  // namespace lineeditor
