#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <future>
#include <optional>

#include "OwnMounts.h"
#include "WorkerFixture.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;

constexpr std::chrono::seconds kLoad(20);

class Spawners : public testing::WorkerFixture {
 protected:
  /// Kills the template and waits for the next one.
  void replaceTemplate() {
    const pid_t process = templates().at(0);
    kill(process, SIGKILL);
    ASSERT_TRUE(testsupport::waitFor([&] {
      spawner().signatureState();
      const auto now = templates();
      return now.size() == 1 && now[0] != process;
    }));
  }
  /// Reloads, which must fail.
  std::string reasonNotReloaded() {
    const auto reloaded = spawner().reload();
    EXPECT_FALSE(reloaded);
    return reloaded ? "" : reloaded.error();
  }
  static std::vector<pid_t> templates() { return processesNamed("tav-template"); }
  /// The targets of the process's descriptors, by number.
  static std::map<int, std::string> descriptorsOf(pid_t process) {
    std::map<int, std::string> found;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
      found[std::stoi(entry.path().filename())] = std::filesystem::read_symlink(entry).string();
    }
    return found;
  }
  /// False for a descriptor that is closed already, too.
  static bool closesOnExec(pid_t process, int number) {
    std::istringstream words(
        testsupport::readFile("/proc/" + std::to_string(process) + "/fdinfo/" + std::to_string(number)));
    for (std::string word; words >> word;) {
      if (word == "flags:" && words >> word) {
        return (std::stoul(word, nullptr, 8) & O_CLOEXEC) != 0;
      }
    }
    return false;
  }
  static std::string statusOf(pid_t process, const std::string& key) {
    std::istringstream lines(testsupport::readFile("/proc/" + std::to_string(process) + "/status"));
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(key + ":\t")) {
        return line.substr(key.size() + 2);
      }
    }
    return {};
  }
};

TEST_F(Spawners, GiveTheStateOfTheLoadedSignatures) {
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_TRUE(state.loaded) << state.detail;
  EXPECT_FALSE(state.loading);
  EXPECT_GT(state.count, 0U);
  EXPECT_EQ(state.version.size(), 64U);
}

TEST_F(Spawners, GiveTheReasonWhenNothingIsLoaded) {
  config().shippedSignatures = dir().at("none");
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_FALSE(state.loaded);
  EXPECT_THAT(state.detail, HasSubstr(dir().at("none")));
}

TEST_F(Spawners, GiveTheReasonWhenThereIsNoTemporaryFolder) {
  config().tempFolder = dir().at("nowhere");
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_FALSE(state.loaded);
  EXPECT_THAT(state.detail, HasSubstr(dir().at("nowhere")));
  EXPECT_THAT(spawner().temporaryFolders(), ::testing::Each(::testing::Not(::testing::IsEmpty())));
}

TEST_F(Spawners, OneSpawnerAndOneTemplateRun) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  EXPECT_EQ(processesNamed("tav-spawner").size(), 1U);
  EXPECT_EQ(templates().size(), 1U);
}

TEST_F(Spawners, AReloadBringsNewSignaturesToAPool) {
  const std::string sample = "a line that only the new ones know";
  WorkerPool pool(spawner(), 1);
  begin(pool, "before", sample);
  pool.drain();
  EXPECT_EQ(verdict("before").outcome, Outcome::kClean);
  const auto old = spawner().signatureState().version;
  dir().write("system/new.ndb", "New.Trojan.Sample:0:*:6f6e6c7920746865206e6577206f6e6573\n");
  ASSERT_TRUE(spawner().reload());
  EXPECT_NE(spawner().signatureState().version, old);
  begin(pool, "after", sample);
  pool.drain();
  EXPECT_EQ(verdict("after").outcome, Outcome::kInfected) << describe(verdict("after"));
  EXPECT_TRUE(testsupport::waitFor([&] { return templates().size() == 1; }));
}

