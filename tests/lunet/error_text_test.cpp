#include <gtest/gtest.h>

#include <set>

#include "lunet/ErrorText.h"
#include "lunet/Lunet.h"

TEST(ErrorTextTest, EveryErrorHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (std::uint32_t error = lunet::kErrNotOpen; error <= lunet::kErrSystem; ++error) {
    const std::string text = lunet::describeError(error);
    EXPECT_EQ(text.find("unknown"), std::string::npos) << text;
    EXPECT_TRUE(texts.insert(text).second) << text;
  }
  EXPECT_EQ(lunet::describeError(lunet::kErrNoTarget), "nobody is at that address now (0xE0010002)");
}

TEST(ErrorTextTest, AnotherNumberIsNamedUnknown) {
  EXPECT_EQ(lunet::describeError(5), "unknown error (0x00000005)");
}
