// Workers that die or hang on a file, and a spawner that dies. All processes are the real program's.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "WorkerFixture.h"
#include "worker/CallFilter.h"
#include "worker/Messages.h"
#include "worker/SpawnerProcess.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::waitFor;

constexpr std::chrono::seconds kLoad(20);
constexpr std::uint32_t kUser = 60706;

class FaultyWorkers : public testing::WorkerFixture {
 protected:
  FaultyWorkers() {
    config().program = TAV_BIN_DIR "/tav_scan_faults";
    config().memoryBytes = 64U << 20;
    if (geteuid() == 0) {
      config().user = {kUser, kUser};
    }
  }
  static std::vector<pid_t> spawners() { return processesNamed("tav-spawner"); }
  /// Waits until a worker has the file of that name.
  bool waitBegun(const std::string& name) const {
    return waitFor([&] {
      const auto workers = processesNamed("tav-worker");
      return std::any_of(workers.begin(), workers.end(), [&](pid_t worker) {
        std::error_code error;
        const auto file =
            std::filesystem::read_symlink("/proc/" + std::to_string(worker) + "/fd/4", error).string();
        return !error && file == dir().at(name);
      });
    });
  }
  /// Kills the spawner, and waits until all its processes are gone.
  static void killSpawner() {
    kill(spawners().at(0), SIGKILL);
    ASSERT_TRUE(waitFor(
        [] { return spawners().empty() && processesNamed("tav-template").empty() && workerCount() == 0; }));
  }
};

TEST_F(FaultyWorkers, MakeExactlyTheFilesErrorsOnWhichTheyEndOrHang) {
  config().fileTimeout = std::chrono::seconds(3);
  const char* kinds[] = {"crash", "stop", "memory", "loop"};
  WorkerPool pool(spawner(), 4);
  for (int i = 0; i < 100; ++i) {
    if (i % 25 == 7) {
      const std::string kind = kinds[i / 25];
      begin(pool, kind, "some text");
      begin(pool, kind + "-again", "some text");
    }
    begin(pool, "infected" + std::to_string(i), eicar());
  }
  pool.drain();
  for (const char* kind : kinds) {
    for (const std::string& name : {std::string(kind), kind + std::string("-again")}) {
      EXPECT_EQ(verdict(name).outcome, Outcome::kError) << name;
      EXPECT_TRUE(verdict(name).workerDied) << name << describe(verdict(name));
    }
  }
  EXPECT_THAT(verdict("stop").reason, HasSubstr("took longer"));
  EXPECT_THAT(verdict("loop").reason, HasSubstr("took longer"));
  EXPECT_THAT(verdict("crash").reason, HasSubstr("died"));
#ifndef TAV_SANITIZED  // a sanitizer needs memory without a limit: the clock ends that worker
  EXPECT_THAT(verdict("memory").reason, HasSubstr("died"));
#endif
  for (int i = 0; i < 100; ++i) {
    const Verdict other = verdict("infected" + std::to_string(i));
    EXPECT_EQ(other.outcome, Outcome::kInfected) << i << describe(other);
    EXPECT_FALSE(other.workerDied) << i;
  }
}

TEST_F(FaultyWorkers, ThatWereEndedByACancelDidNotDieOnTheirFile) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "wait", "");
  ASSERT_TRUE(waitBegun("wait"));
  pool.cancel(true);
  pool.drain();
  EXPECT_EQ(verdict("wait").outcome, Outcome::kSkipped);
  EXPECT_FALSE(verdict("wait").workerDied);
}

TEST_F(FaultyWorkers, AStoppedOneIsGoneAfterItsFile) {
  config().fileTimeout = std::chrono::milliseconds(300);
  WorkerPool pool(spawner(), 1);
  begin(pool, "stop", "some text");
  pool.drain();
  EXPECT_THAT(verdict("stop").reason, HasSubstr("took longer"));
  EXPECT_TRUE(waitFor([] { return workerCount() == 0; }));
}

TEST_F(FaultyWorkers, AFileIsScannedAgainWhoseWorkerEndedWithItsTemplate) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "wait", "");
  ASSERT_TRUE(waitBegun("wait"));
  const pid_t first = processesNamed("tav-template").at(0);
  kill(first, SIGKILL);
  ASSERT_TRUE(waitFor([&] {
    const auto templates = processesNamed("tav-template");
    return templates.size() == 1 && templates[0] != first;
  }));
  dir().write("wait", eicar());
  pool.drain();
  EXPECT_EQ(verdict("wait").outcome, Outcome::kInfected) << describe(verdict("wait"));
}

TEST_F(FaultyWorkers, AFileWhoseWorkersEndWithTheirTemplateAgainAndAgainIsAnErrorButNoDeath) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "wait", "");
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(waitBegun("wait"));
    const auto templates = processesNamed("tav-template");
    ASSERT_EQ(templates.size(), 1U);
    kill(templates[0], SIGKILL);
    ASSERT_TRUE(waitFor([&] {
      const auto now = processesNamed("tav-template");
      return now.empty() || now[0] != templates[0];
    }));
  }
  pool.drain();
  EXPECT_THAT(verdict("wait").reason, HasSubstr("were ended 3 times"));
  EXPECT_FALSE(verdict("wait").workerDied);
}