TEST_F(Spawners, ARunningFileIsFinishedDuringAReload) {
  holdFilesNamed("slow");
  WorkerPool pool(spawner(), 1);
  begin(pool, "slow", eicar());
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() == 1; }));
  ASSERT_TRUE(spawner().reload());
  begin(pool, "next", eicar());
  open();
  pool.drain();
  EXPECT_EQ(verdict("slow").outcome, Outcome::kInfected) << describe(verdict("slow"));
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

TEST_F(Spawners, AFailedReloadKeepsTheOldSignatures) {
  const std::string own = dir().at("own");
  std::filesystem::copy(testing::kShippedSignatures, own);
  config().shippedSignatures = own;
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_TRUE(before.loaded);
  std::filesystem::remove_all(own);
  EXPECT_THAT(reasonNotReloaded(), HasSubstr(own));
  EXPECT_EQ(spawner().signatureState().version, before.version);
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected);
}

TEST_F(Spawners, AReloadWithABrokenSystemDatabaseKeepsTheGoodOne) {
  const std::string sample = "a line that only the system's know";
  writeSystem();
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_EQ(before.system, SystemDatabase::kInForce) << before.detail;
  dir().write("system/x.ndb", "this is no signature\n");
  EXPECT_THAT(reasonNotReloaded(), HasSubstr("x.ndb is left out"));
  EXPECT_EQ(spawner().signatureState().version, before.version);
  EXPECT_THAT(spawner().signatureState().shortage,
              ::testing::StartsWith("the signatures of an earlier load are in use: "));
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", sample);
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
}

TEST_F(Spawners, AReloadWithABrokenNewFileUsesTheOthers) {
  writeSystem();
  ASSERT_EQ(spawner().waitLoaded(kLoad).shortage, "");
  dir().write("system/bad.ndb", "this is no signature\n");
  dir().write("system/new.ndb", "New.Trojan.Sample:0:*:6f6e6c7920746865206e6577206f6e6573\n");
  EXPECT_TRUE(spawner().reload());
  const auto state = spawner().signatureState();
  EXPECT_THAT(state.shortage, HasSubstr("bad.ndb is left out"));
  EXPECT_THAT(state.files, ::testing::SizeIs(2));
}

TEST_F(Spawners, ACopyServesAtAStartAndAfterwardsUntilTheFileIsGood) {
  const std::string good = testsupport::readFile(writeSystem());
  dir().write("copy/x.ndb", good);
  dir().write("system/x.ndb", "this is no signature\n");
  config().signatureCopies = dir().at("copy");
  ASSERT_THAT(spawner().waitLoaded(kLoad).copies, ::testing::ElementsAre("x.ndb"));
  EXPECT_TRUE(spawner().reload()) << "it gives as much as before";
  EXPECT_THAT(spawner().signatureState().copies, ::testing::ElementsAre("x.ndb"));
  dir().write("system/x.ndb", good);
  EXPECT_TRUE(spawner().reload());
  EXPECT_EQ(spawner().signatureState().shortage, "");
}

TEST_F(Spawners, AReloadSucceedsAfterTheSystemDatabaseWasRemoved) {
  writeSystem();
  const auto before = spawner().waitLoaded(kLoad);
  std::filesystem::remove(dir().at("system/x.ndb"));
  EXPECT_TRUE(spawner().reload());
  EXPECT_EQ(spawner().signatureState().system, SystemDatabase::kNone);
  EXPECT_NE(spawner().signatureState().version, before.version);
}

