#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "OwnMounts.h"
#include "platform/ProcessStat.h"
#include "platform/Users.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/RunningPrograms.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using testsupport::waitFor;

class RunningProgramsTest : public ::testing::Test {
 protected:
  RunningProgramsTest() {
    // The name in /proc/<pid>/stat may hold anything, parentheses and blanks too.
    program = dir.at("a) b (c");
    std::filesystem::copy_file("/bin/sleep", program);
    process.emplace(std::vector<std::string>{program, "60"});
    EXPECT_TRUE(waitFor([this] { return !find().empty(); }));
  }
  FileIdentity identity() const {
    struct stat status {};
    EXPECT_EQ(0, stat(program.c_str(), &status));
    return FileIdentity::of(status);
  }
  std::vector<RunningProgram> find() const {
    RunningPrograms programs;
    return programs.running(identity());
  }
  testsupport::TempDir dir;
  std::string program;
  std::optional<testsupport::Process> process;
};

TEST_F(RunningProgramsTest, AProcessIsFoundByTheFileItRuns) {
  const std::vector<RunningProgram> found = find();
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ(process->pid(), found[0].pid);
  EXPECT_EQ(program, found[0].path);
  EXPECT_EQ("a) b (c", found[0].name);
  EXPECT_EQ(getuid(), found[0].uid);
  EXPECT_EQ(platform::processStat(process->pid())->startTicks, found[0].startTicks);
  EXPECT_TRUE(found[0].onDisk);
}

TEST_F(RunningProgramsTest, AProgramThatWasDeletedIsStillFound) {
  const FileIdentity file = identity();
  std::filesystem::remove(program);
  RunningPrograms programs;
  const std::vector<RunningProgram> found = programs.running(file);
  ASSERT_EQ(1U, found.size());
  EXPECT_FALSE(found[0].onDisk);
  EXPECT_THAT(found[0].path, HasSubstr("(deleted)"));
}

TEST_F(RunningProgramsTest, ANameWithAnEndOfLineHidesNoProcess) {
  const std::string hidden = dir.at("x\ny) z");
  std::filesystem::copy_file("/bin/sleep", hidden);
  testsupport::Process other({hidden, "60"});
  struct stat status {};
  ASSERT_EQ(0, stat(hidden.c_str(), &status));
  std::vector<RunningProgram> found;
  EXPECT_TRUE(waitFor([&] {
    RunningPrograms programs;
    found = programs.running(FileIdentity::of(status));
    return found.size() == 1;
  }));
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ("x\ny) z", found[0].name);
  EXPECT_NE(0U, found[0].startTicks);
  EXPECT_EQ(platform::processStat(other.pid())->startTicks, found[0].startTicks);
  EXPECT_TRUE(endProcess(found[0]));
  EXPECT_EQ(128 + SIGKILL, other.wait());
}

TEST_F(RunningProgramsTest, ALongPathOfAProgramIsNotCut) {
  std::string longPath = dir.path();
  while (longPath.size() < 3500) {
    longPath += "/" + std::string(200, 'x');
  }
  std::filesystem::create_directories(longPath);
  longPath += "/program";
  std::filesystem::rename(program, longPath);
  program = longPath;
  const std::vector<RunningProgram> found = find();
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ(longPath, found[0].path);
  EXPECT_TRUE(found[0].onDisk);
}

TEST_F(RunningProgramsTest, AProgramWhosePathIsTooLongForTheKernelIsFoundAndEndedAllTheSame) {
  const FileIdentity file = identity();
  const std::string half = "/" + std::string(250, 'x');
  std::string upper = dir.at("upper"), lower = dir.at("lower");
  while (upper.size() < 2500) {
    upper += half;
    lower += half;
  }
  std::filesystem::create_directories(upper);
  std::filesystem::create_directories(lower);
  std::filesystem::rename(program, lower + "/program");
  std::filesystem::rename(dir.at("lower"), upper + "/lower");
  RunningPrograms programs;
  const std::vector<RunningProgram> found = programs.running(file);
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ("/proc/" + std::to_string(process->pid()) + "/exe", found[0].path);
  EXPECT_TRUE(found[0].onDisk);
  EXPECT_TRUE(endProcess(found[0]));
  EXPECT_EQ(128 + SIGKILL, process->wait());
}

