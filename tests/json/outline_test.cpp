// The count of a JSON text before it is parsed.

#include "json/Outline.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "json/CppJson.h"

namespace {

constexpr std::size_t kAny = std::numeric_limits<std::size_t>::max();

json::Outline outlineOf(std::string_view text) {
  return json::outlineOf(text, kAny, kAny);
}

struct OutlineCase {
  const char* text;
  std::size_t depth;
  std::size_t values;
  const char* method;
};

class Outlines : public testing::TestWithParam<OutlineCase> {};

TEST_P(Outlines, HaveTheDepthTheValuesAndTheMethodOfTheText) {
  const json::Outline outline = outlineOf(GetParam().text);
  EXPECT_EQ(outline.depth, GetParam().depth) << GetParam().text;
  EXPECT_EQ(outline.values, GetParam().values) << GetParam().text;
  EXPECT_EQ(outline.method, GetParam().method) << GetParam().text;
  EXPECT_FALSE(outline.comment);
}

INSTANTIATE_TEST_SUITE_P(Texts, Outlines,
                         testing::Values(OutlineCase{"", 0, 1, ""}, OutlineCase{"5", 0, 1, ""},
                                         OutlineCase{"[]", 1, 2, ""}, OutlineCase{"[[0,0,0],{}]", 2, 7, ""},
                                         OutlineCase{R"("[[,,")", 0, 1, ""},
                                         OutlineCase{R"(["a\"[,\\",0])", 1, 3, ""},
                                         OutlineCase{R"(["without an end[[[)", 1, 2, ""},
                                         OutlineCase{"]]]]", 0, 1, ""},
                                         OutlineCase{R"({"method":"a","params":{"b":[1]}})", 3, 5, "a"},
                                         OutlineCase{R"({"method" : "a"})", 1, 2, "a"},
                                         OutlineCase{R"({"method":"a","method":"b"})", 1, 3, "b"},
                                         OutlineCase{R"({"x":"a","method":5})", 1, 3, ""},
                                         OutlineCase{R"({"x":"method","y":"a"})", 1, 3, ""},
                                         OutlineCase{R"({"params":{"method":"a"}})", 2, 3, ""},
                                         OutlineCase{R"({"\u006dethod":"a"})", 1, 2, ""}));

TEST(Outline, OfAListSaysSo) {
  EXPECT_TRUE(outlineOf(" [{}]").list);
  EXPECT_FALSE(outlineOf(R"({"a":[]})").list);
  EXPECT_FALSE(outlineOf("0").list);
}

TEST(Outline, OfATextWithACommentSaysSoBecauseACommentWouldHideQuotes) {
  const std::string text = "/*\"*/[[0,0,0]]/*\"*/";
  Json::Value parsed;
  ASSERT_TRUE(CppJson::LoadJsonString(text, parsed)) << "JsonCpp reads comments";
  EXPECT_TRUE(outlineOf(text).comment);
  EXPECT_FALSE(outlineOf(R"(["/*"])").comment);
}

TEST(Outline, EndsWhereATextExceedsALimit) {
  EXPECT_EQ(json::outlineOf(std::string(1000, '['), 10, kAny).depth, 11u);
  EXPECT_EQ(json::outlineOf("[" + std::string(1000, ','), kAny, 10).values, 11u);
}

}  // namespace