TEST_F(Spawners, AnAbandonedReloadFailsAtOnceAndKeepsTheOldSignatures) {
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_TRUE(before.loaded);
  const pid_t process = processesNamed("tav-spawner").at(0);
  kill(process, SIGSTOP);  // a slow load
  const auto descriptors = testing::openDescriptors();
  auto reload = std::async(std::launch::async, [&] { return spawner().reload(); });
  EXPECT_TRUE(testsupport::waitFor([&] { return testing::openDescriptors() > descriptors; }))
      << "the reload waits";
  spawner().abandonReload();
  const bool ended = reload.wait_for(kLoad) == std::future_status::ready;
  kill(process, SIGCONT);
  EXPECT_TRUE(ended);
  const auto reloaded = reload.get();
  ASSERT_FALSE(reloaded);
  EXPECT_EQ(reloaded.error(), "the agent is ending");
  EXPECT_EQ(spawner().signatureState().version, before.version);
  EXPECT_FALSE(spawner().reload()) << "later reloads fail, too";
}

TEST_F(Spawners, AnAbandonBehindAReloadLeavesTheNewTemplateAtWork) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  ASSERT_TRUE(spawner().reload());
  ASSERT_TRUE(testsupport::waitFor([] { return templates().size() == 1; }));
  const auto fresh = templates();
  spawner().abandonReload();
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kClean) << describe(verdict("file"));
  EXPECT_EQ(templates(), fresh);
}

TEST_F(Spawners, ATemplateThatDiesIsReplaced) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  replaceTemplate();
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
}

TEST_F(Spawners, APoolGoesOnAfterTheDeathOfTheTemplate) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "first", eicar());
  pool.drain();
  kill(templates().at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() == 0; }));
  begin(pool, "next", eicar());
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

TEST_F(Spawners, WithoutTheSpawnerFilesAreErrorsAndNothingHangs) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  WorkerPool pool(spawner(), 1);
  kill(processesNamed("tav-spawner").at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] { return templates().empty(); }));
  begin(pool, "file", eicar());
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_THAT(verdict("file").reason, HasSubstr("spawner"));
  EXPECT_FALSE(spawner().signatureState().loaded);
  EXPECT_FALSE(spawner().reload());
}

TEST_F(Spawners, TheDestructorLeavesNoProcessAndNoFolder) {
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
  EXPECT_TRUE(templates().empty());
  EXPECT_EQ(workerCount(), 0);
  for (const std::string& folder : folders) {
    EXPECT_FALSE(std::filesystem::exists(folder)) << folder;
  }
}

TEST_F(Spawners, WithoutSignaturesThereIsNoTemplateUntilAReload) {
  const std::string own = dir().at("own");
  config().shippedSignatures = own;
  const auto state = spawner().waitLoaded(kLoad);
  ASSERT_FALSE(state.loaded);
  ASSERT_TRUE(testsupport::waitFor([&] { return templates().empty(); }));
  for (int look = 0; look < 20; ++look) {
    EXPECT_FALSE(spawner().signatureState().loading);
    EXPECT_EQ(spawner().signatureState().detail, state.detail);
  }
  std::filesystem::copy(testing::kShippedSignatures, own);
  EXPECT_TRUE(spawner().reload());
  EXPECT_TRUE(spawner().signatureState().loaded);
}

TEST_F(Spawners, AfterThreeTemplatesDiedDuringTheirLoadNoneIsForkedUntilAReload) {
  testsupport::HeldFile held(writeSystem());
  spawner();
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", eicar());
  ASSERT_TRUE(testsupport::waitFor([&] { return templates().size() == 1; }));
  replaceTemplate();
  replaceTemplate();
  EXPECT_TRUE(spawner().signatureState().loading) << "two deaths are not enough";
  kill(templates().at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] { return !spawner().signatureState().loading; }));
  EXPECT_FALSE(spawner().signatureState().loaded);
  EXPECT_THAT(spawner().signatureState().detail, HasSubstr("died 3 times"));
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_THAT(verdict("file").reason, HasSubstr("died 3 times"));

  held.release();
  ASSERT_TRUE(spawner().reload());
  begin(pool, "next", eicar());
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected);

  const testsupport::HeldFile again(dir().at("system/x.ndb"));
  replaceTemplate();
  replaceTemplate();
  EXPECT_TRUE(spawner().signatureState().loading) << "a reload resets the count";
}

