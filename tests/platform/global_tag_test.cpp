#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <csignal>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>

#include "platform/CGlobalTag.h"
#include "platform/Files.h"
#include "support/FileCalls.h"
#include "support/HeldFile.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace {

using testsupport::TempDir;

CGlobalTag::TagConfig in(const TempDir& dir) {
  return {dir.at("run/lunet")};
}

/// The result of trylock in another process, which ends at once and so releases the mark.
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

TEST(GlobalTag, WhatAHolderThatWasKilledHadSetIsGoneForTheNext) {
  const TempDir dir;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    CGlobalTag tag("MARK", in(dir));
    const bool set = tag.trylock(false) == 1 && tag.setAttribute("pid", "7") && tag.setAttribute("x", "8");
    (void)!write(ready[1], set ? "1" : "0", 1);
    pause();
    _exit(0);
  }
  char set = 0;
  ASSERT_EQ(read(ready[0], &set, 1), 1);
  EXPECT_EQ(set, '1');
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.attribute("pid"), "7");
  EXPECT_EQ(tag.attribute("x"), "8");
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(tag.trylock(false), 1);
  EXPECT_EQ(tag.attribute("pid"), "");
  EXPECT_FALSE(tag.setAttribute("", "x"));
  close(ready[0]);
  close(ready[1]);
}

TEST(GlobalTag, WhoWaitsGetsTheMarkWhenItsHolderLetsGo) {
  const TempDir dir;
  auto holder = std::make_unique<CGlobalTag>("MARK", in(dir));
  ASSERT_EQ(holder->trylock(false), 1);
  std::atomic<int> result{-1};
  std::atomic<pid_t> waiter{0};
  std::thread other([&] {
    waiter = static_cast<pid_t>(syscall(SYS_gettid));
    CGlobalTag tag("MARK", in(dir));
    result = tag.trylock(true);
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return result != -1 || testsupport::threadSleeps(waiter); }));
  EXPECT_EQ(result, -1) << "it waits";
  holder.reset();
  other.join();
  EXPECT_EQ(result, 1);
}

TEST(GlobalTag, ASignalWhileItWaitsCostsNothing) {
  const TempDir dir;
  testsupport::FileCalls calls;
  calls.fail("lock MARK.mark", "", EINTR, 2);
  EXPECT_EQ(CGlobalTag("MARK", in(dir)).trylock(true), 1);
}

TEST(GlobalTag, AMarkThatCannotBeLockedFailsWithTheReason) {
  const TempDir dir;
  testsupport::FileCalls calls;
  calls.fail("lock MARK.mark", "", ENOLCK, 1);
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_NE(tag.lastError().find("cannot lock the mark"), std::string::npos) << tag.lastError();
}

/// An open without O_NONBLOCK waits 45 seconds for the end of the lease.
TEST(GlobalTag, ALeaseOnTheMarkIsNotWaitedFor) {
  const TempDir dir;
  { ASSERT_EQ(CGlobalTag("MARK", in(dir)).trylock(false), 1); }
  const testsupport::HeldFile lease(dir.at("run/lunet/MARK.mark"));
  CGlobalTag tag("MARK", in(dir));
  auto trying = std::async(std::launch::async, [&] { return tag.trylock(false); });
  EXPECT_EQ(trying.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(trying.get(), 0);
  EXPECT_NE(tag.lastError().find("cannot open the mark"), std::string::npos) << tag.lastError();
}

TEST(GlobalTag, OfTwoThatMakeTheMarkAtOnceOneHoldsIt) {
  const TempDir dir;
  for (int i = 0; i < 300; ++i) {
    const std::string name = "MARK" + std::to_string(i);
    CGlobalTag first(name, in(dir)), second(name, in(dir));
    int firstGot = -1, secondGot = -1;
    std::barrier together(2);
    std::thread other([&] {
      together.arrive_and_wait();
      secondGot = second.trylock(false);
    });
    together.arrive_and_wait();
    firstGot = first.trylock(false);
    other.join();
    ASSERT_EQ(firstGot + secondGot, 3) << first.lastError() << second.lastError();
  }
}

TEST(GlobalTag, ItsFolderAndItsMarkAreThisProcesssAlone) {
  const TempDir dir;
  { ASSERT_EQ(CGlobalTag("MARK", in(dir)).trylock(false), 1); }
  CGlobalTag tag("MARK", in(dir));
  ASSERT_EQ(tag.trylock(false), 1) << "a mark that stands";
  struct stat st {};
  ASSERT_EQ(stat(dir.at("run/lunet").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  int seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == dir.at("run/lunet/MARK.mark")) {
      ++seen;
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
    }
  }
  EXPECT_EQ(seen, 1);
}

TEST(GlobalTag, WhatIsNoFileIsNoMark) {
  const TempDir dir;
  ASSERT_TRUE(CDir::make(dir.at("run/lunet"), 0700));
  ASSERT_EQ(mkfifo(dir.at("run/lunet/MARK.mark").c_str(), 0600), 0);
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_NE(tag.lastError().find("is not a file of its own"), std::string::npos) << tag.lastError();
}

TEST(GlobalTag, AMarkThatMayOnlyBeReadCanBeHeldAndTellsItsHolder) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become a second user";
  }
  const TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  ASSERT_TRUE(CDir::make(dir.at("run/lunet"), 0755));
  const auto byAnother = [&dir] {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(setresuid(54322, 54322, 54322) == 0 ? CGlobalTag("MARK", in(dir)).trylock(false) : 9);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  {
    CGlobalTag tag("MARK", in(dir));
    ASSERT_EQ(tag.trylock(false), 1);
    EXPECT_EQ(byAnother(), 2);
  }
  EXPECT_EQ(byAnother(), 1);
  const testsupport::HeldFile lease(dir.at("run/lunet/MARK.mark"));
  EXPECT_EQ(byAnother(), 0) << "a lease is not waited for";
}

TEST(GlobalTag, APlantedSymbolicLinkIsNotFollowed) {
  const TempDir dir;
  const std::string victim = dir.write("victim", "precious");
  ASSERT_TRUE(CDir::make(dir.at("run/lunet"), 0700));
  ASSERT_EQ(symlink(victim.c_str(), dir.at("run/lunet/MARK.mark").c_str()), 0);
  CGlobalTag tag("MARK", in(dir));
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_NE(tag.lastError().find("Too many levels of symbolic links"), std::string::npos) << tag.lastError();
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

TEST(GlobalTag, BelowAFolderThatOthersCanWriteNothingIsMade) {
  const TempDir dir;
  ASSERT_TRUE(CDir::make(dir.at("open"), 0700));
  ASSERT_EQ(chmod(dir.at("open").c_str(), 0777), 0);
  CGlobalTag tag("MARK", {dir.at("open/lunet")});
  EXPECT_EQ(tag.trylock(false), 0);
  EXPECT_NE(tag.lastError().find("can be written by others"), std::string::npos) << tag.lastError();
  EXPECT_TRUE(std::filesystem::is_empty(dir.at("open")));
}

TEST(GlobalTag, ItsFolderMayLieInTheRootFolder) {
  CGlobalTag tag("MARK", {"/proc"});
  EXPECT_EQ(tag.trylock(false), 0) << "nobody makes files there";
  EXPECT_NE(tag.lastError().find("cannot open the mark /proc/MARK.mark"), std::string::npos)
      << tag.lastError();
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
