#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "support/TempDir.h"
#include "task/CallerRights.h"
#include "task/HomeFolders.h"

namespace agent {
namespace {

using ::testing::HasSubstr;

constexpr uid_t kUser = 60123;
constexpr gid_t kGroup = 60124;

class HomeAccessTest : public ::testing::Test {
 protected:
  HomeAccessTest() {
    EXPECT_EQ(0, chmod(dir.path().c_str(), 0755));
    dir.write("home/.keep", "x");
    give("home", 0755);
  }
  void give(const std::string& name, mode_t mode, uid_t uid = kUser) const {
    EXPECT_EQ(0, chown(dir.at(name).c_str(), uid, kGroup));
    EXPECT_EQ(0, chmod(dir.at(name).c_str(), mode));
  }
  void link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(0, symlink(target.c_str(), dir.at("home/" + name).c_str()));
  }
  HomeFolder home() const { return {dir.at("home"), "no-such-user", kUser, kGroup}; }
  auto open(const std::string& below) const { return access.open(home(), below); }
  void expectLeft(const std::string& below) const {
    const auto found = open(below);
    ASSERT_TRUE(found && *found) << below;
    EXPECT_FALSE((*found)->fd) << below;
    EXPECT_TRUE(S_ISLNK((*found)->status.st_mode)) << below;
  }

  testsupport::TempDir dir;
  HomeAccess access{false};
};

TEST_F(HomeAccessTest, ALinkThatStaysBelowTheHomeFolderIsFollowed) {
  dir.write("home/dotfiles/bashrc", "x");
  link("dotfiles/bashrc", ".bashrc");
  link("../home/dotfiles", "around");
  const auto found = open(".bashrc");
  ASSERT_TRUE(found && *found);
  EXPECT_TRUE((*found)->fd);
  EXPECT_EQ(dir.at("home/.bashrc"), (*found)->path);
  EXPECT_EQ(dir.at("home/dotfiles/bashrc"), (*found)->resolved);
  expectLeft("around/bashrc");  // out, and in again
}

TEST_F(HomeAccessTest, ALinkThatLeadsOutOfTheHomeFolderIsNotFollowed) {
  dir.write("outside/file", "x");
  link("../outside/file", "relative");
  link(dir.at("outside/file"), "absolute");
  link("../outside", "folder");
  link("/proc/self/cwd", "magic");
  link("loop", "loop");
  for (const char* name :
       {"relative", "absolute", "folder", "folder/file", "magic", "loop", "folder/absent"}) {
    expectLeft(name);
  }
}

TEST_F(HomeAccessTest, WhatItsUserCannotReadIsAnErrorForRootToo) {
  dir.write("home/secret", "x");
  dir.write("home/closed/file", "x");
  give("home/secret", 0600, 0);
  give("home/closed", 0700, 0);
  link("secret", "link");
  for (const char* name : {"secret", "link", "closed", "closed/file"}) {
    const auto found = open(name);
    ASSERT_FALSE(found) << name;
    EXPECT_THAT(found.error(), HasSubstr("Permission denied"));
  }
  EXPECT_EQ(0, setfsuid(static_cast<uid_t>(-1)));  // the thread has the agent's rights again
}

TEST_F(HomeAccessTest, WhatIsNotThereIsNothing) {
  for (const char* name : {"absent", "absent/file", ".keep/file"}) {
    const auto found = open(name);
    ASSERT_TRUE(found) << name;
    EXPECT_FALSE(*found) << name;
  }
  EXPECT_FALSE(*access.open({dir.at("no home"), "no-such-user", kUser, kGroup}, "file"));
}

TEST_F(HomeAccessTest, AFifoIsNotOpened) {
  ASSERT_EQ(0, mkfifo(dir.at("home/fifo").c_str(), 0666));
  const auto found = open("fifo");
  ASSERT_TRUE(found && *found);
  EXPECT_FALSE((*found)->fd);
  EXPECT_TRUE(S_ISFIFO((*found)->status.st_mode));
}

TEST_F(HomeAccessTest, AnyPathIsOpenedWithTheRightsOfTheUser) {
  const std::string secret = dir.write("secret", "x"), open = dir.write("open", "x");
  give("secret", 0600, 0);
  give("open", 0644, 0);
  EXPECT_THAT(access.openAny(home(), secret).error(), HasSubstr("Permission denied"));
  EXPECT_TRUE((*access.openAny(home(), open))->fd);
  EXPECT_FALSE(*access.openAny(home(), dir.at("absent")));
}

TEST_F(HomeAccessTest, AThreadWithTheRightsOfACallerKeepsThem) {
  dir.write("home/own", "x");
  give("home/own", 0600);
  dir.write("home/closed/file", "x");
  give("home/closed", 0700);
  std::thread([this] {
    const auto rights = CallerRights::take(CallerId{kUser + 1, kGroup + 1, {}, getpid()});
    ASSERT_TRUE(rights) << rights.error();
    const HomeAccess asCaller(true);
    EXPECT_THAT(asCaller.open(home(), "own").error(), HasSubstr("Permission denied"));
    const auto unseen = asCaller.open(home(), "closed/file");
    ASSERT_TRUE(unseen);
    EXPECT_FALSE(*unseen);
  }).join();
}

TEST(HomeOf, IsTheDeepestHomeFolderAboveThePath) {
  const std::vector<HomeFolder> homes{
      {"/home/a", "a", 1, 1}, {"/home/a/b", "b", 2, 2}, {"/home/ab", "ab", 3, 3}};
  EXPECT_EQ(&homes[0], homeOf("/home/a/file", homes));
  EXPECT_EQ(&homes[1], homeOf("/home/a/b/c/file", homes));
  EXPECT_EQ(&homes[2], homeOf("/home/ab/file", homes));
  EXPECT_EQ(nullptr, homeOf("/home/a", {homes[0]}));
  EXPECT_EQ(nullptr, homeOf("/etc/file", homes));
  EXPECT_EQ("c/file", belowHome(homes[1], "/home/a/b//c/file"));
}

}  // namespace
}  // namespace agent