TEST_F(Spawners, OnlyDeathsInARowDuringALoadAreCounted) {
  const std::string file = writeSystem();
  {
    const testsupport::HeldFile held(file);
    spawner();
    ASSERT_TRUE(testsupport::waitFor([&] { return templates().size() == 1; }));
    replaceTemplate();
    replaceTemplate();
  }
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  const testsupport::HeldFile held(file);
  replaceTemplate();  // this template had loaded
  replaceTemplate();
  replaceTemplate();
  EXPECT_TRUE(spawner().signatureState().loading) << spawner().signatureState().detail;
}

TEST_F(Spawners, AWaitForALoadEndsAtItsLimit) {
  const testsupport::HeldFile held(writeSystem());
  const auto state = spawner().waitLoaded(std::chrono::milliseconds(20));
  EXPECT_TRUE(state.loading);
  EXPECT_FALSE(state.loaded);
}

TEST_F(Spawners, AWaitForALoadSleeps) {
  testsupport::HeldFile held(writeSystem());
  spawner();
  std::atomic<pid_t> thread{0};
  auto waiting = std::async(std::launch::async, [&] {
    thread = gettid();
    return spawner().waitLoaded(kLoad);
  });
  int looksInARow = 0;  // a thread that asks again and again sleeps at some looks, too
  EXPECT_TRUE(testsupport::waitFor([&] {
    looksInARow = testsupport::threadSleeps(thread) ? looksInARow + 1 : 0;
    return looksInARow == 20;
  }));
  held.release();
  EXPECT_TRUE(waiting.get().loaded);
}

TEST_F(Spawners, EveryWaitForALoadEndsThoughOneThreadAloneReadsTheReport) {
  testsupport::HeldFile held(writeSystem());
  spawner();
  constexpr int kThreads = 16;
  std::array<std::atomic<pid_t>, kThreads> ids{};
  std::atomic<int> loaded{0};
  std::vector<std::thread> waiting;
  for (auto& id : ids) {
    waiting.emplace_back([&] {
      id = gettid();
      loaded += spawner().waitLoaded(std::chrono::minutes(1)).loaded ? 1 : 0;
    });
  }
  EXPECT_TRUE(testsupport::waitFor([&] {
    return std::all_of(ids.begin(), ids.end(),
                       [](const auto& id) { return id != 0 && testsupport::threadSleeps(id); });
  }));
  held.release();
  EXPECT_TRUE(testsupport::waitFor([&] { return loaded == kThreads; })) << loaded;
  for (std::thread& thread : waiting) {
    thread.join();
  }
}

TEST_F(Spawners, ReloadsRunOneAtATime) {
  const std::string file = writeSystem();
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  testsupport::HeldFile held(file);
  const auto descriptors = testing::openDescriptors();
  auto first = std::async(std::launch::async, [&] { return spawner().reload(); });
  ASSERT_TRUE(testsupport::waitFor([&] { return testing::openDescriptors() == descriptors + 2; }))
      << "the reload waits";
  std::atomic<pid_t> thread{0};
  auto second = std::async(std::launch::async, [&] {
    thread = gettid();
    return spawner().reload();
  });
  ASSERT_TRUE(testsupport::waitFor([&] { return testsupport::threadSleeps(thread); }));
  EXPECT_EQ(testing::openDescriptors(), descriptors + 2) << "the second reload has started no template";
  held.release();
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(second.get());
}

TEST_F(Spawners, AReloadWithABrokenSystemDatabaseSucceedsWhenNoneWasLoaded) {
  dir().write("system/x.ndb", "this is no signature\n");
  const std::string own = dir().at("own");
  std::filesystem::copy(testing::kShippedSignatures, own);
  config().shippedSignatures = own;
  const auto before = spawner().waitLoaded(kLoad);
  ASSERT_EQ(before.system, SystemDatabase::kLeftOut);
  dir().write("own/more.ndb", "TAV.Test.More:0:*:6d6f7265\n");
  EXPECT_TRUE(spawner().reload());
  EXPECT_EQ(spawner().signatureState().count, before.count + 1);
}

