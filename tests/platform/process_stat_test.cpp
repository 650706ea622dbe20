#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/ProcessStat.h"

namespace {

/// A stat text with these fields: name in parentheses, parent, start.
std::string statOf(const std::string& name, const std::string& parent, const std::string& start) {
  return "7 " + name + " S " + parent + " 7 7 0 -1 4194304 90 0 0 0 1 2 0 0 20 0 1 0 " + start +
         " 8192 100\n";
}

TEST(ProcessStat, HoldsNameParentAndStart) {
  for (const std::string name : {"cat", "", "two words", "a) S 1 2 3", "((x", "line\nend"}) {
    const auto stat = platform::parseProcessStat(statOf("(" + name + ")", "12", "18446744073709551615"));
    ASSERT_TRUE(stat) << name;
    EXPECT_EQ(stat->name, name);
    EXPECT_EQ(stat->parent, 12);
    EXPECT_EQ(stat->startTicks, 18446744073709551615U);
  }
}

TEST(ProcessStat, MayEndBehindTheStart) {
  const std::string text = statOf("(cat)", "12", "345");
  EXPECT_TRUE(platform::parseProcessStat(text.substr(0, text.find(" 8192"))));
}

struct DefectRow {
  const char* name;
  std::string text;
};

class DefectiveStat : public testing::TestWithParam<DefectRow> {};

TEST_P(DefectiveStat, IsNone) {
  const auto stat = platform::parseProcessStat(GetParam().text);
  ASSERT_FALSE(stat);
  EXPECT_EQ(stat.error(), platform::NoProcessStat::kGone);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, DefectiveStat,
    testing::Values(DefectRow{"Empty", ""}, DefectRow{"WithoutAName", statOf("cat", "12", "345")},
                    DefectRow{"WithoutAnOpeningParenthesis", statOf("cat)", "12", "345")},
                    DefectRow{"WithoutAClosingParenthesis", statOf("(cat", "12", "345")},
                    DefectRow{"OfAnOpeningParenthesisBehindTheFields",
                              statOf("", "12", "345").substr(2) + "("},
                    DefectRow{"WithParenthesesInReverse", statOf(")", "12", "345") + "("},
                    DefectRow{"OfTheNameAlone", "7 (cat)"},
                    DefectRow{"ThatEndsBeforeTheStart", "7 (cat) S 12 7 7 0 -1 4194304 90"},
                    DefectRow{"WithAnEmptyStart", statOf("(cat)", "12", "")},
                    DefectRow{"WithAParentThatIsNoNumber", statOf("(cat)", "x", "345")},
                    DefectRow{"WithLettersBehindTheParent", statOf("(cat)", "12x", "345")},
                    DefectRow{"WithAParentOutOfRange", statOf("(cat)", "99999999999", "345")},
                    DefectRow{"WithAStartThatIsNoNumber", statOf("(cat)", "12", "x")},
                    DefectRow{"WithLettersBehindTheStart", statOf("(cat)", "12", "345x")},
                    DefectRow{"WithANegativeStart", statOf("(cat)", "12", "-1")},
                    DefectRow{"WithAStartOutOfRange", statOf("(cat)", "12", "18446744073709551616")}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ProcessStat, OfThisProcessNamesItsParent) {
  const auto stat = platform::processStat(getpid());
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->parent, getppid());
}

}  // namespace
