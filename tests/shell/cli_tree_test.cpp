#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "OnATerminal.h"
#include "TestGrammar.h"
#include "lineeditor/Terminal.h"
#include "support/Capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::outputOf;

namespace {

/// The report of missing options, without colours: the heading, then name and help in columns of thirty.
std::string report(const std::vector<std::pair<std::string, std::string>>& missing) {
  std::string text = "缺少必要选项:";
  for (const auto& [name, help] : missing) {
    char row[200];
    std::snprintf(row, sizeof row, "%-30s%-30s\n", name.c_str(), help.c_str());
    text += row;
  }
  return text;
}

struct ParseOutcome {
  std::int32_t result = 0;
  std::string printed;
};

ParseOutcome parse(CliTree& tree, const std::string& line) {
  ParseOutcome outcome;
  outcome.printed = outputOf([&] { outcome.result = tree.parse(line); });
  return outcome;
}

}  // namespace

TEST(CliTree, TheRootIsNamedRootAndIsARequiredAlternativeWithoutValue) {
  CliTree tree;
  EXPECT_EQ(tree.root()->name, "root");
  EXPECT_EQ(tree.root()->alternative, 1);
  EXPECT_EQ(tree.root()->required, 1);
  EXPECT_EQ(tree.root()->valueKind, 0);
}

TEST(CliTree, ANewNodeHasNoHandlerHelpOrHint) {
  const CliNodeInfo node("NAME", 1, 0, 2);
  EXPECT_FALSE(node.handler);
  EXPECT_EQ(node.help, "");
  EXPECT_EQ(node.hint, "");
  EXPECT_EQ(node.matched, 0);
  EXPECT_EQ(node.alternative, 1);
  EXPECT_EQ(node.required, 0);
  EXPECT_EQ(node.valueKind, 2);
}

TEST(CliTree, ChildrenStandInTheOrderInWhichTheyWereAppended) {
  TestGrammar grammar;
  CliNodeInfo* const first = grammar.add(nullptr, "FIRST", "11");
  CliNodeInfo* const second = grammar.add(nullptr, "SECOND", "11");
  CliNodeInfo* const below = grammar.add(first, "BELOW", "11");
  const CliTreeNode* const root = grammar.tree.find(grammar.tree.root());
  ASSERT_NE(root->firstChild, nullptr);
  EXPECT_EQ(root->firstChild->info, first);
  EXPECT_EQ(root->firstChild->parent, root);
  ASSERT_NE(root->firstChild->nextSibling, nullptr);
  EXPECT_EQ(root->firstChild->nextSibling->info, second);
  EXPECT_EQ(root->firstChild->nextSibling->parent, root);
  ASSERT_NE(root->firstChild->firstChild, nullptr);
  EXPECT_EQ(root->firstChild->firstChild->info, below);
  EXPECT_EQ(root->firstChild->firstChild->parent, root->firstChild.get());
}

TEST(CliTree, AppendingUnderAParentThatIsNotInTheTreeDoesNothing) {
  CliTree tree;
  CliNodeInfo stranger("STRANGER", 1, 1, 0);
  CliNodeInfo child("CHILD", 1, 1, 0);
  tree.addChild(&stranger, &child);
  tree.addChild(&stranger, &child, 7);
  EXPECT_EQ(tree.find(&child), nullptr);
  EXPECT_EQ(tree.find(tree.root())->firstChild, nullptr);
}

TEST(CliTree, AParentIsFoundByIdentityNotByName) {
  CliTree tree;
  CliNodeInfo inTree("SAME", 1, 1, 0);
  CliNodeInfo twin("SAME", 1, 1, 0);
  CliNodeInfo child("CHILD", 1, 1, 0);
  tree.addChild(&inTree);
  tree.addChild(&twin, &child);
  EXPECT_EQ(tree.find(&child), nullptr);
}

TEST(CliTree, AppendingNothingDoesNothing) {
  CliTree tree;
  tree.addChild(nullptr);
  EXPECT_EQ(tree.find(tree.root())->firstChild, nullptr);
}

TEST(CliTree, ATagIsKeptOnlyByAChildBehindExistingSiblings) {
  CliTree tree;
  CliNodeInfo first("FIRST", 1, 1, 0);
  CliNodeInfo second("SECOND", 1, 1, 0);
  CliNodeInfo below("BELOW", 1, 1, 0);
  CliNodeInfo beside("BESIDE", 1, 1, 0);
  tree.addChild(&first, 5u);
  tree.addChild(&second, 6u);
  tree.addChild(&first, &below, 7u);
  tree.addChild(&first, &beside, 8u);
  EXPECT_EQ(tree.find(&first)->tag, 0u);
  EXPECT_EQ(tree.find(&second)->tag, 6u);
  EXPECT_EQ(tree.find(&below)->tag, 0u);
  EXPECT_EQ(tree.find(&beside)->tag, 8u);
}