TEST_F(Spawners, WithoutDescriptorsConstructionAndReloadFail) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  {
    const testing::NoMoreDescriptors none;
    EXPECT_THROW(Spawner{config()}, std::runtime_error);
  }
  const auto before = spawner().waitLoaded(kLoad);
  {
    const testing::NoMoreDescriptors none;
    EXPECT_THAT(reasonNotReloaded(), HasSubstr("no way to reach a template: Too many open files"));
  }
  EXPECT_TRUE(spawner().signatureState().loaded);
  EXPECT_EQ(spawner().signatureState().version, before.version);
}

TEST_F(Spawners, EachProcessHasOneSocketAndNoDescriptorOfTheAgent) {
  const platform::Descriptor secret = openFile(dir().write("secret", "not for the child processes"));
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  for (const char* name : {"tav-spawner", "tav-template", "tav-worker"}) {
    const auto found = processesNamed(name);
    ASSERT_EQ(found.size(), 1U) << name;
    int sockets = 0;
    for (const auto& [number, target] : descriptorsOf(found[0])) {
      sockets += target.starts_with("socket:") ? 1 : 0;
      if (number > STDERR_FILENO) {
        EXPECT_TRUE(target.starts_with("socket:") || target == "anon_inode:[signalfd]") << name << target;
      } else if (number != STDERR_FILENO) {
        EXPECT_EQ(target, "/dev/null") << name << number;
      }
    }
    EXPECT_EQ(sockets, 1) << name;
  }
}

TEST_F(Spawners, NoDescriptorOfAnyProcessIsInheritedByAProgram) {
  const auto before = descriptorsOf(getpid());
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  for (const auto& [number, target] : descriptorsOf(getpid())) {
    const auto earlier = before.find(number);
    const bool isNew = earlier == before.end() || earlier->second != target;
    const bool ofTheLook = target.starts_with("/proc/");
    EXPECT_TRUE(!isNew || ofTheLook || closesOnExec(getpid(), number)) << number << target;
  }
  for (const char* name : {"tav-spawner", "tav-template", "tav-worker"}) {
    const pid_t process = processesNamed(name).at(0);
    for (const auto& [number, target] : descriptorsOf(process)) {
      EXPECT_TRUE(number <= STDERR_FILENO || closesOnExec(process, number)) << name << number << target;
    }
  }
}

TEST_F(Spawners, TheProcessesIgnoreTheAgentsSignals) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  WorkerPool pool(spawner(), 1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  begin(pool, "file", "some text");
  pool.drain();
  const auto bit = [](int signal) { return std::uint64_t{1} << (signal - 1); };
  for (const char* name : {"tav-spawner", "tav-template", "tav-worker"}) {
    const pid_t process = processesNamed(name).at(0);
    const std::uint64_t ignored = std::stoull(statusOf(process, "SigIgn"), nullptr, 16);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGUSR1, SIGUSR2}) {
      EXPECT_NE(ignored & bit(signal), 0U) << name << signal;
    }
    EXPECT_EQ(std::stoull(statusOf(process, "SigBlk"), nullptr, 16) & bit(SIGTERM), 0U) << name;
  }
}

TEST_F(Spawners, AWorkerIsConfined) {
  config().beforeFile = [this](const std::string&) {
    rlimit core{1, 1};
    getrlimit(RLIMIT_CORE, &core);
    note("dumpable=" + std::to_string(prctl(PR_GET_DUMPABLE)) + ",core=" + std::to_string(core.rlim_cur) +
         "/" + std::to_string(core.rlim_max) + ",folder=" + std::filesystem::current_path().string());
  };
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  const pid_t process = processesNamed("tav-worker").at(0);
  EXPECT_EQ(statusOf(process, "NoNewPrivs"), "1");
  EXPECT_EQ(statusOf(process, "Umask"), "0077");
  EXPECT_EQ(testsupport::readFile("/proc/" + std::to_string(process) + "/oom_score_adj"), "500\n");
  const std::string own =
      spawner().temporaryFolders().back() + "/" + std::to_string(templates().at(0)) + "-1";
  EXPECT_EQ(namesBegun().at(0), "dumpable=0,core=0/0,folder=" + own);
}

