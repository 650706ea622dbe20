#include "lineeditor/EditorFixture.h"

namespace lineeditor {

namespace {

class Completion : public EditorFixture {};

TEST_F(Completion, ASingleCandidateStandsWholeInItsOwnSpellingWithABlank) {
  offer({{"SCAN", "扫描"}, {"CONFIG", "设置"}});
  typeThen("sc\t", [this] {
    EXPECT_TRUE(shows(modelOf("SCAN |", true)));
    EXPECT_EQ(asked, "sc");
  });
  EXPECT_EQ(readKeys("\r"), "SCAN");
}

TEST_F(Completion, AWholeNameIsSpelledAnewAndGetsItsBlank) {
  offer({{"SCAN", ""}});
  typeThen("scan\t", [this] { EXPECT_TRUE(shows(modelOf("SCAN |", true))); });
  read();
}

TEST_F(Completion, TheLongestCommonBeginningIsPutIntoTheLine) {
  offer({{"SCANCACHE", ""}, {"SCANMODE", ""}, {"CONFIG", ""}});
  typeThen("s\t", [this] { EXPECT_EQ(terminal().text(), "TAV> SCAN\nSCANCACHE   SCANMODE"); });
  EXPECT_EQ(readKeys("m\t\r"), "SCANMODE");
}

TEST_F(Completion, OfAnEmptyLineOffersEverything) {
  offer({{"SCAN", "扫描"}, {"CONFIG", "设置"}, {"QUIT", ""}});
  typeThen("\t", [this] {
    EXPECT_EQ(terminal().text(), "TAV>\nSCAN    扫描   CONFIG  设置   QUIT");
    EXPECT_EQ(terminal().cursorRow(), 0);
    EXPECT_EQ(terminal().cursorCol(), 5);
  });
  read();
}

TEST_F(Completion, OnlyTheTextBeforeTheCursorIsCompleted) {
  offer({{"SCAN", ""}});
  typeThen("sc start\x01\033[C\033[C\t", [this] {
    EXPECT_EQ(asked, "sc");
    EXPECT_TRUE(shows(modelOf("SCAN |start", true))) << "the blank that stood there serves";
  });
  read();
}

TEST_F(Completion, TheWordAfterABlankIsCompleted) {
  offer({{"START", ""}});
  EXPECT_EQ(readKeys("SCAN st\t\r"), "SCAN START");
}

TEST_F(Completion, TheWordAfterATabIsCompleted) {
  offer({{"START", ""}, {"STOP", ""}});
  // A bracketed paste brings a tab into the line.
  typeThen("\033[200~SCAN\tst\033[201~", nullptr);
  EXPECT_EQ(readKeys("\ta\t\r"), "SCAN\tSTART");
}

TEST_F(Completion, ANewHookReplacesTheOneBefore) {
  offer({{"OLD", ""}});
  offer({{"NEW", ""}});
  EXPECT_EQ(readKeys("\t\r"), "NEW");
}

TEST_F(Completion, NoHookInPlaceOfAnotherOffersNothing) {
  offer({{"OLD", ""}});
  setCompletionHook(nullptr);
  EXPECT_EQ(readKeys("o\t\033=\r"), "o");
}

TEST_F(Completion, NothingOfferedLeavesTheLineAndBeeps) {
  offer({});
  typeThen("SCAN\t", [this] {
    EXPECT_EQ(terminal().text(), "TAV> SCAN");
    EXPECT_NE(terminal().written().find('\a'), std::string::npos);
  });
  EXPECT_EQ(readKeys("\r"), "SCAN");
}

TEST_F(Completion, WithoutAHookNothingIsOffered) {
  EXPECT_EQ(readKeys("s\t\033=\r"), "s");
}

TEST_F(Completion, AValueKeywordShowsItsHintInItsColour) {
  setCompletionHook([](const char*, CompletionState* state) {
    setHint(state, " [string]", kWhiteOnCyan);
    return 1;
  });
  typeThen("PATH \t", [this] {
    EXPECT_EQ(terminal().text(), "TAV> PATH\n [string]");
    EXPECT_EQ(terminal().cursorCol(), 10);
    terminal().look([](const auto& screen) {
      EXPECT_EQ(screen.foreground(1, 2), 7);
      EXPECT_EQ(screen.background(1, 2), 6);
    });
  });
  typeThen("/", [this] { EXPECT_EQ(terminal().text(), "TAV> PATH /"); });
  EXPECT_EQ(readKeys("x\r"), "PATH /x");
}

TEST_F(Completion, NamesAndHelpStandInTheColoursGiven) {
  std::vector<Offer> names;
  for (int i = 1; i <= 10; ++i) {
    names.push_back({"NAME" + std::to_string(i), std::string(60, 'h')});
  }
  offer(names);
  typeThen("\t", [this] {
    terminal().look([](const auto& screen) {
      for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(screen.foreground(i + 1, 0), i < 8 ? 11 : 14) << "the ninth and later are 135: " << i;
        EXPECT_EQ(screen.foreground(i + 1, 10), i % 2 == 0 ? 6 : 7) << i;
      }
      EXPECT_EQ(screen.foreground(0, 5), -1);
    });
  });
  read();
}

TEST_F(Completion, AltEqualsAndAltQuestionMarkListAndInsertNothing) {
  offer({{"SCAN", "扫描"}});
  for (const char* key : {"\033=", "\033?"}) {
    typeThen("s", nullptr);
    typeThen(key, [this] {
      EXPECT_EQ(terminal().text().substr(terminal().text().rfind("TAV>")), "TAV> s\nSCAN  扫描");
    });
    EXPECT_EQ(readKeys("\r"), "s");
  }
}

TEST_F(Completion, EnterOnAnOpenListAcceptsAndLeavesNothingOfIt) {
  offer({{"SCAN", ""}, {"SHOW", ""}});
  EXPECT_EQ(readKeys("s\033=\r"), "s");
  EXPECT_EQ(terminal().text(), "TAV> s");
  EXPECT_EQ(terminal().cursorRow(), 1);
}

TEST_F(Completion, AListThatDoesNotFitIsPaged) {
  std::vector<Offer> names;
  for (int i = 1; i <= 60; ++i) {
    names.push_back({"NAME" + std::to_string(i), std::string(60, 'h')});
  }
  offer(names);
  typeThen("x\x7f\033=", [this] {
    EXPECT_EQ(terminal().row(0), "TAV>");
    EXPECT_TRUE(terminal().row(22).starts_with("NAME22 "));
    EXPECT_EQ(terminal().row(23), "*** Press <Space> or <Enter> to continue . . .");
    EXPECT_EQ(terminal().cursorRow(), 0);
  });
  typeThen(" ", [this] { EXPECT_TRUE(terminal().row(22).starts_with("NAME44 ")) << terminal().text(); });
  typeThen("\r", [this] {
    EXPECT_TRUE(terminal().row(1).starts_with("NAME45 "));
    EXPECT_TRUE(terminal().row(16).starts_with("NAME60 "));
    EXPECT_EQ(terminal().row(17), "");
  });
  typeThen("q", [this] { EXPECT_EQ(terminal().text(), "TAV> q"); });
  EXPECT_EQ(readKeys("\r"), "q");
}

TEST_F(Completion, AnyOtherKeyClosesAPagedListAndDoesWhatItDoes) {
  std::vector<Offer> names(60, {"NAME", std::string(70, 'h')});
  offer(names);
  typeThen("\033=", nullptr);
  typeThen("s", [this] { EXPECT_EQ(terminal().text(), "TAV> s"); });
  read();
}

TEST_F(Completion, HelpThatDoesNotFitIsCutBetweenCharacters) {
  open(24, 20);
  offer({{"SCAN", "扫描扫描扫描扫描扫描"}, {"CONFIG", "a设置设置设置设置设置"}});
  typeThen("\t", [this] {
    EXPECT_EQ(terminal().row(1), "SCAN    扫描扫描扫描");
    EXPECT_EQ(terminal().row(2), "CONFIG  a设置设置设");
  });
  read();
}

TEST_F(Completion, TheListStandsUnderAWrappedLine) {
  open(24, 20);
  offer({{"SCAN", ""}, {"SHOW", ""}});
  typeThen("one two three four five s\033=", [this] {
    EXPECT_EQ(terminal().text(), "TAV> one two three f\nour five s\nSCAN   SHOW");
    EXPECT_EQ(terminal().cursorRow(), 1);
    EXPECT_EQ(terminal().cursorCol(), 10);
  });
  typeThen("c", [this] { EXPECT_EQ(terminal().text(), "TAV> one two three f\nour five sc"); });
  read();
}

TEST_F(Completion, AListAtTheBottomOfTheWindowScrolls) {
  offer({{"SCAN", ""}, {"SHOW", ""}});
  for (int i = 0; i < 30; ++i) {
    plainPrint("output %d\n", i);
  }
  typeThen("s\033=", [this] {
    EXPECT_EQ(terminal().row(21), "output 29");
    EXPECT_EQ(terminal().row(22), "TAV> s");
    EXPECT_EQ(terminal().row(23), "SCAN   SHOW");
  });
  typeThen("c", [this] {
    EXPECT_EQ(terminal().row(22), "TAV> sc");
    EXPECT_EQ(terminal().row(23), "");
  });
  read();
}

TEST(CompletionStateLimits, MoreThan512CandidatesAreIgnored) {
  CompletionState state;
  for (int i = 0; i < 600; ++i) {
    addCandidate(&state, ("N" + std::to_string(i)).c_str(), "");
  }
  ASSERT_EQ(state.candidates.size(), 512U);
  EXPECT_EQ(state.candidates.back().name, "N511");
}

TEST(CompletionStateLimits, NoNameIsNoCandidate) {
  CompletionState state;
  addCandidate(nullptr, "NAME", "help");
  addCandidate(&state, nullptr, "help");
  EXPECT_TRUE(state.candidates.empty());
}

TEST(CompletionStateLimits, LongTextsAreCutBetweenCharacters) {
  CompletionState state;
  addCandidate(&state, std::string(70, 'n').c_str(), 1, std::string(300, 'h').c_str(), 2);
  addCandidate(&state, ("n" + std::string("扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫扫")).c_str(), nullptr);
  setHint(&state, std::string(200, 'i').c_str());
  EXPECT_EQ(state.candidates[0].name.size(), 63U);
  EXPECT_EQ(state.candidates[0].help.size(), 255U);
  EXPECT_EQ(state.candidates[0].nameColour, 1U);
  EXPECT_EQ(state.candidates[0].helpColour, 2U);
  EXPECT_EQ(state.candidates[1].name.size(), 61U);
  EXPECT_EQ(state.candidates[1].help, "");
  EXPECT_EQ(state.hint.size(), 127U);
  EXPECT_EQ(state.hintColour, 0U);
}

TEST_F(Completion, AllOf512CandidatesCanBePagedThrough) {
  std::vector<Offer> names;
  for (int i = 0; i < 512; ++i) {
    names.push_back({"N" + std::to_string(i), "h"});
  }
  offer(names);
  typeThen("\033=  ",
           [this] { EXPECT_NE(terminal().text().find("N511"), std::string::npos) << terminal().text(); });
  read();
}

}  // namespace

}  // namespace lineeditor
