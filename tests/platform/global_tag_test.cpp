#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "platform/CGlobalTag.h"
#include "platform/Files.h"
#include "support/TempDir.h"

namespace {

using testsupport::TempDir;

CGlobalTag::TagConfig in(const TempDir& dir) {
  return {dir.at("run/lunet")};
}

/// The result of trylock in another process, which ends at once and so releases what it got.
int trylockElsewhere(const CGlobalTag::TagConfig& config) {
  const pid_t child = fork();
  if (child == 0) {
    CGlobalTag tag("MARK", config);
    _exit(tag.trylock(false));
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

TEST(GlobalTag, TheFirstHolderGetsOneAndTheSecondTwo) {
  const TempDir dir;
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 1);
  EXPECT_EQ(tag.trylock(false), 1) << "asking again keeps it";
  EXPECT_EQ(trylockElsewhere(in(dir)), 2);
}

TEST(GlobalTag, TheMarkIsFreeAfterTheHolderWasKilled) {
  const TempDir dir;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    CGlobalTag tag("MARK", in(dir));
    const char got = static_cast<char>('0' + tag.trylock(false));
    (void)!write(ready[1], &got, 1);
    pause();
    _exit(0);
  }
  char got = 0;
  ASSERT_EQ(read(ready[0], &got, 1), 1);
  EXPECT_EQ(got, '1');
  EXPECT_EQ(trylockElsewhere(in(dir)), 2);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(trylockElsewhere(in(dir)), 1);
  close(ready[0]);
  close(ready[1]);
}

TEST(GlobalTag, ThePidCanBeReadByOthersAndIsGoneWithTheHolder) {
  const TempDir dir;
  const CGlobalTag other("MARK", in(dir));
  {
    CGlobalTag tag("MARK", in(dir));
    EXPECT_FALSE(tag.setAttribute("pid", "12")) << "only who holds the mark may write";
    ASSERT_EQ(tag.trylock(false), 1);
    EXPECT_TRUE(tag.setAttribute("pid", std::to_string(getpid())));
    EXPECT_FALSE(tag.setAttribute("pid", "1\nforged=1"));
    EXPECT_EQ(other.attribute("pid"), std::to_string(getpid()));
    struct stat st {};
    ASSERT_EQ(stat(dir.at("run/lunet/MARK.mark").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
  }
  EXPECT_EQ(other.attribute("pid"), "");
}

TEST(GlobalTag, APlantedSymbolicLinkIsNotFollowed) {
  const TempDir dir;
  const std::string victim = dir.write("victim", "precious");
  ASSERT_TRUE(CDir::make(dir.at("run/lunet"), 0700));
  ASSERT_EQ(symlink(victim.c_str(), dir.at("run/lunet/MARK.mark").c_str()), 0);
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_FALSE(tag.lastError().empty());
  EXPECT_EQ(testsupport::readFile(victim), "precious");
}

TEST(GlobalTag, APlantedHardLinkIsNotTruncated) {
  const TempDir dir;
  const std::string victim = dir.write("victim", "precious");
  ASSERT_TRUE(CDir::make(dir.at("run/lunet"), 0700));
  ASSERT_EQ(link(victim.c_str(), dir.at("run/lunet/MARK.mark").c_str()), 0);
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_EQ(testsupport::readFile(victim), "precious");
}

TEST(GlobalTag, AFolderThatOthersCanWriteIsRefused) {
  const TempDir dir;
  ASSERT_TRUE(CDir::make(dir.at("run/lunet"), 0700));
  ASSERT_EQ(chmod(dir.at("run/lunet").c_str(), 0777), 0);
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_NE(tag.lastError().find("can be written by others"), std::string::npos) << tag.lastError();
}

TEST(GlobalTag, OnlyInAFolderThatAGroupMayWriteMayItWriteTheMark) {
  const TempDir dir;
  const auto modeIn = [&dir](const char* folder, mode_t mode) {
    EXPECT_EQ(mkdir(dir.at(folder).c_str(), 0700), 0);
    EXPECT_EQ(chmod(dir.at(folder).c_str(), mode), 0);
    EXPECT_EQ(CGlobalTag("MARK", {dir.at(folder)}).trylock(false), 1);
    struct stat st {};
    EXPECT_EQ(stat(dir.at(std::string(folder) + "/MARK.mark").c_str(), &st), 0);
    return st.st_mode & 07777;
  };
  EXPECT_EQ(modeIn("group", 03770), 0664u);
  EXPECT_EQ(modeIn("inherited-setgid", 02700), 0644u);
}

TEST(GlobalTag, AMarkThatCannotBeMadeFailsWithTheReason) {
  const TempDir dir;
  dir.write("run", "a file where the folder should be");
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_NE(tag.lastError().find("cannot make the folder"), std::string::npos) << tag.lastError();
}

TEST(GlobalTag, TheUsersConfigurationIsTheFolderThatWasSet) {
  CGlobalTag::TagConfig::setUserDirectory("/somewhere");
  EXPECT_EQ(CGlobalTag::TagConfig::getUserConfig().directory, "/somewhere");
  CGlobalTag::TagConfig::setUserDirectory("");
}

TEST(GlobalTag, AGroupsMemberMayTakeTheMarkThatRootMadeAndLeftFree) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become a second user";
  }
  const TempDir dir;
  constexpr gid_t kGroup = 54321;
  constexpr uid_t kMember = 54322;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string shared = dir.at("shared");
  ASSERT_EQ(mkdir(shared.c_str(), 0700), 0);
  ASSERT_EQ(chown(shared.c_str(), 0, kGroup), 0);
  ASSERT_EQ(chmod(shared.c_str(), 03770), 0);
  { ASSERT_EQ(CGlobalTag("MARK", {shared}).trylock(false), 1); }
  const pid_t child = fork();
  if (child == 0) {
    const bool switched = setresgid(kGroup, kGroup, kGroup) == 0 && setresuid(kMember, kMember, kMember) == 0;
    CGlobalTag tag("MARK", {shared});
    const bool held = switched && tag.trylock(false) == 1 && tag.setAttribute("pid", "7");
    _exit(held ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