TEST_F(Spawners, TheFoldersOfAWorkerAreRemovedAtItsEnd) {
  holdFilesNamed("held");
  std::vector<std::string> folders;
  {
    WorkerPool pool(spawner(), 1);
    begin(pool, "held", "some text");
    ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 1; }));
    for (const std::string& parent : spawner().temporaryFolders()) {
      folders.push_back(parent + "/" + std::to_string(templates().at(0)) + "-1");
      struct stat status {};
      ASSERT_EQ(stat(folders.back().c_str(), &status), 0) << folders.back();
      EXPECT_EQ(status.st_mode & 0777U, 0700U);
    }
    open();
  }
  for (const std::string& folder : folders) {
    EXPECT_TRUE(testsupport::waitFor([&] { return !std::filesystem::exists(folder); })) << folder;
  }
}

struct MemoryRow {
  const char* name;
  const char* type;     ///< of the file system at /dev/shm
  const char* options;  ///< of the mount
  std::size_t folders;  ///< that the spawner has
};
class SpawnersWithoutMemoryFolder : public Spawners, public ::testing::WithParamInterface<MemoryRow> {};

TEST_P(SpawnersWithoutMemoryFolder, ScanWithTheFolderOnDiskAlone) {
  const auto mounts = [] { return mount("none", "/dev/shm", GetParam().type, 0, GetParam().options) == 0; };
  if (!withOwnMounts(mounts, [this] {
        EXPECT_TRUE(spawner().waitLoaded(kLoad).loaded) << spawner().signatureState().detail;
        EXPECT_EQ(spawner().temporaryFolders().size(), GetParam().folders);
        {
          WorkerPool pool(spawner(), 1);
          begin(pool, "file", eicar());
          begin(pool, "zip", testsupport::makeZip({{"x", eicar()}}));
          pool.drain();
        }
        endSpawner();  // before the thread that started it
      })) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
  EXPECT_EQ(verdict("zip").outcome, Outcome::kInfected) << describe(verdict("zip"));
}

INSTANTIATE_TEST_SUITE_P(Where, SpawnersWithoutMemoryFolder,
                         ::testing::Values(MemoryRow{"NoMemoryFileSystemIs", "proc", "", 1},
                                           MemoryRow{"TheSpawnersFolderFindsNoRoom", "tmpfs", "nr_inodes=1",
                                                     1},
                                           MemoryRow{"AWorkersFolderFindsNoRoom", "tmpfs", "nr_inodes=2", 2}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Spawners, TheFoldersOfWorkersThatEndTogetherAreRemoved) {
  holdFilesNamed("held");
  const std::string parent = spawner().temporaryFolders().back() + "/";
  pid_t process = 0;
  {
    WorkerPool pool(spawner(), 2);
    for (const char* name : {"held1", "held2"}) {
      begin(pool, name, "some text");
    }
    ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 2; }));
    process = templates().at(0);
    ASSERT_TRUE(std::filesystem::exists(parent + std::to_string(process) + "-2"));
    kill(process, SIGSTOP);  // both workers end before the template sees either
    open();
  }
  EXPECT_TRUE(testsupport::waitFor([] { return workerCount() == 0; }));
  kill(process, SIGCONT);
  EXPECT_TRUE(testsupport::waitFor([&] { return std::filesystem::is_empty(parent); }));
}