TEST(CliTree, AnAppendWithoutTagLeavesTheTagZero) {
  CliTree tree;
  CliNodeInfo first("FIRST", 1, 1, 0);
  CliNodeInfo second("SECOND", 1, 1, 0);
  tree.addChild(&first);
  tree.addChild(&second);
  EXPECT_EQ(tree.find(&second)->tag, 0u);
}

TEST(CliTree, DestroyingTheTreeLeavesTheRecordsToTheirModules) {
  CliNodeInfo first("FIRST", 1, 1, 0);
  CliNodeInfo below("BELOW", 1, 1, 0);
  {
    CliTree tree;
    tree.addChild(&first);
    tree.addChild(&first, &below);
  }
  EXPECT_EQ(first.name, "FIRST");
  EXPECT_EQ(below.name, "BELOW");
}

TEST(CliTreeParse, AKeywordMatchesInAnyLetterCase) {
  for (const char* word : {"ZERO", "zero", "Zero", "zErO"}) {
    RunGrammar grammar;
    EXPECT_EQ(grammar.tree.parse(word), 0) << word;
    EXPECT_THAT(grammar.handled, ElementsAre("ZERO")) << word;
  }
}

TEST(CliTreeParse, ABeginningOfAKeywordDoesNotMatch) {
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "ZER");
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.printed, "");
  EXPECT_THAT(grammar.handled, IsEmpty());
}

TEST(CliTreeParse, AWordLongerThanTheKeywordDoesNotMatch) {
  RunGrammar grammar;
  EXPECT_EQ(grammar.tree.parse("ZEROS"), 0);
  EXPECT_THAT(grammar.handled, IsEmpty());
}

TEST(CliTreeParse, ALineWithoutAnyKnownWordGivesZeroAndPrintsNothing) {
  for (const char* line : {"", " ", " \t  ", "nothing", "nothing at all RUN"}) {
    RunGrammar grammar;
    const ParseOutcome outcome = parse(grammar.tree, line);
    EXPECT_EQ(outcome.result, 0) << line;
    EXPECT_EQ(outcome.printed, "") << line;
    EXPECT_THAT(grammar.handled, IsEmpty()) << line;
  }
}

TEST(CliTreeParse, BlanksAndTabsSeparateWords) {
  RunGrammar grammar;
  EXPECT_EQ(grammar.tree.parse("\t RUN\tMODE   FAST \t HANDLE AUTO  "), 0);
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "FAST", "HANDLE", "AUTO"));
}

TEST(CliTreeParse, ThereIsNoQuotingAndNoEscaping) {
  RunGrammar grammar;
  grammar.tree.parse("RUN MODE AT \"a b\" HANDLE AUTO");
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "AT=\"a"));
  grammar.handled.clear();
  grammar.tree.parse("RUN MODE AT a\\ b HANDLE AUTO");
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "AT=a\\"));
}

TEST(CliTreeParse, AValueIsTakenAsItIs) {
  RunGrammar grammar;
  EXPECT_EQ(grammar.tree.parse("STOP ID 木\xff马%s"), 0);
  EXPECT_THAT(grammar.handled, ElementsAre("STOP", "ID=木\xff马%s"));
}

TEST(CliTreeParse, AValueMayBeTheNameOfAKeyword) {
  RunGrammar grammar;
  EXPECT_EQ(grammar.tree.parse("RUN MODE AT HANDLE HANDLE ASK"), 0);
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "AT=HANDLE", "HANDLE", "ASK"));
}

TEST(CliTreeParse, AValueKeywordWithoutValueGivesMinusOneAndNoMissingList) {
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "RUN MODE AT");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, "");
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE"));
}

TEST(CliTreeParse, AHandlerGetsItsNodeAndAnEmptyValueForAPlainKeyword) {
  TestGrammar grammar;
  CliNodeInfo* const word = grammar.add(nullptr, "WORD", "11");
  const CliNodeInfo* seenNode = nullptr;
  std::string seenValue = "unset";
  word->handler = [&](const CliNodeInfo& node, const std::string& value) {
    seenNode = &node;
    seenValue = value;
    return std::uint8_t{1};
  };
  grammar.tree.parse("word");
  EXPECT_EQ(seenNode, word);
  EXPECT_EQ(seenValue, "");
}

