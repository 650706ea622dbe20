#include <gmock/gmock.h>
#include <sys/wait.h>

#include <future>

#include "WorkerFixture.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;

constexpr std::chrono::seconds kLoad(20);

class Spawners : public testing::WorkerFixture {
 protected:
};

TEST_F(Spawners, TellWhatIsLoaded) {
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_TRUE(state.loaded) << state.detail;
  EXPECT_FALSE(state.loading);
  EXPECT_GT(state.count, 0U);
  EXPECT_EQ(state.version.size(), 64U);
}

TEST_F(Spawners, SayWhyNothingIsLoaded) {
  config().shippedSignatures = dir().at("none");
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_FALSE(state.loaded);
  EXPECT_THAT(state.detail, HasSubstr(dir().at("none")));
}

TEST_F(Spawners, SayWhyThereIsNoPlaceForTemporaryFiles) {
  config().tempFolder = dir().at("nowhere");
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_FALSE(state.loaded);
  EXPECT_THAT(state.detail, HasSubstr(dir().at("nowhere")));
}

TEST_F(Spawners, TheAgentItselfHasNoSignatures) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  EXPECT_EQ(processesNamed("tav-spawner").size(), 1U);
  EXPECT_EQ(processesNamed("tav-template").size(), 1U);
}

TEST_F(Spawners, AReloadBringsNewSignaturesToAPoolAtWork) {
  const std::string sample = "a line that only the new ones know";
  WorkerPool pool(spawner(), 1);
  begin(pool, "before", sample);
  pool.drain();
  EXPECT_EQ(verdict("before").outcome, Outcome::kClean);
  const auto old = spawner().signatureState().version;
  dir().write("system/new.ndb", "New.Trojan.Sample:0:*:6f6e6c7920746865206e6577206f6e6573\n");
  std::string why;
  ASSERT_TRUE(spawner().reload(&why)) << why;
  EXPECT_NE(spawner().signatureState().version, old);
  begin(pool, "after", sample);
  pool.drain();
  EXPECT_EQ(verdict("after").outcome, Outcome::kInfected) << describe(verdict("after"));
  EXPECT_TRUE(testsupport::waitFor([&] { return processesNamed("tav-template").size() == 1; }));
}

TEST_F(Spawners, AFileUnderWayDuringAReloadIsFinished) {
  const std::string gate = dir().at("gate");
  config().beforeFile = [gate](const std::string& name) {
    while (name.find("slow") != std::string::npos && access(gate.c_str(), F_OK) != 0) {
      usleep(1000);
    }
  };
  WorkerPool pool(spawner(), 1);
  begin(pool, "slow", eicar());
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() == 1; }));
  ASSERT_TRUE(spawner().reload(nullptr));
  begin(pool, "next", eicar());
  dir().write("gate", "");
  pool.drain();
  EXPECT_EQ(verdict("slow").outcome, Outcome::kInfected) << describe(verdict("slow"));
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

TEST_F(Spawners, AFailedReloadLeavesAllAsItWas) {
  const std::string own = dir().at("own");
  std::filesystem::copy(testing::kShippedSignatures, own);
  config().shippedSignatures = own;
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_TRUE(before.loaded);
  std::filesystem::remove_all(own);
  std::string why;
  EXPECT_FALSE(spawner().reload(&why));
  EXPECT_THAT(why, HasSubstr(own));
  EXPECT_EQ(spawner().signatureState().version, before.version);
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected);
}

TEST_F(Spawners, AReloadWithASystemDatabaseThatDoesNotLoadLeavesTheGoodOneInForce) {
  const std::string sample = "a line that only the system's know";
  dir().write("system/x.ndb", "Sys.Trojan.Sample:0:*:6f6e6c79207468652073797374656d2773206b6e6f77\n");
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_EQ(before.system, SystemDatabase::kInForce) << before.detail;
  dir().write("system/x.ndb", "this is no signature\n");
  std::string why;
  EXPECT_FALSE(spawner().reload(&why));
  EXPECT_THAT(why, HasSubstr(dir().at("system")));
  EXPECT_EQ(spawner().signatureState().version, before.version);
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", sample);
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
}

TEST_F(Spawners, AReloadWithoutASystemDatabaseThatWasTakenAwayIsMade) {
  dir().write("system/x.ndb", "Sys.Trojan.Sample:0:*:6f6e6c79207468652073797374656d2773206b6e6f77\n");
  const auto before = spawner().waitLoaded(kLoad);
  std::filesystem::remove(dir().at("system/x.ndb"));
  std::string why;
  EXPECT_TRUE(spawner().reload(&why)) << why;
  EXPECT_EQ(spawner().signatureState().system, SystemDatabase::kNone);
  EXPECT_NE(spawner().signatureState().version, before.version);
}

