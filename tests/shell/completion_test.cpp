#include "lineeditor/Completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestGrammar.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

lineeditor::CompletionState complete(CliTree& tree, const std::string& text) {
  lineeditor::CompletionState state;
  EXPECT_EQ(tree.complete(text, &state), 1) << text;
  return state;
}

std::vector<std::string> names(CliTree& tree, const std::string& text) {
  std::vector<std::string> found;
  for (const lineeditor::Candidate& candidate : complete(tree, text).candidates) {
    found.push_back(candidate.name);
  }
  return found;
}

}  // namespace

TEST(Completion, OfAnEmptyLineOffersEveryCommand) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, ""), ElementsAre("RUN", "STOP", "ZERO"));
  EXPECT_THAT(names(grammar.tree, "   "), ElementsAre("RUN", "STOP", "ZERO"));
}

TEST(Completion, OfABeginningOffersWhatBeginsWithItInAnyLetterCase) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "R"), ElementsAre("RUN"));
  EXPECT_THAT(names(grammar.tree, "st"), ElementsAre("STOP"));
  EXPECT_THAT(names(grammar.tree, "run mode s"), ElementsAre("SLOW"));
  EXPECT_THAT(names(grammar.tree, "X"), IsEmpty());
}

TEST(Completion, OfAWholeKeywordWithoutABlankOffersNothing) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "RUN"), IsEmpty());
  EXPECT_THAT(names(grammar.tree, "RUN MODE"), IsEmpty());
  EXPECT_THAT(names(grammar.tree, "RUN MODE FAST"), IsEmpty());
}

TEST(Completion, OfAKeywordWithABlankOffersItsChildrenOnly) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "RUN "), ElementsAre("MODE", "HANDLE", "EXTRA"));
  EXPECT_THAT(names(grammar.tree, "RUN MODE "), ElementsAre("FAST", "SLOW", "AT"));
}

TEST(Completion, BehindAChoiceOffersTheOptionsThatAreLeft) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "RUN MODE FAST "), ElementsAre("HANDLE", "EXTRA"));
  EXPECT_THAT(names(grammar.tree, "RUN MODE FAST E"), ElementsAre("EXTRA"));
  EXPECT_THAT(names(grammar.tree, "RUN HANDLE ASK EXTRA ON "), ElementsAre("MODE"));
}

TEST(Completion, BehindAWholeCommandOffersNothing) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "ZERO "), IsEmpty());
  EXPECT_THAT(names(grammar.tree, "RUN MODE FAST HANDLE AUTO EXTRA ON "), IsEmpty());
}

TEST(Completion, BehindAnUnknownWordOffersNothing) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "BOGUS "), IsEmpty());
  EXPECT_THAT(names(grammar.tree, "RUN BOGUS F"), IsEmpty());
}

TEST(Completion, AValueKeywordWithABlankShowsItsHintInTheHintColour) {
  RunGrammar grammar;
  const lineeditor::CompletionState state = complete(grammar.tree, "RUN MODE AT ");
  EXPECT_THAT(state.candidates, IsEmpty());
  EXPECT_EQ(state.hint, "\" [pace]\"");
  EXPECT_EQ(state.hintColour, 1800u);
}

TEST(Completion, AValueKeywordWithoutABlankOffersNothingAndShowsNoHint) {
  RunGrammar grammar;
  const lineeditor::CompletionState state = complete(grammar.tree, "RUN MODE AT");
  EXPECT_THAT(state.candidates, IsEmpty());
  EXPECT_EQ(state.hint, "");
}

TEST(Completion, AValueBeingTypedOffersNothing) {
  RunGrammar grammar;
  const lineeditor::CompletionState state = complete(grammar.tree, "RUN MODE AT 1");
  EXPECT_THAT(state.candidates, IsEmpty());
  EXPECT_EQ(state.hint, "");
}

TEST(Completion, BehindAValueOffersWhatMayFollow) {
  RunGrammar grammar;
  EXPECT_THAT(names(grammar.tree, "RUN MODE AT 12 "), ElementsAre("HANDLE", "EXTRA"));
  EXPECT_THAT(names(grammar.tree, "RUN MODE AT 12 H"), ElementsAre("HANDLE"));
}

TEST(Completion, NeverCallsAHandler) {
  RunGrammar grammar;
  complete(grammar.tree, "RUN MODE AT 12 HANDLE AUTO ");
  EXPECT_THAT(grammar.handled, IsEmpty());
}

TEST(Completion, ASecondTimeGivesTheSameAndLeavesNoMarks) {
  RunGrammar grammar;
  const std::vector<std::string> first = names(grammar.tree, "RUN MODE FAST ");
  EXPECT_EQ(names(grammar.tree, "RUN MODE FAST "), first);
  EXPECT_EQ(grammar.tree.parse("RUN MODE FAST HANDLE AUTO"), 0);
  EXPECT_EQ(names(grammar.tree, "RUN MODE FAST "), first);
}

TEST(Completion, NamesFromTheNinthOnStandInTheOtherColour) {
  TestGrammar grammar;
  for (int i = 0; i < 12; ++i) {
    grammar.add(nullptr, "WORD" + std::to_string(i), "11", 0, "help " + std::to_string(i));
  }
  const lineeditor::CompletionState state = complete(grammar.tree, "");
  ASSERT_EQ(state.candidates.size(), 12u);
  for (std::size_t i = 0; i < 12; ++i) {
    EXPECT_EQ(state.candidates[i].nameColour, i < 8 ? 132u : 135u) << i;
    EXPECT_EQ(state.candidates[i].helpColour, i % 2 == 0 ? 7u : 8u) << i;
    EXPECT_EQ(state.candidates[i].help, "help " + std::to_string(i));
  }
}

TEST(Completion, ColoursGoByThePlaceInTheCollectedListNotInTheOfferedOne) {
  TestGrammar grammar;
  for (int i = 0; i < 9; ++i) {
    grammar.add(nullptr, "A" + std::to_string(i), "11", 0, "help");
  }
  grammar.add(nullptr, "LAST", "11", 0, "help");
  const lineeditor::CompletionState state = complete(grammar.tree, "L");
  ASSERT_EQ(state.candidates.size(), 1u);
  EXPECT_EQ(state.candidates[0].nameColour, 135u);
  EXPECT_EQ(state.candidates[0].helpColour, 8u);
}

TEST(Completion, NamesOfALevelWithoutAnyHelpStandAloneInTheirOwnColour) {
  TestGrammar grammar;
  grammar.add(nullptr, "ONE", "11");
  grammar.add(nullptr, "TWO", "11");
  const lineeditor::CompletionState state = complete(grammar.tree, "");
  ASSERT_EQ(state.candidates.size(), 2u);
  for (const lineeditor::Candidate& candidate : state.candidates) {
    EXPECT_EQ(candidate.nameColour, 134u);
    EXPECT_EQ(candidate.help, "");
  }
}

TEST(Completion, FiveHundredAndTwelveCandidatesAreOfferedAndNoMore) {
  TestGrammar grammar;
  for (int i = 0; i < 600; ++i) {
    grammar.add(nullptr, "W" + std::to_string(i), "11", 0, "help");
  }
  EXPECT_EQ(complete(grammar.tree, "").candidates.size(), 512u);
}
