#include "platform/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>
#include <string_view>

namespace {

TEST(Number, IsDigitsWithAtMostOneSign) {
  for (const char* text : {"0", "7", "-3", "+12", "0009"}) {
    EXPECT_TRUE(CStr::isNum(text)) << text;
  }
  for (const char* text : {"", "-", "+", "1a", " 1", "1.5", "--1", "0x1"}) {
    EXPECT_FALSE(CStr::isNum(text)) << text;
  }
}

TEST(Utf8Character, HasTheLengthAndValueThatItsBytesSay) {
  struct Row {
    std::string_view text;
    std::size_t length;
    char32_t value;
  };
  using std::string_view_literals::operator""sv;
  for (const Row& row :
       {Row{"a", 1, U'a'}, Row{"\0"sv, 1, 0}, Row{"\x7F", 1, 0x7F}, Row{"\xC2\x80", 2, 0x80},
        Row{"\xDF\xBF", 2, 0x7FF}, Row{"\xE0\xA0\x80", 3, 0x800}, Row{"\xEF\xBF\xBF", 3, 0xFFFF},
        Row{"\xF0\x90\x80\x80", 4, 0x10000}, Row{"\xF4\x8F\xBF\xBF", 4, 0x10FFFF},
        Row{"\xED\x9F\xBF", 3, 0xD7FF}, Row{"\xEE\x80\x80", 3, 0xE000}}) {
    char32_t value = 1;
    EXPECT_EQ(platform::utf8CharacterLength(row.text, &value), row.length)
        << testing::PrintToString(row.value);
    EXPECT_EQ(value, row.value);
  }
}

TEST(Utf8Character, IsNoneInBytesOfAnotherForm) {
  using std::string_view_literals::operator""sv;
  for (const std::string_view text :
       {""sv, "\x80"sv, "\xBF"sv, "\xC1\xBF"sv, "\xF5\x80\x80\x80"sv, "\xC3("sv, "\xE2\x82("sv,
        "\xE0\x9F\xBF"sv, "\xF0\x8F\xBF\xBF"sv, "\xED\xA0\x80"sv, "\xED\xBF\xBF"sv, "\xF4\x90\x80\x80"sv,
        "\xC3\xA9"sv.substr(0, 1), "\xE2\x82\xAC"sv.substr(0, 2), "\xF0\x9F\x98\x80"sv.substr(0, 3)}) {
    char32_t value = 1;
    EXPECT_EQ(platform::utf8CharacterLength(text, &value), 0U) << testing::PrintToString(text);
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