TEST_F(Spawners, AReloadThatIsAbandonedFailsAtOnceAndLeavesAllAsItWas) {
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_TRUE(before.loaded);
  const pid_t process = processesNamed("tav-spawner").at(0);
  kill(process, SIGSTOP);  // a load that takes its time
  const auto descriptors = openDescriptors();
  std::string why;
  auto reload = std::async(std::launch::async, [&] { return spawner().reload(&why); });
  EXPECT_TRUE(testsupport::waitFor([&] { return openDescriptors() > descriptors; })) << "it waits";
  spawner().abandonReload();
  const bool ended = reload.wait_for(kLoad) == std::future_status::ready;
  kill(process, SIGCONT);
  EXPECT_TRUE(ended);
  EXPECT_FALSE(reload.get());
  EXPECT_EQ(why, "the agent is ending");
  EXPECT_EQ(spawner().signatureState().version, before.version);
  EXPECT_FALSE(spawner().reload(nullptr)) << "nor is a new one begun";
}

TEST_F(Spawners, ATemplateThatDiesIsReplaced) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  const auto templates = processesNamed("tav-template");
  ASSERT_EQ(templates.size(), 1U);
  kill(templates[0], SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] {
    spawner().signatureState();
    const auto now = processesNamed("tav-template");
    return now.size() == 1 && now != templates;
  }));
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
}

TEST_F(Spawners, ATemplateThatDiesUnderAPoolCostsNoMoreThanTheFilesUnderWay) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "first", eicar());
  pool.drain();
  kill(processesNamed("tav-template").at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() == 0; }));
  begin(pool, "next", eicar());
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

TEST_F(Spawners, WithoutTheSpawnerFilesAreErrorsAndNothingHangs) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  WorkerPool pool(spawner(), 1);
  kill(processesNamed("tav-spawner").at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] { return processesNamed("tav-template").empty(); }));
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_THAT(verdict("file").reason, HasSubstr("spawner"));
  EXPECT_FALSE(spawner().signatureState().loaded);
  EXPECT_FALSE(spawner().reload(nullptr));
}

TEST_F(Spawners, NothingStaysBehindAtTheEnd) {
  std::vector<std::string> folders;
  {
    WorkerPool pool(spawner(), 2);
    begin(pool, "file", testsupport::makeZip({{"x", eicar()}}));
    pool.drain();
    folders = spawner().temporaryFolders();
    EXPECT_FALSE(folders.empty());
  }
  endSpawner();
  EXPECT_TRUE(processesNamed("tav-spawner").empty());
  EXPECT_TRUE(processesNamed("tav-template").empty());
  EXPECT_EQ(workerCount(), 0);
  for (const std::string& folder : folders) {
    EXPECT_FALSE(std::filesystem::exists(folder)) << folder;
  }
}

// An agent that is killed, in a process of its own.
TEST_F(Spawners, AllEndWithAnAgentThatIsKilled) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t agent = fork();
  if (agent == 0) {
    Spawner::Config config = this->config();
    config.beforeFile = [&](const std::string&) {
      for (;;) {
        pause();
      }
    };
    Spawner inner(config);
    WorkerPool pool(inner, 1);
    const std::string path = dir().write("file", "some text");
    pool.scan(openFile(path), path, {}, [](const Verdict&) {});
    while (workerCount() < 1) {
      usleep(1000);
    }
    const char go = 'x';
    [[maybe_unused]] const ssize_t written = write(ready[1], &go, 1);
    for (;;) {
      pause();
    }
  }
  char go = 0;
  ASSERT_EQ(read(ready[0], &go, 1), 1);
  const auto workers = processesNamed("tav-worker");
  const auto spawners = processesNamed("tav-spawner");
  ASSERT_EQ(workers.size(), 1U);
  ASSERT_EQ(spawners.size(), 1U);
  kill(agent, SIGKILL);
  waitpid(agent, nullptr, 0);
  close(ready[0]);
  close(ready[1]);
  const auto gone = [](pid_t pid) {
    const std::string stat = testsupport::readFile("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos || stat.find("tav-") == std::string::npos;
  };
  EXPECT_TRUE(testsupport::waitFor([&] { return gone(workers[0]) && gone(spawners[0]); }));
  // What it left behind the next spawner takes away.
  EXPECT_TRUE(spawner().waitLoaded(kLoad).loaded);
  EXPECT_EQ(std::count_if(
                std::filesystem::directory_iterator(dir().path()), std::filesystem::directory_iterator(),
                [](const auto& entry) { return entry.path().filename().string().starts_with("tavagent-"); }),
            1);
}

}  // namespace
}  // namespace agent
