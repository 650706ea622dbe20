#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/LineLimit.h"

namespace {

using platform::LineLimit;
using testing::HasSubstr;
using testing::Optional;

class Lines : public testing::Test {
 protected:
  int admitted(uid_t user, int lines) {
    int count = 0;
    for (int i = 0; i < lines; ++i) {
      count += limit_.admit(user, now_) ? 1 : 0;
    }
    return count;
  }
  LineLimit limit_{3};
  LineLimit::Time now_ = std::chrono::steady_clock::now();
};

TEST_F(Lines, OfOneUserAreLimitedAMinuteAndThoseOfOthersAreNot) {
  EXPECT_EQ(admitted(1000, 10000), 3);
  EXPECT_EQ(admitted(1001, 2), 2);
  now_ += LineLimit::kWindow;
  EXPECT_EQ(admitted(1000, 10000), 3);
}

TEST_F(Lines, ThatAreLeftOutAreNamedBeforeAndAfter) {
  EXPECT_THAT(limit_.admit(1000, now_), Optional(std::string()));
  EXPECT_THAT(limit_.admit(1000, now_), Optional(std::string()));
  EXPECT_THAT(limit_.admit(1000, now_), Optional(HasSubstr("further lines about this user are left out")));
  EXPECT_EQ(limit_.admit(1000, now_), std::nullopt);
  EXPECT_EQ(limit_.admit(1000, now_), std::nullopt);
  now_ += LineLimit::kWindow;
  EXPECT_THAT(limit_.admit(1000, now_), Optional(HasSubstr("2 lines about this user were left out")));
  EXPECT_THAT(limit_.admit(1000, now_), Optional(std::string()));
}

TEST_F(Lines, OfUsersBeyondTheLimitAreCountedTogether) {
  for (uid_t user = 0; user < LineLimit::kMostUsers; ++user) {
    EXPECT_EQ(admitted(1000 + user, 1), 1);
  }
  int others = 0;
  for (uid_t user = 0; user < 100; ++user) {
    others += admitted(5000 + user, 1);
  }
  EXPECT_EQ(others, 3);
  now_ += LineLimit::kWindow;
  EXPECT_EQ(admitted(9000, 1), 1) << "what is over gives its place";
}

}  // namespace
