#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "MemberLinks.h"
#include "lunet/Guid.h"

using lunet::Guid;
using lunet::kMaxMemberLinks;
using lunet::kMaxMemberLinksOfAddress;
using lunet::MemberLinks;

namespace {

constexpr uid_t kUser = 1000;
constexpr uid_t kOther = 1001;

}  // namespace

class MemberLinksTest : public testing::Test {
 protected:
  bool enter(uid_t user) {
    places.push_back(links.enter(user));
    return places.back() != nullptr;
  }
  bool enter(uid_t user, const Guid& address) { return enter(user) && places.back()->takeAddress(address); }

  MemberLinks links;
  std::vector<std::unique_ptr<MemberLinks::Place>> places;
  const Guid guid = lunet::parseGuid(lunet::kAgentGuid);
};

TEST_F(MemberLinksTest, AUserHasSoManyAndAnotherHisOwn) {
  for (std::uint32_t i = 0; i < kMaxMemberLinks; ++i) {
    ASSERT_TRUE(enter(kUser));
  }
  EXPECT_FALSE(enter(kUser));
  EXPECT_TRUE(enter(kOther));
}

TEST_F(MemberLinksTest, AnAddressHasSoManyAndThatOfAnotherUserItsOwn) {
  for (std::uint32_t i = 0; i < kMaxMemberLinksOfAddress; ++i) {
    ASSERT_TRUE(enter(kUser, guid));
  }
  EXPECT_FALSE(enter(kUser, guid));
  EXPECT_TRUE(enter(kUser, Guid{}));
  EXPECT_TRUE(enter(kOther, guid));
}

TEST_F(MemberLinksTest, APlaceTakesOneAddress) {
  ASSERT_TRUE(enter(kUser, guid));
  EXPECT_FALSE(places.back()->takeAddress(Guid{}));
}

TEST_F(MemberLinksTest, WhatEndsIsCountedNoMoreNotEvenBehindTheCounter) {
  for (int round = 0; round < 3; ++round) {
    for (std::uint32_t i = 0; i < kMaxMemberLinksOfAddress; ++i) {
      ASSERT_TRUE(enter(kUser, guid));
    }
    EXPECT_FALSE(enter(kUser, guid));
    places.clear();
  }
  auto own = std::make_unique<MemberLinks>();
  const std::unique_ptr<MemberLinks::Place> place = own->enter(kUser);
  ASSERT_TRUE(place);
  own.reset();
  EXPECT_TRUE(place->takeAddress(guid));
}
