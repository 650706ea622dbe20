#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "platform/Descriptor.h"
#include "support/Capabilities.h"
#include "support/TempDir.h"
#include "task/CallerRights.h"

namespace agent {
namespace {

constexpr uid_t kUser = 60123;
constexpr gid_t kGroup = 60124;
constexpr gid_t kOtherGroup = 60125;

bool readable(const std::string& path) {
  return static_cast<bool>(platform::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
}

class CallerRightsTest : public ::testing::Test {
 protected:
  CallerRightsTest() {
    chmod(dir.path().c_str(), 0755);
    priv = file("private", 0600, 0, 0);
    own = file("own", 0600, kUser, 0);
    byGroup = file("group", 0640, 0, kGroup);
    byOther = file("supplementary", 0640, 0, kOtherGroup);
  }
  std::string file(const char* name, mode_t mode, uid_t uid, gid_t gid) {
    const std::string path = dir.write(name, "x");
    EXPECT_EQ(0, chown(path.c_str(), uid, gid));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
  testsupport::TempDir dir;
  std::string priv, own, byGroup, byOther;
  const CallerId caller{kUser, kGroup, {kOtherGroup}, getpid()};
};

TEST_F(CallerRightsTest, WhatTheCallerCannotOpenTheThreadCannotOpen) {
  const auto rights = CallerRights::take(caller);
  ASSERT_TRUE(rights) << rights.error();
  EXPECT_TRUE((*rights)->reduced());
  EXPECT_FALSE(readable(priv));
  EXPECT_TRUE(readable(own));
  EXPECT_TRUE(readable(byGroup));
  EXPECT_TRUE(readable(byOther));
}

TEST_F(CallerRightsTest, BehindItTheThreadHasTheAgentsRightsAgain) {
  { const auto rights = CallerRights::take(caller); }
  EXPECT_TRUE(readable(priv));
  EXPECT_EQ(0, setfsuid(static_cast<uid_t>(-1)));
}

std::vector<gid_t> groupsOfThisThread() {
  std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
  EXPECT_EQ(static_cast<int>(groups.size()), getgroups(static_cast<int>(groups.size()), groups.data()));
  return groups;
}

TEST_F(CallerRightsTest, BehindItTheThreadHasTheAgentsGroupsAgain) {
  std::thread([this] {
    const std::vector<gid_t> agents{60201, 60202};  // of this thread alone
    ASSERT_EQ(0, syscall(SYS_setgroups, agents.size(), agents.data()));
    ASSERT_EQ(0, syscall(SYS_setresgid, -1, 60203, -1));
    {
      const auto rights = CallerRights::take(caller);
      EXPECT_EQ(std::vector{kOtherGroup}, groupsOfThisThread());
    }
    EXPECT_EQ(agents, groupsOfThisThread());
    EXPECT_EQ(getegid(), static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))));
  }).join();
}

class WithoutCapability : public CallerRightsTest,
                          public ::testing::WithParamInterface<std::pair<const char*, unsigned>> {};

TEST_P(WithoutCapability, RightsThatTheKernelDoesNotChangeAreAnErrorAndNothingIsTaken) {
  std::thread([this] {
    const std::vector<gid_t> before = groupsOfThisThread();
    testsupport::giveUp(GetParam().second);
    const auto rights = CallerRights::take(caller);
    ASSERT_FALSE(rights);
    EXPECT_NE(std::string::npos, rights.error().find("cannot take")) << rights.error();
    EXPECT_TRUE(readable(priv));
    EXPECT_EQ(before, groupsOfThisThread());
  }).join();
}

INSTANTIATE_TEST_SUITE_P(Of, WithoutCapability,
                         ::testing::Values(std::pair("Users", unsigned{CAP_SETUID}),
                                           std::pair("Groups", unsigned{CAP_SETGID})),
                         [](const auto& row) { return std::string(row.param.first); });

TEST_F(CallerRightsTest, OtherThreadsKeepTheAgentsRights) {
  std::promise<void> go;
  std::promise<bool> could;
  std::thread early([&, ready = go.get_future()] {
    ready.wait();
    could.set_value(readable(priv));
  });
  const auto rights = CallerRights::take(caller);
  go.set_value();
  EXPECT_TRUE(could.get_future().get());
  early.join();
}

TEST_F(CallerRightsTest, SuspendedTheThreadHasTheAgentsRightsForAWhile) {
  const auto rights = CallerRights::take(caller);
  ASSERT_FALSE(readable(priv));
  {
    const CallerRights::Suspended agents(rights->get());
    EXPECT_TRUE(readable(priv));
    dir.write("written", "x");
    struct stat status {};
    ASSERT_EQ(0, stat(dir.at("written").c_str(), &status));
    EXPECT_EQ(0U, status.st_uid);
    EXPECT_EQ(getegid(), status.st_gid);
  }
  EXPECT_FALSE(readable(priv));
}

TEST_F(CallerRightsTest, ForRootNothingIsChanged) {
  const auto rights = CallerRights::take(CallerId{0, 0, {}, getpid()});
  ASSERT_TRUE(rights);
  EXPECT_FALSE((*rights)->reduced());
  EXPECT_TRUE(readable(priv));
}

TEST_F(CallerRightsTest, AnAgentThatIsNotRootChangesNothingForItsOwnUserAndForRoot) {
  std::thread([] {
    ASSERT_EQ(0, syscall(SYS_setresuid, kUser, kUser, kUser));
    for (const uid_t uid : {kUser, uid_t{0}}) {
      const auto rights = CallerRights::take(CallerId{uid, kGroup, {}, getpid()});
      ASSERT_TRUE(rights) << rights.error();
      EXPECT_FALSE((*rights)->reduced());
      const CallerRights::Suspended agents(rights->get());
      EXPECT_EQ(kUser, static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))));
    }
  }).join();
}

TEST_F(CallerRightsTest, AnAgentThatIsNotRootRefusesToActForAnotherUser) {
  std::string error;
  std::thread([&] {
    // Of this thread alone, as the rights are; the process's other threads stay root.
    if (syscall(SYS_setresuid, kUser + 1, kUser + 1, kUser + 1) == 0) {
      error = CallerRights::take(caller).error();
    }
  }).join();
  EXPECT_NE(std::string::npos, error.find("does not run as root"));
}

}  // namespace
}  // namespace agent
