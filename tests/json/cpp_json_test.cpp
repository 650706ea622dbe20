#include <gtest/gtest.h>

#include <limits>

#include "json/CppJson.h"

namespace {

constexpr std::int32_t kIntMin = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kIntMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();

TEST(LoadJsonString, RefusesAnEmptyText) {
  Json::Value value = 5;
  EXPECT_FALSE(CppJson::LoadJsonString("", value));
  EXPECT_EQ(value, 5);
}

TEST(LoadJsonString, RefusesWhatIsNoJson) {
  for (const char* text : {"{", "[1,", "abc", "{\"a\" 1}", "\x01", "\xff", "\"half"}) {
    Json::Value value;
    EXPECT_FALSE(CppJson::LoadJsonString(text, value)) << text;
  }
}

TEST(LoadJsonString, TakesCommentsAlong) {
  Json::Value value;
  ASSERT_TRUE(CppJson::LoadJsonString("// first\n{\"a\": 1 /* one */}", value));
  EXPECT_EQ(value["a"], 1);
  EXPECT_TRUE(value.hasComment(Json::commentBefore));
}

TEST(LoadJsonString, RefusesDeepNestingInsteadOfCrashing) {
  for (const std::size_t depth : {2000u, 1000000u}) {
    Json::Value value;
    EXPECT_FALSE(CppJson::LoadJsonString(std::string(depth, '['), value));
    EXPECT_FALSE(CppJson::LoadJsonString(std::string(depth, '[') + std::string(depth, ']'), value));
  }
}

TEST(WriteJsonToString, StyleZeroIsIndentedAnyOtherCompact) {
  Json::Value value;
  value["a"]["b"] = 1;
  std::string text;
  ASSERT_TRUE(CppJson::WriteJsonToString(value, text, 0));
  EXPECT_EQ(text, "{\n   \"a\" : {\n      \"b\" : 1\n   }\n}\n");
  for (const int style : {1, -1, 99}) {
    ASSERT_TRUE(CppJson::WriteJsonToString(value, text, style));
    EXPECT_EQ(text, "{\"a\":{\"b\":1}}\n");
  }
}

TEST(WriteJsonToString, WhatWasWrittenIsReadBackWithControlAndChineseCharacters) {
  Json::Value value;
  value["名"] = std::string("a\0b\x1f\"\\/文件", 14);
  for (const int style : {0, 1}) {
    std::string text;
    ASSERT_TRUE(CppJson::WriteJsonToString(value, text, style));
    Json::Value read;
    ASSERT_TRUE(CppJson::LoadJsonString(text, read));
    EXPECT_EQ(read, value);
  }
}

TEST(SetInt64, SetsA64BitNumber) {
  Json::Value object;
  EXPECT_EQ(CppJson::SetInt64(object, "n", kInt64Max), 1);
  EXPECT_EQ(CppJson::SetInt64(object, "m", kInt64Min), 1);
  EXPECT_EQ(object["n"].asInt64(), kInt64Max);
  EXPECT_EQ(object["m"].asInt64(), kInt64Min);
}

TEST(SetInt64, OfAnEmptyKeyReturnsZeroAndChangesNothing) {
  Json::Value object(Json::objectValue);
  EXPECT_EQ(CppJson::SetInt64(object, "", 1), 0);
  EXPECT_TRUE(object.empty());
}

TEST(SetInt64, OfWhatIsNoObjectReturnsZeroAndChangesNothing) {
  Json::Value array(Json::arrayValue);
  EXPECT_EQ(CppJson::SetInt64(array, "n", 1), 0);
  EXPECT_EQ(array, Json::Value(Json::arrayValue));
}

struct NumberCase {
  const char* name;
  Json::Value value;
  std::int64_t asInt;  ///< with the fallback 77
  std::int64_t asInt64;
};
void PrintTo(const NumberCase& row, std::ostream* out) {
  *out << row.name;
}

class TolerantNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(TolerantNumber, IsReadByTheOneRule) {
  EXPECT_EQ(CppJson::toInt(GetParam().value, 77), GetParam().asInt);
  EXPECT_EQ(CppJson::toInt64(GetParam().value, 77), GetParam().asInt64);
  Json::Value object;
  object["k"] = GetParam().value;
  EXPECT_EQ(CppJson::readInt(object, "k", 77), GetParam().asInt);
  EXPECT_EQ(CppJson::readInt64(object, "k", 77), GetParam().asInt64);
}

INSTANTIATE_TEST_SUITE_P(
    Values, TolerantNumber,
    testing::Values(NumberCase{"Zero", 0, 0, 0}, NumberCase{"Negative", -5, -5, -5},
                    NumberCase{"LargestInt", kIntMax, kIntMax, kIntMax},
                    NumberCase{"SmallestInt", kIntMin, kIntMin, kIntMin},
                    NumberCase{"OnePastTheLargestInt", Json::Int64{2147483648}, 77, 2147483648},
                    NumberCase{"OneBeforeTheSmallestInt", Json::Int64{-2147483649}, 77, -2147483649},
                    NumberCase{"LargestInt64", Json::Int64{kInt64Max}, 77, kInt64Max},
                    NumberCase{"SmallestInt64", Json::Int64{kInt64Min}, 77, kInt64Min},
                    NumberCase{"UnsignedInRange", Json::UInt{9}, 9, 9},
                    NumberCase{"LargestUInt64", Json::UInt64{18446744073709551615u}, 77, 77},
                    NumberCase{"RealIsCut", 12.9, 12, 12}, NumberCase{"NegativeRealIsCut", -12.9, -12, -12},
                    NumberCase{"RealJustInsideInt", 2147483647.9, kIntMax, kIntMax},
                    NumberCase{"RealJustOutsideInt", 2147483648.0, 77, 2147483648},
                    NumberCase{"RealOfTwoToThe63", 9223372036854775808.0, 77, 77},
                    NumberCase{"RealOfMinusTwoToThe63", -9223372036854775808.0, 77, kInt64Min},
                    NumberCase{"HugeReal", 1e300, 77, 77},
                    NumberCase{"Infinity", std::numeric_limits<double>::infinity(), 77, 77},
                    NumberCase{"NotANumber", std::numeric_limits<double>::quiet_NaN(), 77, 77},
                    NumberCase{"Text", "12", 12, 12}, NumberCase{"SignedText", "+12", 12, 12},
                    NumberCase{"TextWithTrailingLetters", "12abc", 12, 12},
                    NumberCase{"TextOfLetters", "abc", 0, 0}, NumberCase{"EmptyText", "", 0, 0},
                    NumberCase{"TextBeyondInt", "3000000000", kIntMax, 3000000000},
                    NumberCase{"TextBelowInt", "-3000000000", kIntMin, -3000000000},
                    NumberCase{"TextBeyondInt64", "99999999999999999999", kIntMax, kInt64Max},
                    NumberCase{"TextBelowInt64", "-99999999999999999999", kIntMin, kInt64Min},
                    NumberCase{"Boolean", true, 77, 77}, NumberCase{"Null", Json::Value(), 77, 77},
                    NumberCase{"Array", Json::Value(Json::arrayValue), 77, 77},
                    NumberCase{"Object", Json::Value(Json::objectValue), 77, 77}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

TEST(TolerantReads, OfAnAbsentMemberGiveTheFallback) {
  const Json::Value object(Json::objectValue);
  EXPECT_TRUE(CppJson::readBool(object, "k", true));
  EXPECT_EQ(CppJson::readInt(object, "k", 3), 3);
  EXPECT_EQ(CppJson::readInt64(object, "k", 4), 4);
  EXPECT_EQ(CppJson::readString(object, "k", "f"), "f");
}

TEST(TolerantReads, OfWhatIsNoObjectGiveTheFallback) {
  for (const Json::Value& value :
       {Json::Value(), Json::Value(1), Json::Value("k"), Json::Value(Json::arrayValue)}) {
    EXPECT_TRUE(CppJson::readBool(value, "k", true));
    EXPECT_EQ(CppJson::readInt(value, "k", 3), 3);
    EXPECT_EQ(CppJson::readInt64(value, "k", 4), 4);
    EXPECT_EQ(CppJson::readString(value, "k", "f"), "f");
    EXPECT_EQ(CppJson::findMember(value, "k"), nullptr);
  }
}

TEST(TolerantReads, OfABooleanTakeABooleanOnly) {
  EXPECT_TRUE(CppJson::toBool(true, false));
  EXPECT_FALSE(CppJson::toBool(false, true));
  for (const Json::Value& value : {Json::Value(1), Json::Value("true"), Json::Value(), Json::Value(1.0)}) {
    EXPECT_FALSE(CppJson::toBool(value, false));
    EXPECT_TRUE(CppJson::toBool(value, true));
  }
}

TEST(TolerantReads, OfAStringTakeAStringOnly) {
  Json::Value object;
  object["s"] = "text";
  object["n"] = 5;
  EXPECT_EQ(CppJson::readString(object, "s", "f"), "text");
  EXPECT_EQ(CppJson::readString(object, "n", "f"), "f");
}

}  // namespace
