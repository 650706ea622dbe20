#include "platform/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>

namespace {

TEST(Number, IsDigitsWithAtMostOneSign) {
  for (const char* text : {"0", "7", "-3", "+12", "0009"}) {
    EXPECT_TRUE(CStr::isNum(text)) << text;
  }
  for (const char* text : {"", "-", "+", "1a", " 1", "1.5", "--1", "0x1"}) {
    EXPECT_FALSE(CStr::isNum(text)) << text;
  }
}

TEST(DateTime, TakesTheLow32BitsAsUnsignedSeconds) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(CDateTime::format(0), "1970-01-01 00:00:00");
  EXPECT_EQ(CDateTime::format(1700000000), "2023-11-14 22:13:20");
  EXPECT_EQ(CDateTime::format((std::int64_t{1} << 32) + 1700000000), "2023-11-14 22:13:20");
  EXPECT_EQ(CDateTime::format(4294967295), "2106-02-07 06:28:15");
}

TEST(DateTime, IsLocalTime) {
  setenv("TZ", "CST-8", 1);
  tzset();
  EXPECT_EQ(CDateTime::format(0), "1970-01-01 08:00:00");
}

TEST(Text, IsSplitIntoPartsOfWhichNoneIsEmpty) {
  EXPECT_THAT(CStr::split("/a//bc/", '/'), testing::ElementsAre("a", "bc"));
  EXPECT_THAT(CStr::split("a", '/'), testing::ElementsAre("a"));
  EXPECT_THAT(CStr::split("//", '/'), testing::IsEmpty());
}

TEST(Uuid, IsAFreshRandomVersionFourEachTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string text = CUuid::generate();
    EXPECT_THAT(text,
                testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_TRUE(seen.insert(text).second);
  }
}

/// UTF-8 of a character of two or three bytes.
std::string utf8(unsigned code) {
  if (code < 0x800) {
    return {static_cast<char>(0xC0 | code >> 6), static_cast<char>(0x80 | (code & 0x3F))};
  }
  return {static_cast<char>(0xE0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3F)),
          static_cast<char>(0x80 | (code & 0x3F))};
}

TEST(VisibleText, HidesWhatBreaksOrTurnsALineAndNotItsNeighbours) {
  for (unsigned code = 0x80; code < 0x3000; ++code) {
    const bool hidden = code < 0xA0 || code == 0x061C || code == 0x200E || code == 0x200F ||
                        (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    EXPECT_EQ(platform::visibleText(utf8(code)) != utf8(code), hidden) << std::hex << code;
  }
}

struct VisibleCase {
  const char* name;
  std::string text;
  std::string shown;
};
void PrintTo(const VisibleCase& c, std::ostream* out) {
  *out << c.name;
}
class Visible : public testing::TestWithParam<VisibleCase> {};
TEST_P(Visible, ShowsWhatItShould) {
  EXPECT_EQ(platform::visibleText(GetParam().text), GetParam().shown);
}
INSTANTIATE_TEST_SUITE_P(
    Text, Visible,
    testing::Values(VisibleCase{"Printable", "a b~", "a b~"}, VisibleCase{"Chinese", "病毒", "病毒"},
                    VisibleCase{"Escape", "\x1b[2J", "\\x1b[2J"}, VisibleCase{"LineFeed", "a\nb", "a\\nb"},
                    VisibleCase{"TabAndReturn", "\t\r", "\\t\\r"},
                    VisibleCase{"Nul", std::string("a\0b", 3), "a\\x00b"},
                    VisibleCase{"Delete", "\x7f", "\\x7f"}, VisibleCase{"C1", "\xc2\x9b", "\\xc2\\x9b"},
                    VisibleCase{"BrokenByte", "a\xff", "a\\xff"},
                    VisibleCase{"CutCharacter", "\xe7\x97", "\\xe7\\x97"},
                    VisibleCase{"Overlong", "\xc0\xaf", "\\xc0\\xaf"},
                    VisibleCase{"Surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
                    VisibleCase{"TooLarge", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
                    VisibleCase{"ArabicLetterMark",
                                "a\xd8\x9c"
                                "b",
                                "a\\xd8\\x9cb"},
                    VisibleCase{"BesideTheArabicLetterMark", "\xd8\x9b\xd8\x9d", "\xd8\x9b\xd8\x9d"},
                    VisibleCase{"RightToLeftOverride", "\xe2\x80\xae", "\\xe2\\x80\\xae"},
                    VisibleCase{"OverlongThreeBytes", "\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
                    VisibleCase{"OverlongFourBytes", "\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},
                    VisibleCase{"LeadOfNoCharacter", "\xf9\x81\x80\x80", "\\xf9\\x81\\x80\\x80"},
                    VisibleCase{"LetterForAFollowingByte", "\xc3\x41", "\\xc3\x41"},
                    VisibleCase{"LeadForAFollowingByte", "\xc3\xc3\xa4", "\\xc3\xc3\xa4"},
                    VisibleCase{"FourBytes", "\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
