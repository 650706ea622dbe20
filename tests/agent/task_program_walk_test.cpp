#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "WalkRecorder.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/CallerRights.h"
#include "task/MappedFiles.h"
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
  EXPECT_THAT(sink.files, Contains("/program"));
  EXPECT_EQ(access("/", W_OK) == 0, sink.writable["/program"]);
}

/// Maps a file and holds the mapping; the descriptor is closed.
class Mapping {
 public:
  Mapping(int fd, int protection) : at_(mmap(nullptr, kSize, protection, MAP_PRIVATE, fd, 0)) {
    EXPECT_NE(MAP_FAILED, at_);
    close(fd);
  }
  ~Mapping() { munmap(at_, kSize); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

 private:
  static constexpr std::size_t kSize = 4096;
  void* const at_;
};

RunningProgram thisProcess() {
  RunningProgram self;
  self.pid = getpid();
  self.path = "/proc/self/exe";
  return self;
}

TEST_F(ProgramWalkTest, FilesThatAProcessHasMappedAreEncounteredOnce) {
  const std::string path = dir.write("library", "x");
  const Mapping one(open(path.c_str(), O_RDONLY | O_CLOEXEC), PROT_READ);
  const Mapping two(open(path.c_str(), O_RDONLY | O_CLOEXEC), PROT_READ | PROT_EXEC);
  walkPrograms({thisProcess(), thisProcess()}, std::nullopt, 1.0, sink);
  EXPECT_EQ(1, std::count(sink.files.begin(), sink.files.end(), path));
  EXPECT_EQ("x", sink.contents[path]);
  EXPECT_NEAR(1.0, sink.progress, 1e-6);
}

TEST_F(ProgramWalkTest, AMappedFileThatIsNoLongerOnDiskIsReadThroughItsProcess) {
  const std::string path = dir.write("library", "the mapped one");
  const Mapping mapping(open(path.c_str(), O_RDONLY | O_CLOEXEC), PROT_READ | PROT_EXEC);
  std::filesystem::remove(path);
  dir.write("library", "another one");
  const int memory = memfd_create("tavtest", MFD_CLOEXEC);
  ASSERT_EQ(1, write(memory, "m", 1));
  const Mapping inMemory(memory, PROT_READ | PROT_EXEC);
  walkPrograms({thisProcess()}, std::nullopt, 1.0, sink);
  EXPECT_EQ("the mapped one", sink.contents[path + " (deleted)"]);
  EXPECT_EQ("m", sink.contents["/memfd:tavtest (deleted)"]);
}

TEST_F(ProgramWalkTest, MemoryThatProcessesShareIsNoFile) {
  const int memory = memfd_create("tavtest", MFD_CLOEXEC);
  ASSERT_EQ(1, write(memory, "m", 1));
  const Mapping inMemory(memory, PROT_READ);
  walkPrograms({thisProcess()}, std::nullopt, 1.0, sink);
  EXPECT_THAT(sink.everyPath(), Not(Contains("/memfd:tavtest (deleted)")));
}

TEST_F(ProgramWalkTest, AMappedDeviceIsNotOpened) {
  const Mapping device(open("/dev/zero", O_RDONLY | O_CLOEXEC), PROT_READ);
  walkPrograms({thisProcess()}, std::nullopt, 1.0, sink);
  EXPECT_THAT(testsupport::readFile("/proc/self/maps"), HasSubstr("/dev/zero"));
  EXPECT_THAT(sink.everyPath(), Not(Contains("/dev/zero")));
}

TEST_F(ProgramWalkTest, AUserEncountersMappedFilesByTheirPathsAndWithOwnRights) {
  const std::string open = dir.write("open", "x"), closed = dir.write("closed", "x"),
                    gone = dir.write("gone", "x"), changed = dir.write("changed", "x");
  ASSERT_EQ(0, chmod(open.c_str(), 0644));
  ASSERT_EQ(0, chmod(closed.c_str(), 0600));
  std::vector<std::unique_ptr<Mapping>> mappings;
  for (const std::string& path : {open, closed, gone, changed}) {
    mappings.push_back(
        std::make_unique<Mapping>(::open(path.c_str(), O_RDONLY | O_CLOEXEC), PROT_READ | PROT_EXEC));
  }
  std::filesystem::remove(gone);
  std::filesystem::rename(changed, dir.at("old"));
  std::filesystem::create_symlink("closed", changed);
  RunningProgram self = thisProcess();
  self.uid = kUser;
  std::thread([&] {
    const auto rights = CallerRights::take(CallerId{kUser, kGroup, {}, getpid()});
    ASSERT_TRUE(rights) << rights.error();
    walkPrograms({self}, kUser, 1.0, sink);
  }).join();
  EXPECT_THAT(sink.files, Contains(open));
  EXPECT_THAT(sink.failures[closed], HasSubstr("Permission denied"));
  EXPECT_THAT(sink.skips[gone + " (deleted)"], HasSubstr("not at its path"));
  EXPECT_THAT(sink.files, Not(Contains(changed)));
}

TEST(Maps, OfALineTheFileIsReadAndWhatIsNoFileIsLeftOut) {
  const auto files = readMaps(
      "55d0-55d1 r--p 00000000 fe:01 12                         /usr/bin/a program\n"
      "55d1-55d2 r-xp 00001000 fe:01 12                         /usr/bin/a program\n"
      "7f00-7f01 rw-s 00000000 00:05 13                         /dev/zero (deleted)\n"
      "7f01-7f02 r-xp 00000000 00:01 14                         /memfd:x (deleted)\n"
      "7f02-7f03 r-xp 00000000 fe:01 15                         /tmp/two\\012lines\n"
      "7f03-7f04 rw-p 00000000 00:00 0                          [heap]\n"
      "7f04-7f05 rw-p 00000000 00:00 0 \n"
      "7f05-7f06 rw-s 00000000 00:0e 16                         anon_inode:[x]\n"
      "7f06-7f07 r--p 00000000 broken 17                        /usr/bin/broken\n"
      "7f07\n");
  ASSERT_EQ(3U, files.size());
  EXPECT_EQ("/usr/bin/a program", files[0].path);
  EXPECT_EQ("55d0-55d1", files[0].range);
  EXPECT_EQ(makedev(0xfe, 1), files[0].device);
  EXPECT_EQ(12U, files[0].inode);
  EXPECT_EQ("/memfd:x (deleted)", files[1].path);
  EXPECT_EQ("/tmp/two\nlines", files[2].path);
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