TEST_F(FaultyWorkers, AKilledSpawnerIsReplacedInTheMiddleOfAScan) {
  {
    WorkerPool pool(spawner(), 2);
    begin(pool, "wait", "");
    ASSERT_TRUE(waitBegun("wait"));
    kill(spawners().at(0), SIGKILL);
    for (int i = 0; i < 50; ++i) {
      begin(pool, "file" + std::to_string(i), eicar());
    }
    dir().write("wait", eicar());
    pool.drain();
  }
  EXPECT_EQ(verdict("wait").outcome, Outcome::kInfected) << describe(verdict("wait"));
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(verdict("file" + std::to_string(i)).outcome, Outcome::kInfected)
        << i << describe(verdict("file" + std::to_string(i)));
  }
  EXPECT_EQ(spawner().replacedSpawners(), 1U);
  EXPECT_EQ(spawners().size(), 1U);
  WorkerPool later(spawner(), 1);
  begin(later, "later", eicar());
  later.drain();
  EXPECT_EQ(verdict("later").outcome, Outcome::kInfected) << describe(verdict("later"));
}

TEST_F(FaultyWorkers, AReloadReplacesAKilledSpawner) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  killSpawner();
  EXPECT_TRUE(spawner().reload());
  EXPECT_TRUE(spawner().waitLoaded(kLoad).loaded) << spawner().signatureState().detail;
  EXPECT_EQ(spawners().size(), 1U);
}

TEST_F(FaultyWorkers, ASpawnerThatDiesAgainAndAgainIsGivenUpUntilAReload) {
  testsupport::HeldFile held(writeSystem());
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(waitFor([] { return spawners().size() == 1 && !processesNamed("tav-template").empty(); }));
    EXPECT_TRUE(spawner().signatureState().loading) << round;
    const pid_t process = spawners().at(0);
    kill(process, SIGKILL);
    ASSERT_TRUE(waitFor([&] {
      const bool loading = spawner().signatureState().loading;
      const auto now = spawners();
      return !loading || (now.size() == 1 && now[0] != process);
    }));
  }
  EXPECT_FALSE(spawner().signatureState().loaded);
  EXPECT_EQ(spawner().signatureState().detail,
            "the spawner process and the process that loads the signatures died 3 times");
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_FALSE(verdict("file").workerDied);
  EXPECT_TRUE(spawners().empty());
  held.release();
  EXPECT_TRUE(spawner().reload());
  begin(pool, "next", eicar());
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

// A template of the program, started by hand: what its channel gives when its spawner has ended or not.
TEST_F(FaultyWorkers, ATemplateThatIsStartedByADyingSpawnerEndsAtOnce) {
  for (const bool spawnerLives : {true, false}) {
    auto ends = Channel::pair();
    ASSERT_TRUE(ends);
    auto& [ours, theirs] = *ends;
    TemplateStart start;
    start.shippedSignatures = config().shippedSignatures;
    start.systemSignatures = config().systemSignatures;
    start.tempFolder = dir().path();
    start.user = config().user;
    ASSERT_TRUE(ours.send(encode(start)));
    int life[2];
    ASSERT_EQ(pipe2(life, O_CLOEXEC), 0);
    const platform::Descriptor spawnerEnd(life[0]);
    platform::Descriptor spawner(life[1]);
    if (!spawnerLives) {
      spawner.reset();
    }
    const pid_t process = fork();
    if (process == 0) {
      // numbers that dup2() does not overwrite
      const int channel = fcntl(theirs.fd(), F_DUPFD, 10);
      const int end = fcntl(life[0], F_DUPFD, 10);
      dup2(channel, kChannelFd);
      dup2(end, kSpawnerEndFd);
      execl(config().program.c_str(), "tav-template", nullptr);
      _exit(9);
    }
    theirs.close();
    Channel::Packet packet;
    EXPECT_EQ(ours.receive(packet, true) == Channel::Received::kPacket, spawnerLives);
    ours.close();
    EXPECT_EQ(waitpid(process, nullptr, 0), process);
  }
}

TEST_F(FaultyWorkers, ASpawnerOutlivesTheThreadThatStartedIt) {
  std::thread([this] { EXPECT_TRUE(spawner().waitLoaded(kLoad).loaded); }).join();
  const auto first = spawners();
  ASSERT_EQ(first.size(), 1U);
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
  EXPECT_EQ(spawners(), first);
  EXPECT_EQ(spawner().replacedSpawners(), 0U);
}

TEST_F(FaultyWorkers, AStoppedSpawnerDoesNotHoldUpTheEnd) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  kill(spawners().at(0), SIGSTOP);
  endSpawner();
  EXPECT_TRUE(waitFor([] { return spawners().empty() && processesNamed("tav-template").empty(); }));
}

// The killed agent is a process of its own.
TEST_F(FaultyWorkers, SpawnerAndWorkersEndWithAnAgentThatIsKilled) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const std::string path = dir().write("wait", "");
  const pid_t agent = fork();
  if (agent == 0) {
    Spawner inner(this->config());
    WorkerPool pool(inner, 1);
    pool.scan(openFile(path), path, {}, [](const Verdict&) {});
    while (workerCount() < 1) {
      usleep(1000);
    }
    [[maybe_unused]] const ssize_t written = write(ready[1], "x", 1);
    for (;;) {
      pause();
    }
  }
  char go = 0;
  ASSERT_EQ(read(ready[0], &go, 1), 1);
  close(ready[0]);
  close(ready[1]);
  std::vector<pid_t> processes = spawners();
  for (const char* name : {"tav-template", "tav-worker"}) {
    const auto found = processesNamed(name);
    processes.insert(processes.end(), found.begin(), found.end());
  }
  EXPECT_EQ(processes.size(), 3U);
  kill(agent, SIGKILL);
  waitpid(agent, nullptr, 0);
  const auto gone = [](pid_t process) {
    const auto stat = platform::processStat(process);
    return !stat || !stat->name.starts_with("tav-") ||
           testsupport::readFile("/proc/" + std::to_string(process) + "/stat").find(") Z ") !=
               std::string::npos;
  };
  EXPECT_TRUE(waitFor([&] { return std::all_of(processes.begin(), processes.end(), gone); }));
}

}  // namespace
}  // namespace agent