TEST_F(RunningProgramsTest, AFileThatHasTheNameOfADeletedProgramIsNotThatProgram) {
  const FileIdentity file = identity();
  std::filesystem::remove(program);
  dir.write("a) b (c (deleted)", "another file");
  RunningPrograms programs;
  const std::vector<RunningProgram> found = programs.running(file);
  ASSERT_EQ(1U, found.size());
  EXPECT_EQ(program + " (deleted)", found[0].path);
  EXPECT_FALSE(found[0].onDisk);
}

TEST_F(RunningProgramsTest, ProcessesThatBeginAndEndAreSeenByTheSameTable) {
  RunningPrograms programs;
  EXPECT_EQ(1U, programs.running(identity()).size());
  testsupport::Process second({program, "60"});
  EXPECT_TRUE(waitFor([&] { return programs.running(identity()).size() == 2; }));
  second.kill(SIGKILL);
  second.wait();
  EXPECT_TRUE(waitFor([&] { return programs.running(identity()).size() == 1; }));
}

TEST_F(RunningProgramsTest, WithinASecondTheTableIsNotReadAgain) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    RunningPrograms programs;
    const auto begin = std::chrono::steady_clock::now();
    programs.running(identity());
    testsupport::Process second({program, "60"});
    ASSERT_TRUE(waitFor([&] { return find().size() == 2; }));
    const std::size_t found = programs.running(identity()).size();
    if (std::chrono::steady_clock::now() - begin < std::chrono::seconds(1)) {
      EXPECT_EQ(1U, found);
      return;
    }
  }
  ADD_FAILURE() << "a process took more than a second to begin each time";
}

TEST_F(RunningProgramsTest, AProcessThatEndedAndIsNotCollectedRunsNoProgram) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  siginfo_t ended{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT));
  const std::vector<RunningProgram> all = RunningPrograms::all().value();
  EXPECT_EQ(child, waitpid(child, nullptr, 0));
  for (const RunningProgram& one : all) {
    EXPECT_LT(0, one.pid);
    EXPECT_NE(child, one.pid);
    EXPECT_FALSE(one.path.empty());
  }
}

TEST_F(RunningProgramsTest, AListThatCouldNotBeReadIsReadAgainAtTheNextQuestion) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  const FileIdentity file = identity();
  RunningPrograms programs;
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{0, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const std::size_t foundWithout = programs.running(file).size();
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  EXPECT_EQ(0U, foundWithout);
  EXPECT_EQ(1U, programs.running(file).size());
}

TEST_F(RunningProgramsTest, AProcessIsEndedAndGoneByThen) {
  for (int i = 0; i < 5; ++i) {
    testsupport::Process one({program, "60"});
    std::vector<RunningProgram> found;
    ASSERT_TRUE(waitFor([&] {
      found = find();
      std::erase_if(found, [&](const RunningProgram& other) { return other.pid != one.pid(); });
      return !found.empty();
    }));
    EXPECT_TRUE(endProcess(found[0]));
    EXPECT_FALSE(one.running());
    EXPECT_EQ(128 + SIGKILL, one.wait());
  }
  EXPECT_TRUE(process->running());
}

TEST_F(RunningProgramsTest, AnIdThatIsAnotherProcessByNowIsLeftAlone) {
  RunningProgram stale = find().at(0);
  stale.startTicks -= 1;
  EXPECT_FALSE(endProcess(stale));
  stale = find().at(0);
  stale.inode += 1;
  EXPECT_FALSE(endProcess(stale));
  stale = find().at(0);
  stale.device += 1;
  EXPECT_FALSE(endProcess(stale));
  EXPECT_TRUE(process->running());
}