TEST(CliTreeParse, NoResultOfAHandlerStopsTheWalk) {
  for (const int result : {0, 1, 127, 128, 255}) {
    RunGrammar grammar;
    grammar.handlerResult = static_cast<std::uint8_t>(result);
    EXPECT_EQ(grammar.tree.parse("RUN MODE FAST HANDLE AUTO"), 0) << result;
    EXPECT_EQ(grammar.handled.size(), 5u) << result;
  }
}

TEST(CliTreeParse, ANodeWithoutHandlerIsMatchedAllTheSame) {
  TestGrammar grammar;
  CliNodeInfo* const outer = grammar.add(nullptr, "OUTER", "11");
  outer->handler = nullptr;
  grammar.add(outer, "INNER", "11");
  EXPECT_EQ(grammar.tree.parse("OUTER INNER"), 0);
  EXPECT_THAT(grammar.handled, ElementsAre("INNER"));
}

TEST(CliTreeParse, AMissingRequiredOptionIsReportedWithItsHelpInColumnsOfThirty) {
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "RUN HANDLE AUTO");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, "缺少必要选项:MODE                          how fast                      \n");
}

TEST(CliTreeParse, MissingOptionsStandInTheByteOrderOfTheirNames) {
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "RUN");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, report({{"HANDLE", "what then"}, {"MODE", "how fast"}}));
}

TEST(CliTreeParse, OnATerminalTheReportIsInItsColours) {
  OnATerminal console([] {
    RunGrammar grammar;
    grammar.tree.parse("RUN HANDLE AUTO");
    lineeditor::flushOutput();
  });
  EXPECT_EQ(console.readToTheEnd(),
            "缺少必要选项:MODE                          how fast                      \r\n"
            "\x1b[m\x1b[91m\x1b[m\x1b[m\x1b[92m\x1b[m\x1b[m\x1b[93m\x1b[m");
}

TEST(CliTreeParse, AnOptionKeywordWithoutItsChoiceReportsTheChoices) {
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "RUN HANDLE AUTO MODE");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, report({{"AT", "at a pace"}, {"FAST", "fast"}, {"SLOW", "slow"}}));
}

TEST(CliTreeParse, AnOptionKeywordAtTheEndWithoutItsChoiceReportsNoOptionBehindIt) {
  // The walk ends among the choices: HANDLE, a required option behind MODE, is not reached.
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "RUN MODE");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, report({{"AT", "at a pace"}, {"FAST", "fast"}, {"SLOW", "slow"}}));
}

TEST(CliTreeParse, AnyOfAGroupOfAlternativesSatisfiesTheGroup) {
  for (const char* choice : {"FAST", "SLOW", "AT 3"}) {
    RunGrammar grammar;
    const ParseOutcome outcome = parse(grammar.tree, std::string("RUN HANDLE ASK MODE ") + choice);
    EXPECT_EQ(outcome.result, 0) << choice;
    EXPECT_EQ(outcome.printed, "") << choice;
  }
}

TEST(CliTreeParse, OptionsOfOneCommandMayComeInAnyOrder) {
  for (const char* line : {"RUN MODE FAST HANDLE AUTO EXTRA ON", "RUN MODE FAST EXTRA ON HANDLE AUTO",
                           "RUN HANDLE AUTO MODE FAST EXTRA ON", "RUN HANDLE AUTO EXTRA ON MODE FAST",
                           "RUN EXTRA ON MODE FAST HANDLE AUTO", "RUN EXTRA ON HANDLE AUTO MODE FAST"}) {
    RunGrammar grammar;
    const ParseOutcome outcome = parse(grammar.tree, line);
    EXPECT_EQ(outcome.result, 0) << line;
    EXPECT_EQ(outcome.printed, "") << line;
    EXPECT_THAT(grammar.handled,
                testing::UnorderedElementsAre("RUN", "MODE", "FAST", "HANDLE", "AUTO", "EXTRA", "ON"))
        << line;
  }
}

TEST(CliTreeParse, AnOptionThatIsNotRequiredMayBeLeftOut) {
  RunGrammar grammar;
  EXPECT_EQ(grammar.tree.parse("RUN MODE SLOW HANDLE ASK"), 0);
}

TEST(CliTreeParse, AnUnknownWordEndsTheWalkWithoutAWord) {
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "RUN MODE FAST HANDLE AUTO BOGUS EXTRA ON");
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.printed, "");
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "FAST", "HANDLE", "AUTO"));
}

TEST(CliTreeParse, ANodeMatchesOnceALine) {
  RunGrammar grammar;
  EXPECT_EQ(grammar.tree.parse("RUN MODE FAST HANDLE AUTO MODE SLOW"), 0);
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "FAST", "HANDLE", "AUTO"));
}

