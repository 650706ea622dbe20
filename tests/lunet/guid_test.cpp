#include "lunet/Guid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lunet/Lunet.h"

using lunet::formatGuid;
using lunet::Guid;
using lunet::parseGuid;

TEST(GuidTest, TheFirstThreeFieldsAreInHostOrderTheRestAsWritten) {
  const Guid guid = parseGuid("01234567-89ab-cdef-0123-456789abcdef");
  std::uint32_t first = 0;
  std::uint16_t second = 0;
  std::uint16_t third = 0;
  std::memcpy(&first, guid.data(), 4);
  std::memcpy(&second, guid.data() + 4, 2);
  std::memcpy(&third, guid.data() + 6, 2);
  EXPECT_EQ(first, 0x01234567u);
  EXPECT_EQ(second, 0x89abu);
  EXPECT_EQ(third, 0xcdefu);
  const std::uint8_t rest[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
  EXPECT_EQ(std::memcmp(guid.data() + 8, rest, 8), 0);
}

TEST(GuidTest, BracesMakeNoDifference) {
  EXPECT_EQ(parseGuid("{FBE54D8E-D8E6-41F8-BE05-A94CE5469587}"), parseGuid(lunet::kAgentGuid));
  EXPECT_NE(parseGuid(lunet::kAgentGuid), Guid{});
}

TEST(GuidTest, LetterCaseMakesNoDifference) {
  EXPECT_EQ(parseGuid("fbe54d8e-d8e6-41f8-be05-a94ce5469587"), parseGuid(lunet::kAgentGuid));
}

TEST(GuidTest, AMissingTextYieldsSixteenZeroBytes) {
  EXPECT_EQ(parseGuid(nullptr), Guid{});
}

class UnreadableGuidTest : public testing::TestWithParam<const char*> {};

TEST_P(UnreadableGuidTest, YieldsSixteenZeroBytes) {
  EXPECT_EQ(parseGuid(GetParam()), Guid{});
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UnreadableGuidTest,
    testing::Values("", "{", "{}", "FBE54D8E", "FBE54D8E-D8E6-41F8-BE05-A94CE546958",
                    "FBE54D8E-D8E6-41F8-BE05-A94CE54695877", "{FBE54D8E-D8E6-41F8-BE05-A94CE5469587",
                    "FBE54D8E-D8E6-41F8-BE05-A94CE5469587}", "FBE54D8E+D8E6-41F8-BE05-A94CE5469587",
                    "GBE54D8E-D8E6-41F8-BE05-A94CE5469587", " BE54D8E-D8E6-41F8-BE05-A94CE5469587",
                    "FBE54D8E0D8E6-41F8-BE05-A94CE5469587", "FBE54D8E0D8E6041F80BE050A94CE5469587",
                    "FBE54D8ED8E641F8BE05A94CE5469587", "FBE54D8-ED8E6-41F8-BE05-A94CE5469587",
                    "(FBE54D8E-D8E6-41F8-BE05-A94CE5469587}", "{FBE54D8E-D8E6-41F8-BE05-A94CE5469587)",
                    "{FBE54D8E-D8E6-41F8-BE05-A94CE54695877}", "{FBE54D8E-D8E6-41F8-BE05-A94CE5469587 }"));

TEST(GuidTest, WhatIsWrittenReadsAsTheSame) {
  Guid guid{};
  for (std::size_t i = 0; i < guid.size(); ++i) {
    guid[i] = static_cast<std::uint8_t>(i * 37 + 11);
  }
  EXPECT_EQ(parseGuid(formatGuid(guid).c_str()), guid);
  EXPECT_EQ(formatGuid(parseGuid(lunet::kConsoleGuid)), lunet::kConsoleGuid);
}
