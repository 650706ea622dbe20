#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "WalkRecorder.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/CallerRights.h"
#include "task/ProgramWalk.h"

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using testsupport::waitFor;

constexpr uid_t kUser = 60123;
constexpr gid_t kGroup = 60124;

class ProgramWalkTest : public ::testing::Test {
 protected:
  ProgramWalkTest() { chmod(dir.path().c_str(), 0755); }

  /// A copy of a program that sleeps, run by a user; its path.
  std::string run(const std::string& name, uid_t uid, mode_t mode = 0755) {
    const std::string path = dir.at(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::copy_file("/bin/sleep", path);
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    testsupport::Process::Options options;
    options.uid = uid;
    options.gid = uid == 0 ? 0 : kGroup;
    processes.push_back(
        std::make_unique<testsupport::Process>(std::vector<std::string>{path, "60"}, std::move(options)));
    const pid_t pid = processes.back()->pid();
    EXPECT_TRUE(waitFor([&] {
      const auto all = RunningPrograms::all().value();
      return std::any_of(all.begin(), all.end(), [&](const RunningProgram& program) {
        return program.pid == pid && program.path == path && program.uid == uid;
      });
    }));
    return path;
  }
  void walkForUser() {
    std::thread([this] {
      const auto rights = CallerRights::take(CallerId{kUser, kGroup, {}, getpid()});
      ASSERT_TRUE(rights) << rights.error();
      walkPrograms(RunningPrograms::all().value(), kUser, 1.0, sink);
    }).join();
  }

  testsupport::TempDir dir;
  std::vector<std::unique_ptr<testsupport::Process>> processes;
  WalkRecorder sink;
};

TEST_F(ProgramWalkTest, TheAgentEncountersEveryonesProgramsOnceAlsoThoseThatAreNoLongerOnDisk) {
  const std::string mine = run("mine", 0);
  processes.push_back(std::make_unique<testsupport::Process>(std::vector<std::string>{mine, "60"}));
  const std::string theirs = run("theirs", kUser);
  const std::string gone = run("gone", kUser);
  std::filesystem::remove(gone);
  walkPrograms(RunningPrograms::all().value(), std::nullopt, 1.0, sink);
  EXPECT_THAT(sink.files, IsSupersetOf({mine, theirs, gone + " (deleted)"}));
  EXPECT_EQ(1, std::count(sink.files.begin(), sink.files.end(), mine));
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

TEST_F(ProgramWalkTest, AUserEncountersTheProgramsOfOwnProcessesAndNoOthers) {
  const std::string theirs = run("theirs", 0);
  const std::string own = run("own", kUser);
  walkForUser();
  EXPECT_THAT(sink.files, Contains(own));
  EXPECT_THAT(sink.everyPath(), Not(Contains(theirs)));
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

TEST_F(ProgramWalkTest, AProgramThatAUserMayRunAndNotReadIsAnError) {
  const std::string path = run("unreadable", kUser, 0711);
  walkForUser();
  EXPECT_THAT(sink.files, Not(Contains(path)));
  EXPECT_THAT(sink.failures[path], HasSubstr("Permission denied"));
}

TEST_F(ProgramWalkTest, AProgramBehindAFolderThatIsClosedToTheUserIsAnError) {
  const std::string path = run("closed/program", kUser);
  ASSERT_EQ(0, chmod(dir.at("closed").c_str(), 0700));
  walkForUser();
  EXPECT_THAT(sink.files, Not(Contains(path)));
  EXPECT_THAT(sink.failures[path], HasSubstr("Permission denied"));
}

TEST_F(ProgramWalkTest, AUsersProgramThatIsNotAtItsPathIsSkippedAndNothingElseIsTakenForIt) {
  const std::string path = run("exchanged", kUser);
  std::filesystem::remove(path);
  walkForUser();
  EXPECT_THAT(sink.skips[path + " (deleted)"], HasSubstr("not at its path"));

  RunningProgram stale;
  stale.pid = processes.back()->pid();
  stale.uid = kUser;
  stale.path = dir.write("exchanged", "another file");
  walkPrograms({stale}, kUser, 1.0, sink);
  EXPECT_THAT(sink.skips[path], HasSubstr("not at its path"));
  EXPECT_THAT(sink.files, Not(Contains(path)));
}

TEST_F(ProgramWalkTest, AFileThatCameToAUsersProgramsPathMeanwhileIsNotEncountered) {
  const std::string path = run("program", kUser);
  const auto listed = RunningPrograms::all().value();
  std::filesystem::rename(dir.write("another", "another file"), path);
  walkPrograms(listed, kUser, 1.0, sink);
  EXPECT_THAT(sink.skips[path], HasSubstr("not at its path"));
  EXPECT_THAT(sink.files, Not(Contains(path)));
}

TEST_F(ProgramWalkTest, AFileOfTheSameNumberOnAnotherDiskIsNotAUsersProgram) {
  const std::string path = run("program", kUser);
  struct stat status {};
  ASSERT_EQ(0, stat(path.c_str(), &status));
  RunningProgram program;
  program.uid = kUser;
  program.path = path;
  program.inode = status.st_ino;
  program.device = status.st_dev + 1;
  walkPrograms({program}, kUser, 1.0, sink);
  EXPECT_THAT(sink.skips[path], HasSubstr("not at its path"));
  EXPECT_THAT(sink.files, IsEmpty());
}

TEST_F(ProgramWalkTest, ALinkThatCameToAUsersProgramsPathIsNotFollowed) {
  const std::string path = run("program", kUser);
  const auto listed = RunningPrograms::all().value();
  std::filesystem::rename(path, dir.at("moved"));
  std::filesystem::create_symlink("moved", path);
  walkPrograms(listed, kUser, 1.0, sink);
  EXPECT_THAT(sink.skips[path], HasSubstr("not at its path"));
  EXPECT_THAT(sink.files, Not(Contains(path)));
}

TEST_F(ProgramWalkTest, AFifoThatCameToAUsersProgramsPathIsNotWaitedFor) {
  const std::string path = run("program", kUser);
  const auto listed = RunningPrograms::all().value();
  std::filesystem::remove(path);
  ASSERT_EQ(0, mkfifo(path.c_str(), 0644));
  walkPrograms(listed, kUser, 1.0, sink);
  EXPECT_THAT(sink.skips[path], HasSubstr("not at its path"));
}

TEST_F(ProgramWalkTest, AUsersProgramWhoseFolderGaveWayToAFileIsSkipped) {
  const std::string path = run("folder/program", kUser);
  const auto listed = RunningPrograms::all().value();
  std::filesystem::remove_all(dir.at("folder"));
  dir.write("folder", "a file");
  walkPrograms(listed, kUser, 1.0, sink);
  EXPECT_THAT(sink.skips[path], HasSubstr("not at its path"));
}

TEST_F(ProgramWalkTest, WhetherAProgramsFolderIsWritableIsAskedForTheUser) {
  const std::string own = run("own/program", kUser);
  const std::string foreign = run("foreign/program", kUser);
  ASSERT_EQ(0, chown(dir.at("own").c_str(), kUser, kGroup));
  ASSERT_EQ(0, chmod(dir.at("own").c_str(), 0755));
  ASSERT_EQ(0, chmod(dir.at("foreign").c_str(), 0755));
  walkForUser();
  EXPECT_THAT(sink.files, IsSupersetOf({own, foreign}));
  EXPECT_TRUE(sink.writable[own]);
  EXPECT_FALSE(sink.writable[foreign]);
}

TEST_F(ProgramWalkTest, OfAProgramInTheRootFolderThatFolderIsAsked) {
  run("program", 0);
  RunningProgram program;
  program.pid = processes.back()->pid();
  program.path = "/program";
  walkPrograms({program}, std::nullopt, 1.0, sink);
  EXPECT_THAT(sink.files, ElementsAre("/program"));
  EXPECT_EQ(access("/", W_OK) == 0, sink.writable["/program"]);
}

TEST_F(ProgramWalkTest, AWalkThatMustEndEncountersNoMorePrograms) {
  run("one", 0);
  run("two", 0);
  sink.allowed = 1;
  walkPrograms(RunningPrograms::all().value(), std::nullopt, 1.0, sink);
  EXPECT_EQ(1U, sink.everyPath().size());
}

TEST_F(ProgramWalkTest, AProcessThatEndedMeanwhileIsSkipped) {
  RunningProgram program;
  program.path = "/gone";
  {
    testsupport::Process ended({"/bin/true"});
    ended.wait();
    program.pid = ended.pid();
  }
  walkPrograms({program}, std::nullopt, 1.0, sink);
  EXPECT_THAT(sink.skips["/gone"], HasSubstr("had ended"));
}

TEST_F(ProgramWalkTest, AProgramThatCannotBeOpenedIsAnErrorWithItsReason) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  const std::string path = run("program", 0);
  RunningProgram program;
  program.pid = processes.back()->pid();
  program.path = path;
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{0, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  walkPrograms({program}, std::nullopt, 1.0, sink);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  EXPECT_THAT(sink.failures[path], HasSubstr("Too many open files"));
  EXPECT_THAT(sink.files, IsEmpty());
}

TEST_F(ProgramWalkTest, ProcessesThatCannotBeListedAreSaid) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{0, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const auto programs = RunningPrograms::all();
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  ASSERT_FALSE(programs);
  EXPECT_THAT(programs.error(), HasSubstr("Too many open files"));
}

}  // namespace
}  // namespace agent
