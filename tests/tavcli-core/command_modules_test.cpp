#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "command/config/TavCliCmdConfig.h"
#include "command/isolation/TavCliCmdIsolation.h"
#include "command/scan/TavCliCmdScan.h"
#include "command/trustregion/TavCliCmdtrustregion.h"
#include "lineeditor/Completion.h"
#include "support/BuiltGrammar.h"
#include "support/ProcessShell.h"

using testing::ElementsAre;
using testsupport::outputOf;

namespace {

const char kGrammar[] = "tavcli-core/data/grammar.txt";

class CommandGrammarRow : public testsupport::GrammarRow<TavCliCmdConfig, TavCliCmdIsolation, TavCliCmdScan,
                                                         TavCliCmdtrustregion> {};

template <class Module>
void expectModule(const std::string& name, const std::string& message) {
  Module module;
  EXPECT_EQ(module.name(), name);
  EXPECT_EQ(outputOf([&module] { EXPECT_EQ(module.load(nullptr), 1); }), message + "\n");
  EXPECT_EQ(module.owner(), nullptr);
}

std::vector<std::string> offered(const std::string& text) {
  loadedShell();
  lineeditor::CompletionState state;
  TavCliCompletion::instance().completionHook(text.c_str(), &state);
  std::vector<std::string> names;
  for (const lineeditor::Candidate& candidate : state.candidates) {
    names.push_back(candidate.name);
  }
  return names;
}

std::vector<std::string> topLevelKeywords() {
  loadedShell();
  CliTree& tree = TavCliCompletion::instance().tree();
  std::vector<std::string> names;
  for (const CliTreeNode* node = tree.find(tree.root())->firstChild.get(); node != nullptr;
       node = node->nextSibling.get()) {
    names.push_back(node->info->name);
  }
  return names;
}

}  // namespace

TEST_P(CommandGrammarRow, IsInTheTree) {
  expectInTree();
}

INSTANTIATE_TEST_SUITE_P(Rows, CommandGrammarRow, testing::ValuesIn(testsupport::goldenLines(kGrammar)),
                         testsupport::grammarRowName);

TEST(CommandGrammars, StandInTheirOrder) {
  testsupport::BuiltGrammar<TavCliCmdConfig, TavCliCmdIsolation, TavCliCmdScan, TavCliCmdtrustregion> built;
  testsupport::expectGolden(kGrammar, testsupport::grammarText(built.tree));
}

TEST(CommandModules, ScanIsNamedAndSaysThatItIsLoaded) {
  expectModule<TavCliCmdScan>("scan", "[Load Command] Scan");
}
TEST(CommandModules, IsolationIsNamedAndSaysThatItIsLoaded) {
  expectModule<TavCliCmdIsolation>("isolation", "[Load Command] Isolate");
}
TEST(CommandModules, TrustregionIsNamedAndSaysThatItIsLoaded) {
  expectModule<TavCliCmdtrustregion>("trustregion", "[Load Command] Trust");
}
TEST(CommandModules, ConfigIsNamedAndSaysThatItIsLoaded) {
  expectModule<TavCliCmdConfig>("config", "[Load Command] Config");
}

TEST(CommandModules, AllAreThereBeforeMainAndAreLoadedInNameOrder) {
  EXPECT_EQ(loadedShell(),
            "[Load Command] Cache\n[Load Command] Config\n[Load Command] Isolate\n[Load Command] Scan\n"
            "[Load Command] Trust\n");
}

TEST(CommandModules, TopLevelKeywordsStandInTheOrderOfTheModules) {
  EXPECT_THAT(topLevelKeywords(),
              ElementsAre("CACHE", "QUIT", "HELP", "HISTORY", "CONFIG", "ISOLATION", "SCAN", "TRUSTREGION"));
}

TEST(CommandModules, CompletionOfAnEmptyLineOffersEveryCommand) {
  EXPECT_THAT(offered(""),
              ElementsAre("CACHE", "QUIT", "HELP", "HISTORY", "CONFIG", "ISOLATION", "SCAN", "TRUSTREGION"));
}

TEST(CommandModules, CompletionOfScWithoutABlankOffersScan) {
  EXPECT_THAT(offered("SC"), ElementsAre("SCAN"));
}

TEST(CommandModules, CompletionOfScanWithoutABlankOffersNothing) {
  EXPECT_THAT(offered("SCAN"), testing::IsEmpty());
}

TEST(CommandModules, CompletionOfScanWithABlankOffersEveryKeywordUnderScan) {
  EXPECT_THAT(offered("SCAN "), ElementsAre("START", "PARSE", "RECOVERD", "STOP", "SHOW"));
}

TEST(CommandModules, CompletionBehindPathShowsItsHint) {
  loadedShell();
  lineeditor::CompletionState state;
  TavCliCompletion::instance().completionHook("SCAN START MODE CUSTOM PATH ", &state);
  EXPECT_TRUE(state.candidates.empty());
  EXPECT_EQ(state.hint, "\"scan path [string]\"");
  EXPECT_EQ(state.hintColour, 1800u);
  lineeditor::CompletionState none;
  TavCliCompletion::instance().completionHook("SCAN START MODE CUSTOM PATH", &none);
  EXPECT_EQ(none.hint, "");
}