TEST_F(RunningProgramsTest, AProcessThatHadEndedCountsAsEnded) {
  const RunningProgram gone = find().at(0);
  process->kill(SIGKILL);
  process->wait();
  EXPECT_TRUE(endProcess(gone));
}

TEST_F(RunningProgramsTest, AProcessThatTheAgentHasNoDescriptorForIsAnErrorAndDoesNotCountAsEnded) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  const RunningProgram found = find().at(0);
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{0, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const auto ended = endProcess(found);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  ASSERT_FALSE(ended) << *ended;
  EXPECT_EQ("Too many open files", ended.error());
  EXPECT_TRUE(process->running());
  EXPECT_TRUE(endProcess(found));
}

/// Runs `what` where the status of that process cannot be read. False when this process may not do that.
bool withoutStatusOf(pid_t pid, const std::function<void()>& what) {
  const testsupport::TempDir dir;
  const std::string empty = dir.write("empty", "");
  return withOwnMounts(
      [&] {
        const std::string status = "/proc/" + std::to_string(pid) + "/stat";
        return mount(empty.c_str(), status.c_str(), nullptr, MS_BIND, nullptr) == 0;
      },
      what);
}

TEST_F(RunningProgramsTest, AProcessWhoseStatusCannotBeReadIsFoundAndNotEnded) {
  if (!withoutStatusOf(process->pid(), [this] {
        const std::vector<RunningProgram> found = find();
        ASSERT_EQ(1U, found.size());
        EXPECT_EQ(program, found[0].path);
        EXPECT_EQ("", found[0].name);
        EXPECT_THAT(endProcess(found[0]).error(), HasSubstr("another program"));
      })) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_TRUE(process->running());
}

TEST_F(RunningProgramsTest, WhereTheAgentsParentCannotBeReadAProcessIsEndedAllTheSame) {
  if (!withoutStatusOf(getppid(), [this] { EXPECT_TRUE(endProcess(find().at(0))); })) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_EQ(128 + SIGKILL, process->wait());
}

TEST(EndProcess, TheFirstProcessTheAgentAndItsParentsAreSpared) {
  for (const pid_t pid : {pid_t{1}, getpid(), getppid()}) {
    RunningProgram program;
    program.pid = pid;
    const auto result = endProcess(program);
    ASSERT_FALSE(result);
    EXPECT_THAT(result.error(), HasSubstr("process " + std::to_string(pid)));
  }
}

TEST(EndProcess, AProcessThatRunsTheAgentsOwnProgramIsSpared) {
  struct stat own {};
  ASSERT_EQ(0, stat("/proc/self/exe", &own));
  RunningProgram program;
  program.pid = 999999;
  program.device = own.st_dev;
  program.inode = own.st_ino;
  EXPECT_THAT(endProcess(program).error(), HasSubstr("own program"));
  program.inode += 1;
  EXPECT_EQ("had ended", endProcess(program));
  program.inode = own.st_ino;
  program.device += 1;
  EXPECT_EQ("had ended", endProcess(program));
}

/// Runs it in a child of a child process, with the id of the first; its exit status.
int belowTwoParents(const std::function<int(pid_t)>& what) {
  const auto statusOf = [](pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  const pid_t first = fork();
  if (first == 0) {
    const pid_t me = getpid();
    const pid_t second = fork();
    if (second == 0) {
      const pid_t third = fork();
      _exit(third == 0 ? what(me) : statusOf(third));
    }
    _exit(statusOf(second));
  }
  return statusOf(first);
}

TEST(EndProcess, AlsoTheParentOfItsParentIsSpared) {
  EXPECT_EQ(0, belowTwoParents([](pid_t ancestor) {
              RunningProgram program;
              program.pid = ancestor;
              const auto ended = endProcess(program);
              return !ended && ended.error().find("started it") != std::string::npos ? 0 : 1;
            }));
}

TEST(UserName, IsTheNameOrTheNumber) {
  EXPECT_EQ("root", platform::userName(0));
  EXPECT_EQ("60999", platform::userName(60999));
}

}  // namespace
}  // namespace agent
