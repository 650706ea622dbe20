#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "shell/GrammarTable.h"
#include "support/BuiltGrammar.h"

using shell::GrammarRow;
using shell::kChoice;
using shell::kNoHelp;
using shell::kNoHint;
using shell::kNoValue;
using testing::HasSubstr;
using testsupport::grammarText;

TEST(GrammarTable, AttachesEachRowBelowItsPathInTheOrderOfTheRows) {
  const GrammarRow rows[] = {
      {"A", "a", kNoHint, kChoice, kNoValue, nullptr},
      {"A Y", "y", kNoHint, shell::kRequired, kNoValue, nullptr},
      {"A X", "x", "\"[x]\"", shell::kOption, shell::kStringValue, nullptr},
      {"B", "b", kNoHint, shell::kAlternative, shell::kIntValue, nullptr},
  };
  CliTree tree;
  shell::GrammarTable table;
  table.build(tree, rows);
  EXPECT_EQ(grammarText(tree),
            "A | alternative required | no value | a\n"
            "A Y | required | no value | y\n"
            "A X | optional | string | x | \"[x]\"\n"
            "B | alternative | int | b\n");
}

TEST(GrammarTable, ADetachedRowIsBuiltButCannotBeTyped) {
  bool called = false;
  const GrammarRow rows[] = {
      {"A", kNoHelp, kNoHint, kChoice, kNoValue, nullptr},
      {"A HIDDEN", "hidden", kNoHint, kChoice | shell::kDetached, kNoValue,
       [&called](const CliNodeInfo&, const std::string&) {
         called = true;
         return std::uint8_t{1};
       }},
  };
  CliTree tree;
  shell::GrammarTable table;
  table.build(tree, rows);
  EXPECT_EQ(grammarText(tree), "A | alternative required | no value | (no help)\n");
  tree.parse("A HIDDEN");
  EXPECT_FALSE(called);
  ASSERT_NE(table.find("A HIDDEN"), nullptr);
  EXPECT_EQ(table.find("A HIDDEN")->help, "hidden");
}

TEST(GrammarTable, ARowBeforeItsParentIsNamed) {
  const GrammarRow rows[] = {{"A B", kNoHelp, kNoHint, kChoice, kNoValue, nullptr}};
  CliTree tree;
  shell::GrammarTable table;
  try {
    table.build(tree, rows);
    FAIL() << "accepted";
  } catch (const std::logic_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("\"A B\""));
  }
}

TEST(GrammarTable, ASecondRowOfOnePathIsNamed) {
  const GrammarRow rows[] = {{"A", kNoHelp, kNoHint, kChoice, kNoValue, nullptr},
                             {"A", kNoHelp, kNoHint, kChoice, kNoValue, nullptr}};
  CliTree tree;
  shell::GrammarTable table;
  EXPECT_THROW(table.build(tree, rows), std::logic_error);
}

TEST(GrammarTable, ARowThatIsNotThereIsNotFound) {
  EXPECT_EQ(shell::GrammarTable().find("A"), nullptr);
}