TEST(CliTreeParse, ASecondChoiceOfAGroupIsNotReached) {
  RunGrammar grammar;
  grammar.tree.parse("RUN MODE FAST SLOW HANDLE AUTO");
  EXPECT_THAT(grammar.handled, ElementsAre("RUN", "MODE", "FAST"));
}

TEST(CliTreeParse, BehindACommandOfALevelOfItsOwnTheRestOfTheLineIsNotReported) {
  // ID stands right below its command: the climb goes past it to the other commands, which are alternatives.
  RunGrammar grammar;
  const ParseOutcome outcome = parse(grammar.tree, "STOP ID 7 RUN MODE FAST");
  EXPECT_EQ(outcome.result, 0);
  EXPECT_EQ(outcome.printed, "");
  EXPECT_THAT(grammar.handled, ElementsAre("STOP", "ID=7"));
}

TEST(CliTreeParse, WhatIsSatisfiedIsKnownByNameForTheWholeLine) {
  // B's own RUN is not reported, because the command RUN's group was satisfied above it.
  TestGrammar grammar;
  grammar.add(nullptr, "RUN", "11", 0, "run it");
  CliNodeInfo* const other = grammar.add(nullptr, "OTHER", "11", 0, "other");
  grammar.add(other, "RUN", "11", 0, "the other's");
  grammar.add(other, "WALK", "11", 0, "walk");
  const ParseOutcome outcome = parse(grammar.tree, "OTHER");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, report({{"WALK", "walk"}}));
}

TEST(CliTreeParse, AnOptionThatIsNotRequiredSatisfiesNoAlternativesBesideIt) {
  TestGrammar grammar;
  CliNodeInfo* const run = grammar.add(nullptr, "RUN", "11");
  grammar.add(run, "FAST", "11", 0, "fast");
  grammar.add(run, "SLOW", "11", 0, "slow");
  grammar.add(run, "EXTRA", "00", 0, "more");
  const ParseOutcome outcome = parse(grammar.tree, "RUN EXTRA");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, report({{"FAST", "fast"}, {"SLOW", "slow"}}));
}

TEST(CliTreeParse, AMissingValueHidesTheMissingOptions) {
  TestGrammar grammar;
  CliNodeInfo* const run = grammar.add(nullptr, "RUN", "11");
  grammar.add(run, "MODE", "01", 0, "how fast");
  grammar.add(run, "PATH", "01", 2, "where");
  const ParseOutcome outcome = parse(grammar.tree, "RUN PATH");
  EXPECT_EQ(outcome.result, -1);
  EXPECT_EQ(outcome.printed, "");
}

TEST(CliTreeParse, WhatOneLineSatisfiedIsForgottenByTheNext) {
  RunGrammar grammar;
  EXPECT_EQ(parse(grammar.tree, "RUN MODE FAST HANDLE AUTO").result, 0);
  EXPECT_EQ(parse(grammar.tree, "RUN HANDLE AUTO").result, -1);
}

TEST(CliTreeParse, ASecondIdenticalLineGivesTheSameResult) {
  for (const char* line : {"RUN MODE FAST HANDLE AUTO", "RUN HANDLE AUTO", "RUN MODE AT", "ZERO", "BOGUS"}) {
    RunGrammar grammar;
    const ParseOutcome first = parse(grammar.tree, line);
    const std::vector<std::string> handledFirst = std::move(grammar.handled);
    grammar.handled.clear();
    const ParseOutcome second = parse(grammar.tree, line);
    EXPECT_EQ(second.result, first.result) << line;
    EXPECT_EQ(second.printed, first.printed) << line;
    EXPECT_EQ(grammar.handled, handledFirst) << line;
  }
}

TEST(CliTreeParse, TheMarksAreClearedAlsoWhenAHandlerThrows) {
  TestGrammar grammar;
  CliNodeInfo* const word = grammar.add(nullptr, "WORD", "11");
  word->handler = [](const CliNodeInfo&, const std::string&) -> std::uint8_t {
    throw std::runtime_error("as tests do");
  };
  EXPECT_THROW(grammar.tree.parse("WORD"), std::runtime_error);
  EXPECT_EQ(word->matched, 0);
}

TEST(CliTreeParse, ALineFullOfWordsIsParsed) {
  RunGrammar grammar;
  std::string line = "RUN MODE FAST HANDLE AUTO";
  while (line.size() < 4094) {
    line += " x";
  }
  EXPECT_EQ(grammar.tree.parse(line), 0);
  EXPECT_EQ(grammar.handled.size(), 5u);
}

TEST(CliTreeParse, AnEmptyTreeTakesEveryLine) {
  CliTree tree;
  EXPECT_EQ(tree.parse("anything at all"), 0);
  EXPECT_EQ(tree.parse(""), 0);
}