TEST_F(Spawners, TheFoldersOfAKilledTemplatesWorkersAreRemoved) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  std::vector<std::string> folders;
  for (const std::string& parent : spawner().temporaryFolders()) {
    folders.push_back(parent + "/" + std::to_string(templates().at(0)) + "-1");
    ASSERT_TRUE(std::filesystem::exists(folders.back()));
  }
  replaceTemplate();
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  ASSERT_TRUE(spawner().reload());  // the next fork request collects ended templates
  for (const std::string& folder : folders) {
    EXPECT_TRUE(testsupport::waitFor([&] { return !std::filesystem::exists(folder); })) << folder;
  }
}

// The killed agent is a process of its own.
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
  // The next spawner removes the killed one's folder.
  EXPECT_TRUE(spawner().waitLoaded(kLoad).loaded);
  EXPECT_EQ(std::count_if(
                std::filesystem::directory_iterator(dir().path()), std::filesystem::directory_iterator(),
                [](const auto& entry) { return entry.path().filename().string().starts_with("tavagent-"); }),
            1);
}

// The limit of processes does not bind root.
TEST_F(Spawners, ThrowWhereNoProcessCanBeForked) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become another user and return";
  }
  constexpr uid_t kUser = 60441;
  ASSERT_EQ(chown(dir().path().c_str(), kUser, kUser), 0);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NPROC, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
  ASSERT_EQ(syscall(SYS_setresuid, kUser, kUser, 0), 0);
  EXPECT_THROW(spawner(), std::runtime_error);
  ASSERT_EQ(syscall(SYS_setresuid, 0, 0, 0), 0);
  ASSERT_EQ(setrlimit(RLIMIT_NPROC, &before), 0);
}

/// The spawner and the template belong to a user who may have no more processes: that limit does not bind
/// root.
class SpawnersThatCannotFork : public Spawners {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can start processes of another user";
    }
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer begins a thread in each forked process, which the limit forbids";
#endif
    ASSERT_EQ(chown(dir().path().c_str(), user_, user_), 0);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NPROC, &before), 0);
    const rlimit three{3, before.rlim_max};  // this process, the spawner, the template
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &three), 0);
    // The call of the kernel changes this thread only.
    ASSERT_EQ(syscall(SYS_setresuid, user_, user_, 0), 0);
    const auto started = spawner().waitLoaded(kLoad);
    ASSERT_EQ(syscall(SYS_setresuid, 0, 0, 0), 0);
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &before), 0);
    ASSERT_TRUE(started.loaded) << started.detail;
    testsupport::Process::Options options;
    options.uid = user_;
    for (auto& one : others_) {
      one.emplace(std::vector<std::string>{"/bin/sleep", "600"}, options);
    }
    ASSERT_TRUE(testsupport::waitFor([&] {
      return std::all_of(others_.begin(), others_.end(),
                         [](const auto& one) { return nameOf(one->pid()) == "sleep"; });
    }));
  }
  static std::string nameOf(pid_t process) {
    const auto stat = platform::processStat(process);
    return stat ? stat->name : "";
  }

  const uid_t user_ = 40000 + static_cast<uid_t>(getpid()) % 20000;
  std::array<std::optional<testsupport::Process>, 2> others_;
};

TEST_F(SpawnersThatCannotFork, KillNobodyButTheirTemplatesAtTheirEnd) {
  kill(templates().at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] {
    return spawner().signatureState().detail == "the process that loads the signatures died 3 times";
  }));
  endSpawner();
  others_[0]->kill(SIGTERM);
  EXPECT_EQ(others_[0]->wait(), 128 + SIGTERM) << "no other signal came earlier";
}

TEST_F(SpawnersThatCannotFork, LeaveNoFolderOfAWorker) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  EXPECT_THAT(verdict("file").reason, HasSubstr("no scanning process can be started"));
  for (const std::string& folder : spawner().temporaryFolders()) {
    EXPECT_TRUE(std::filesystem::is_empty(folder)) << folder;
  }
}

}  // namespace
}  // namespace agent
