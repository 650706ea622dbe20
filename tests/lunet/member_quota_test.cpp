#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "MemberQuota.h"
#include "lunet/Guid.h"

using lunet::Guid;
using lunet::kMaxMemberLinks;
using lunet::kMaxMemberLinksOfAddress;
using lunet::MemberQuota;

namespace {

constexpr uid_t kUser = 1000;
constexpr uid_t kOther = 1001;

}  // namespace

class MemberQuotaTest : public testing::Test {
 protected:
  bool enter(uid_t user) {
    slots.push_back(quota.take(user));
    return slots.back() != nullptr;
  }
  bool enter(uid_t user, const Guid& address) { return enter(user) && slots.back()->takeAddress(address); }

  MemberQuota quota;
  std::vector<std::unique_ptr<MemberQuota::Slot>> slots;
  const Guid guid = lunet::parseGuid(lunet::kAgentGuid);
};

TEST_F(MemberQuotaTest, EachUserHasAQuota) {
  for (std::uint32_t i = 0; i < kMaxMemberLinks; ++i) {
    ASSERT_TRUE(enter(kUser));
  }
  EXPECT_FALSE(enter(kUser));
  EXPECT_TRUE(enter(kOther));
}

TEST_F(MemberQuotaTest, EachAddressOfAUserHasAQuota) {
  for (std::uint32_t i = 0; i < kMaxMemberLinksOfAddress; ++i) {
    ASSERT_TRUE(enter(kUser, guid));
  }
  EXPECT_FALSE(enter(kUser, guid));
  EXPECT_TRUE(enter(kUser, Guid{}));
  EXPECT_TRUE(enter(kOther, guid));
}

TEST_F(MemberQuotaTest, ASlotTakesOneAddress) {
  ASSERT_TRUE(enter(kUser, guid));
  EXPECT_FALSE(slots.back()->takeAddress(Guid{}));
}

TEST_F(MemberQuotaTest, ASlotThatEndsIsNotCountedAndMayOutliveTheQuota) {
  for (int round = 0; round < 3; ++round) {
    for (std::uint32_t i = 0; i < kMaxMemberLinksOfAddress; ++i) {
      ASSERT_TRUE(enter(kUser, guid));
    }
    EXPECT_FALSE(enter(kUser, guid));
    slots.clear();
  }
  auto own = std::make_unique<MemberQuota>();
  const std::unique_ptr<MemberQuota::Slot> slot = own->take(kUser);
  ASSERT_TRUE(slot);
  own.reset();
  EXPECT_TRUE(slot->takeAddress(guid));
}
