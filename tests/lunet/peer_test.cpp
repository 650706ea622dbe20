#include "Peer.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "platform/Descriptor.h"
#include "support/Process.h"

using lunet::AccessRule;
using lunet::Peer;
using lunet::PeerIdentity;
using lunet::startTicksOf;

namespace {

/// Time since boot, in the unit of a process's start time.
std::uint64_t ticksNow() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto perSecond = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  return static_cast<std::uint64_t>(now.tv_sec) * perSecond +
         static_cast<std::uint64_t>(now.tv_nsec) * perSecond / 1000000000;
}

}  // namespace

TEST(StartTicks, AreTheMomentAtWhichTheProcessBegan) {
  const std::uint64_t before = ticksNow();
  const testsupport::Process process({"cat"});
  const std::uint64_t after = ticksNow();
  const std::uint64_t ticks = startTicksOf(process.pid()).value_or(0);
  EXPECT_GE(ticks, before);
  EXPECT_LE(ticks, after);
}

TEST(StartTicks, OfAProcessThatIsGoneAreZero) {
  EXPECT_EQ(startTicksOf(0x7FFFFFFF), std::uint64_t{0});
}

/// The process chooses its name, which stands in brackets before the start time.
class StartTicksOfAName : public testing::TestWithParam<const char*> {
 protected:
  StartTicksOfAName() { prctl(PR_GET_NAME, before_); }
  ~StartTicksOfAName() override { prctl(PR_SET_NAME, before_); }

 private:
  char before_[16] = {};
};

TEST_P(StartTicksOfAName, AreThoseBeforeItWasTaken) {
  const std::optional<std::uint64_t> ticks = startTicksOf(getpid());
  ASSERT_NE(ticks.value_or(0), 0u);
  ASSERT_EQ(prctl(PR_SET_NAME, GetParam()), 0);
  EXPECT_EQ(startTicksOf(getpid()), ticks);
}

INSTANTIATE_TEST_SUITE_P(, StartTicksOfAName,
                         testing::Values("two words", "a) S 1 2 3 4", ")", ") ) ) )", "((x", ""));

TEST(PeerIdentityTest, IsTheSameProcessWhenNumberUserAndStartAreThoseOnly) {
  const PeerIdentity one{1, 2, 3, 4, false};
  EXPECT_EQ(one, (PeerIdentity{1, 2, 9, 4, true}));
  EXPECT_FALSE((one == PeerIdentity{9, 2, 3, 4, false}));
  EXPECT_FALSE((one == PeerIdentity{1, 9, 3, 4, false}));
  EXPECT_FALSE((one == PeerIdentity{1, 2, 3, 9, false}));
}

TEST(PeerTest, ASocketThatIsNotConnectedHasNone) {
  const platform::Descriptor alone(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(lunet::peerOf(alone.get()));
}

/// Users of a bus of user 1000.
class AccessRuleTest : public testing::Test {
 protected:
  static Peer user(uid_t uid, gid_t gid = 5000, std::vector<gid_t> groups = {}) {
    return {{1, uid, gid, 1, false}, std::move(groups)};
  }
  const AccessRule closed{1000, std::nullopt};
  const AccessRule shared{1000, 100};
};

TEST_F(AccessRuleTest, RootAndTheSameUserAreAdmittedAlways) {
  for (const AccessRule& rule : {closed, shared}) {
    EXPECT_TRUE(rule.admits(user(0)));
    EXPECT_TRUE(rule.admits(user(1000)));
    EXPECT_FALSE(rule.admits(user(1001)));
  }
}

TEST_F(AccessRuleTest, AMemberIsAdmittedByEitherKindOfMembership) {
  EXPECT_TRUE(shared.admits(user(1001, 100)));
  EXPECT_TRUE(shared.admits(user(1001, 5000, {7, 100, 8})));
  EXPECT_FALSE(shared.admits(user(1001, 5000, {7, 8})));
  EXPECT_FALSE(closed.admits(user(1001, 100, {100})));
}

TEST_F(AccessRuleTest, RootTheSameUserAndTheFoldersOwnerAreTrustedAndNobodyElse) {
  EXPECT_TRUE(shared.trusts(0, 1002));
  EXPECT_TRUE(shared.trusts(1000, 1002));
  EXPECT_TRUE(shared.trusts(1002, 1002));
  EXPECT_FALSE(shared.trusts(1001, 1002));
}
