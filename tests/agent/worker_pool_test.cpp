#include <gmock/gmock.h>

#include <filesystem>
#include <future>
#include <map>
#include <set>
#include <thread>

#include "WorkerFixture.h"
#include "support/Process.h"
#include "worker/Channel.h"
#include "worker/Messages.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::makeZip;

class Pools : public testing::WorkerFixture {};

/// This process's eventfds, each with what nobody has read of it yet.
std::map<std::string, unsigned long long> eventsUnread() {
  std::map<std::string, unsigned long long> unread;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    const std::string text = testsupport::readFile(entry.path().string());
    const std::string label = "eventfd-count:";
    if (const auto at = text.find(label); at != std::string::npos) {
      unread[entry.path().filename().string()] = std::strtoull(text.c_str() + at + label.size(), nullptr, 16);
    }
  }
  return unread;
}

TEST_F(Pools, FindTheTestFilePlainAndInAZip) {
  WorkerPool pool(spawner(), 2);
  begin(pool, "plain", eicar());
  begin(pool, "zip", makeZip({{"x/test.com", eicar()}}));
  begin(pool, "clean", "some text");
  pool.drain();
  EXPECT_EQ(verdict("plain").outcome, Outcome::kInfected) << describe(verdict("plain"));
  EXPECT_EQ(verdict("plain").detections.at(0).name, "TAV.Test.EICAR");
  EXPECT_EQ(verdict("plain").sha1, "3395856ce81f2b7382dee72602f798b642f14140");
  EXPECT_EQ(verdict("zip").outcome, Outcome::kInfected) << describe(verdict("zip"));
  EXPECT_EQ(verdict("clean").outcome, Outcome::kClean) << describe(verdict("clean"));
}

TEST_F(Pools, EveryFileHasExactlyOneCallback) {
  WorkerPool pool(spawner(), 2);
  constexpr int kFiles = 2000;
  const std::string path = dir().write("file", "some text");
  std::atomic<int> calls{0};
  for (int i = 0; i < kFiles; ++i) {
    pool.scan(openFile(path), path, {},
              [&](const Verdict& v) { calls += v.outcome == Outcome::kClean ? 1 : 100000; });
  }
  pool.drain();
  EXPECT_EQ(calls, kFiles);
}

TEST_F(Pools, EveryCallThatWakesOneIsHeardSoThatItSleepsAgain) {
  ASSERT_TRUE(spawner().waitLoaded(std::chrono::seconds(20)).loaded);
  const auto others = eventsUnread();
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  auto own = eventsUnread();
  std::erase_if(own, [&](const auto& event) { return others.contains(event.first); });
  ASSERT_EQ(own.size(), 1U);
  EXPECT_TRUE(testsupport::waitFor([&] { return eventsUnread().at(own.begin()->first) == 0; }));
}

TEST_F(Pools, AnIdlePoolSleeps) {
  ASSERT_TRUE(spawner().waitLoaded(std::chrono::seconds(20)).loaded);
  const auto threads = [] {
    std::set<pid_t> all;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
      all.insert(std::stoi(entry.path().filename()));
    }
    return all;
  };
  std::thread([] {}).join();  // the thread sanitizer begins a thread of its own with the first one
  auto before = threads();
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  auto own = threads();
  std::erase_if(own, [&](pid_t thread) { return before.contains(thread); });
  ASSERT_EQ(own.size(), 1U);
  EXPECT_TRUE(testsupport::waitFor([&] { return testsupport::threadSleeps(*own.begin()); }));
}

TEST_F(Pools, OptionsReachTheWorker) {
  WorkerPool pool(spawner(), 1);
  ScanOptions options;
  options.archiveFormats = {"rar", "7z"};
  begin(pool, "formats", makeZip({{"x", eicar()}}), options);
  options = {};
  options.maxLayers = 1;
  begin(pool, "layers", testsupport::makeNestedZip(2, "x", eicar()), options);
  options = {};
  options.maxArchiveBytes = 10;
  begin(pool, "bytes", makeZip({{"x", eicar()}}), options);
  options = {};
  options.enabledEngines = 0;
  begin(pool, "engines", eicar(), options);
  options = {};
  options.hashesWanted = true;
  begin(pool, "hashes", "abc", options);
  pool.drain();
  EXPECT_EQ(verdict("formats").outcome, Outcome::kSkipped);
  EXPECT_EQ(verdict("layers").outcome, Outcome::kError);
  EXPECT_EQ(verdict("bytes").outcome, Outcome::kSkipped);
  EXPECT_EQ(verdict("engines").outcome, Outcome::kClean);
  EXPECT_EQ(verdict("hashes").md5, "900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(Pools, CountZeroMeansOneWorkerForEachCore) {
  const WorkerPool pool(spawner(), 0);
  EXPECT_EQ(pool.size(), std::thread::hardware_concurrency());
}

TEST_F(Pools, TheDeathOfAWorkerMakesOneFileAnError) {
  config().beforeFile = [](const std::string& name) {
    if (name.find("poison") != std::string::npos) {
      std::raise(SIGKILL);
    }
  };
  WorkerPool pool(spawner(), 1);
  for (int i = 0; i < 5; ++i) {
    begin(pool, "before" + std::to_string(i), eicar());
  }
  begin(pool, "poison", "some text");
  for (int i = 0; i < 5; ++i) {
    begin(pool, "behind" + std::to_string(i), eicar());
  }
  pool.drain();
  EXPECT_EQ(verdict("poison").outcome, Outcome::kError);
  EXPECT_THAT(verdict("poison").reason, HasSubstr("died"));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(verdict("before" + std::to_string(i)).outcome, Outcome::kInfected);
    EXPECT_EQ(verdict("behind" + std::to_string(i)).outcome, Outcome::kInfected);
  }
}

class PoolsThatRecord : public Pools {
 protected:
  /// Notes each file. A file whose name begins so kills its worker once: a second try would succeed.
  void dieOnceAt(const std::string& poison) {
    config().beforeFile = [this, died = dir().at("died-"), poison](const std::string& path) {
      const std::string name = path.substr(path.rfind('/') + 1);
      note(name);
      if (name.starts_with(poison) && mkdir((died + name).c_str(), 0700) == 0) {
        std::raise(SIGKILL);
      }
    };
  }
};

TEST_F(PoolsThatRecord, AFileThatKilledItsWorkerIsNotTriedAgain) {
  dieOnceAt("poison");
  WorkerPool pool(spawner(), 1);
  begin(pool, "poison", "some text");
  pool.drain();
  EXPECT_EQ(verdict("poison").outcome, Outcome::kError) << describe(verdict("poison"));
  EXPECT_THAT(namesBegun(), ElementsAre("poison"));
  begin(pool, "next", eicar());
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected);
  EXPECT_THAT(namesBegun(), ElementsAre("poison", "next"));
}

TEST_F(PoolsThatRecord, FilesBehindOneThatKilledItsWorkerAreBegunOnceAndInOrder) {
  dieOnceAt("poison");
  WorkerPool pool(spawner(), 1);
  begin(pool, "poison", "some text");
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    begin(pool, name, "some text");
  }
  pool.drain();
  EXPECT_EQ(verdict("poison").outcome, Outcome::kError) << describe(verdict("poison"));
  EXPECT_THAT(namesBegun(), ElementsAre("poison", "a", "b", "c", "d", "e"));
}

const std::string kLarge(3U << 20, 'x');  // no file is sent to a worker behind one of this size

TEST_F(PoolsThatRecord, NoWorkerIsForkedAboveTheCountOrWhileOneIsIdle) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 2);
  for (int i = 0; i < 3; ++i) {
    begin(pool, "one-by-one", "some text");
    pool.drain();
  }
  EXPECT_EQ(filesOfProcesses().size(), 1U);
  for (int i = 0; i < 5; ++i) {
    begin(pool, "held" + std::to_string(i), kLarge);
  }
  ASSERT_TRUE(testsupport::waitFor([&] { return filesOfProcesses().size() == 2; }));
  open();
  pool.drain();
  EXPECT_EQ(filesOfProcesses().size(), 2U);
}

TEST_F(PoolsThatRecord, AFileGoesToTheWorkerWithTheFewestFiles) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 2);
  for (const char* name : {"held1", "held2"}) {
    begin(pool, name, "some text");
  }
  ASSERT_TRUE(testsupport::waitFor([&] { return filesOfProcesses().size() == 2; }));
  for (const char* name : {"held3", "held4"}) {
    begin(pool, name, "some text");
  }
  // scan() of the last ones returns only after the small files were sent: no busy worker accepts these.
  for (int i = 0; i < 8; ++i) {
    begin(pool, "large", kLarge);
  }
  open();
  pool.drain();
  std::map<std::string, std::string> processOf;
  for (const auto& one : begun()) {
    processOf[one.name] = one.process;
  }
  EXPECT_NE(processOf["held1"], processOf["held2"]);
  EXPECT_NE(processOf["held3"], processOf["held4"]);
}

TEST_F(PoolsThatRecord, NoFileWaitsBehindALargeOneWhileAnotherWorkerIsFree) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 2);
  begin(pool, "held", kLarge);
  ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 1; }));
  for (int i = 0; i < 8; ++i) {
    begin(pool, "small" + std::to_string(i), "some text");
  }
  for (int i = 0; i < 8; ++i) {
    EXPECT_TRUE(testsupport::waitFor([&] { return known("small" + std::to_string(i)); })) << i;
  }
  EXPECT_FALSE(known("held"));
  open();
  pool.drain();
}

TEST_F(PoolsThatRecord, ScanBlocksWhileFourFilesForEachWorkerAreQueued) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 1);
  begin(pool, "held", kLarge);
  ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 1; }));
  std::atomic<int> handed{0};
  std::atomic<pid_t> thread{0};
  std::thread caller([&] {
    thread = gettid();
    for (int i = 0; i < 5; ++i) {
      begin(pool, "queued" + std::to_string(i), kLarge);
      ++handed;
    }
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return handed == 4 && testsupport::threadSleeps(thread); }))
      << handed;
  EXPECT_EQ(handed, 4);
  open();
  caller.join();
  pool.drain();
  EXPECT_EQ(handed, 5);
}

TEST_F(PoolsThatRecord, TheDestructorWaitsForRunningFilesAndBeginsNoMore) {
  holdFilesNamed("held");
  std::thread opener;
  {
    WorkerPool pool(spawner(), 1);
    begin(pool, "held", kLarge);
    ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 1; }));
    begin(pool, "queued", kLarge);
    opener = std::thread([&] {
      EXPECT_TRUE(testsupport::waitFor([&] { return known("queued"); }));
      open();
    });
  }
  opener.join();
  EXPECT_EQ(verdict("queued").reason, "cancelled");
  EXPECT_EQ(verdict("held").outcome, Outcome::kClean);
  EXPECT_THAT(namesBegun(), ElementsAre("held"));
}

TEST_F(PoolsThatRecord, ACancelWithoutKillDoesNotUndoOneWithKill) {
  holdFilesNamed("held");
  for (int round = 0; round < 20; ++round) {
    WorkerPool pool(spawner(), 1);
    begin(pool, "held", "some text");
    ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == static_cast<std::size_t>(round) + 1; }));
    pool.cancel(true);
    pool.cancel(false);
  }
  EXPECT_EQ(verdict("held").reason, "cancelled");
}

TEST_F(PoolsThatRecord, AFileAfterAReloadIsNeverSentToAnOldWorker) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 2);
  begin(pool, "held", "some text");
  ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 1; }));
  dir().write("system/new.ndb", "New.Trojan.Sample:0:*:6f6e6c7920746865206e6577206f6e6573\n");
  ASSERT_TRUE(spawner().reload());
  const std::string sample = "a line that only the new ones know";
  begin(pool, "next", sample);
  begin(pool, "after", sample);
  EXPECT_TRUE(testsupport::waitFor([&] { return known("next") && known("after"); }));
  open();
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
  EXPECT_EQ(verdict("after").outcome, Outcome::kInfected) << describe(verdict("after"));
  EXPECT_EQ(verdict("held").outcome, Outcome::kClean);
}

TEST_F(PoolsThatRecord, WithoutDescriptorsForAnotherWorkerFilesWaitForTheExistingOne) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 2);
  begin(pool, "first", "some text");  // starts the worker
  pool.drain();
  begin(pool, "held", kLarge);
  ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 2; }));
  const std::string next = dir().write("next", kLarge);
  platform::Descriptor file = openFile(next);
  {
    const testing::NoMoreDescriptors none;
    pool.scan(std::move(file), next, {}, keep("next"));
    open();
    pool.drain();
  }
  EXPECT_EQ(verdict("next").outcome, Outcome::kClean) << describe(verdict("next"));
  EXPECT_EQ(filesOfProcesses().size(), 1U);
}

TEST_F(Pools, WithoutDescriptorsForAnyWorkerQueuedFilesFailAndLaterOnesAreScanned) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  ASSERT_TRUE(spawner().waitLoaded(std::chrono::seconds(20)).loaded);
  WorkerPool pool(spawner(), 1);
  const std::string file = dir().write("file", "some text");
  platform::Descriptor opened = openFile(file);
  std::promise<void> failing;
  std::promise<void> goOn;
  {
    const testing::NoMoreDescriptors none;
    pool.scan(std::move(opened), file, {}, [&](Verdict verdict) {
      keep("file")(std::move(verdict));
      failing.set_value();
      goOn.get_future().wait();
    });
    failing.get_future().wait();
  }
  begin(pool, "later", eicar());  // while the earlier files are being failed
  goOn.set_value();
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_THAT(verdict("file").reason, HasSubstr("no worker can be asked for: Too many open files"));
  EXPECT_EQ(verdict("later").outcome, Outcome::kInfected) << describe(verdict("later"));
}

TEST_F(Pools, AnEarlierForkFailureFailsNoFileThatWaitsForSignatures) {
  const std::string system = writeSystem();
  ASSERT_TRUE(spawner().waitLoaded(std::chrono::seconds(20)).loaded);
  WorkerPool pool(spawner(), 1);
  const std::string file = dir().write("file", "some text");
  platform::Descriptor opened = openFile(file);
  {
    const testing::NoMoreDescriptors none;
    pool.scan(std::move(opened), file, {}, keep("file"));
    pool.drain();
  }
  ASSERT_EQ(verdict("file").outcome, Outcome::kError);
  testsupport::HeldFile held(system);
  kill(processesNamed("tav-template").at(0), SIGKILL);
  ASSERT_TRUE(testsupport::waitFor([&] { return spawner().signatureState().loading; }));
  begin(pool, "next", eicar());
  held.release();
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

// A callback keeps the pool's thread busy: the pool cannot notice the worker's end before.
TEST_F(Pools, AFileSentToADeadWorkerGoesToAnother) {
  WorkerPool pool(spawner(), 1);
  begin(pool, "first", "some text");
  pool.drain();
  const pid_t worker = processesNamed("tav-worker").at(0);
  std::promise<void> inCallback;
  std::promise<void> goOn;
  pool.scan(platform::Descriptor(), "none", {}, [&](const Verdict&) {
    inCallback.set_value();
    goOn.get_future().wait();
  });
  inCallback.get_future().wait();
  begin(pool, "next", eicar());
  kill(worker, SIGKILL);
  EXPECT_TRUE(testsupport::waitFor([] { return workerCount() == 0; }));
  goOn.set_value();
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected) << describe(verdict("next"));
}

TEST_F(Pools, TheConstructorThrowsWithoutDescriptors) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  spawner();
  const testing::NoMoreDescriptors none;
  EXPECT_THROW(WorkerPool(spawner(), 1), std::runtime_error);
}

/// A template makes a numbered folder for each worker. A folder that exists before prevents that worker.
class PoolsWhoseWorkersCannotStart : public PoolsThatRecord {
 protected:
  void SetUp() override {
    dieOnceAt("poison");
    holdFilesNamed("held");
    ASSERT_TRUE(spawner().waitLoaded(std::chrono::seconds(20)).loaded);
    templatePid_ = std::to_string(processesNamed("tav-template").at(0));
  }
  void failStarts(int first, int last) {
    for (int number = first; number <= last; ++number) {
      std::filesystem::create_directory(spawner().temporaryFolders().back() + "/" + templatePid_ + "-" +
                                        std::to_string(number));
    }
  }
  std::string templatePid_;
};

TEST_F(PoolsWhoseWorkersCannotStart, GiveUpAfterThreeFailedStartsWithAReason) {
  failStarts(1, 3);
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  begin(pool, "behind", "some text");
  pool.drain();
  for (const char* name : {"file", "behind"}) {
    EXPECT_EQ(verdict(name).outcome, Outcome::kError);
    EXPECT_THAT(verdict(name).reason, HasSubstr("no scanning process can be started")) << name;
  }
  EXPECT_TRUE(begun().empty());
}

TEST_F(PoolsWhoseWorkersCannotStart, LoseNoFileWhenTheThirdStartSucceeds) {
  failStarts(1, 2);
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  begin(pool, "behind", "some text");
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kClean) << describe(verdict("file"));
  EXPECT_EQ(verdict("behind").outcome, Outcome::kClean) << describe(verdict("behind"));
}

TEST_F(PoolsWhoseWorkersCannotStart, CountOnlyFailedStartsInARow) {
  failStarts(1, 2);
  failStarts(4, 5);
  WorkerPool pool(spawner(), 1);
  begin(pool, "poison", "some text");  // kills the third worker
  pool.drain();
  EXPECT_THAT(verdict("poison").reason, HasSubstr("died"));
  begin(pool, "file", "some text");
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kClean) << describe(verdict("file"));
}

TEST_F(PoolsWhoseWorkersCannotStart, AreNotStartedAgainWhenAnotherWorkerAnswers) {
  failStarts(2, 4);
  WorkerPool pool(spawner(), 2);
  begin(pool, "held", "some text");
  ASSERT_TRUE(testsupport::waitFor([&] { return !begun().empty(); }));
  for (int i = 0; i < 8; ++i) {
    begin(pool, "behind" + std::to_string(i), "some text");
  }
  // The three failed starts lie behind this file, which fills the first worker's own queue.
  open();
  pool.drain();
  EXPECT_EQ(filesOfProcesses().size(), 1U);
}

TEST_F(Pools, AReportReadByAnotherThreadWakesTheWaitingPool) {
  const std::string system = writeSystem();
  for (int round = 0; round < 5; ++round) {
    {
      testsupport::HeldFile held(system);
      WorkerPool pool(spawner(), 1);
      begin(pool, "file", "some text");
      std::vector<std::thread> readers;
      for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
          while (spawner().signatureState().loading) {  // without a pause: reads the report before the pool
          }
        });
      }
      held.release();
      for (auto& reader : readers) {
        reader.join();
      }
      pool.drain();
    }
    EXPECT_EQ(verdict("file").outcome, Outcome::kClean);
    endSpawner();
  }
}

/// Sends, from within a worker, the verdict that a file is clean.
void forgeAnswer(std::uint64_t id) {
  constexpr int kChannelOfAWorker = 3;
  Channel channel{platform::Descriptor(kChannelOfAWorker)};
  ScanAnswer answer;
  answer.id = id;
  answer.verdict.outcome = Outcome::kClean;
  channel.send(encode(answer));
  channel.takeFd().release();
}

TEST_F(Pools, AnAnswerWithTheIdOfNoFileOrAnEarlierOneEndsTheWorker) {
  for (const std::uint64_t id : {0, 1}) {
    config().beforeFile = [id](const std::string& name) {
      if (name.ends_with("second")) {
        forgeAnswer(id);
      }
    };
    {
      WorkerPool pool(spawner(), 1);
      for (const char* name : {"first", "second", "third"}) {
        begin(pool, name, eicar());
        pool.drain();
      }
    }
    EXPECT_EQ(verdict("first").outcome, Outcome::kInfected) << id;
    EXPECT_EQ(verdict("second").outcome, Outcome::kError) << id << describe(verdict("second"));
    EXPECT_EQ(verdict("third").outcome, Outcome::kInfected) << id;
    endSpawner();
  }
}

TEST_F(Pools, ADescriptorIsClosedBeforeItsCallback) {
  WorkerPool pool(spawner(), 1);
  platform::Descriptor file = openFile(dir().write("file", "some text"));
  bool open = true;
  pool.scan(std::move(file), "file", {},
            [&, fd = file.get()](const Verdict&) { open = fcntl(fd, F_GETFD) >= 0; });
  pool.drain();
  EXPECT_FALSE(open);
}

TEST_F(Pools, EachDeathOfAWorkerMakesOnlyItsFileAnError) {
  config().beforeFile = [](const std::string& name) {
    if (name.ends_with("7")) {
      std::raise(SIGKILL);
    }
  };
  WorkerPool pool(spawner(), 2);
  for (int i = 0; i < 100; ++i) {
    begin(pool, "file" + std::to_string(i), "some text");
  }
  pool.drain();
  for (int i = 0; i < 100; ++i) {
    const auto expected = i % 10 == 7 ? Outcome::kError : Outcome::kClean;
    EXPECT_EQ(verdict("file" + std::to_string(i)).outcome, expected)
        << i << describe(verdict("file" + std::to_string(i)));
  }
}

TEST_F(Pools, AHungWorkerIsKilledAndItsFileIsAnError) {
  config().fileTimeout = std::chrono::milliseconds(300);
  config().beforeFile = [](const std::string& name) {
    while (name.find("hang") != std::string::npos) {
      pause();
    }
  };
  WorkerPool pool(spawner(), 1);
  begin(pool, "hang", "some text");
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("hang").outcome, Outcome::kError);
  EXPECT_THAT(verdict("hang").reason, HasSubstr("took longer"));
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected) << describe(verdict("behind"));
  EXPECT_TRUE(testsupport::waitFor([&] { return workerCount() <= 1; }));
}

TEST_F(PoolsThatRecord, AHungWorkerIsKilledWhileALaterWorkerIsIdle) {
  config().fileTimeout = std::chrono::milliseconds(300);
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 2);
  begin(pool, "held", kLarge);
  ASSERT_TRUE(testsupport::waitFor([&] { return begun().size() == 1; }));
  begin(pool, "other", "some text");
  EXPECT_TRUE(testsupport::waitFor([&] { return known("other") && known("held"); }));
  open();
  pool.drain();
  EXPECT_THAT(verdict("held").reason, HasSubstr("took longer"));
}

/// A worker begins each file whose name has "held" in it, and goes on once letGo() names the file.
class PoolsWithAHungFile : public PoolsThatRecord, public ::testing::WithParamInterface<bool> {
 protected:
  void holdEach() {
    config().beforeFile = [this](const std::string& path) {
      const std::string name = path.substr(path.rfind('/') + 1);
      note(name);
      while (name.find("held") != std::string::npos && access((path + "-go").c_str(), F_OK) != 0) {
        usleep(1000);
      }
    };
  }
  void letGo(const std::string& name) const { dir().write(name + "-go", ""); }
  bool waitBegun(const std::string& name) const {
    return testsupport::waitFor([&] {
      const auto names = namesBegun();
      return std::find(names.begin(), names.end(), name) != names.end();
    });
  }
  /// A file hangs from its beginning on. A later file of another worker begins half the limit later. True
  /// when the later file was let go, and scanned, between the first one's end and its own.
  bool endsBeforeALaterOne(std::chrono::milliseconds limit, const std::string& round) {
    config().fileTimeout = limit;
    const std::string before = "held-before" + round, hung = "held" + round, later = "held-later" + round;
    {
      WorkerPool pool(spawner(), 2);
      const bool inTheSecondWorker = GetParam();
      if (inTheSecondWorker) {
        begin(pool, before, kLarge);
        EXPECT_TRUE(waitBegun(before));
      }
      begin(pool, hung, kLarge);
      EXPECT_TRUE(waitBegun(hung));
      const auto begun = std::chrono::steady_clock::now();
      if (inTheSecondWorker) {
        letGo(before);
        EXPECT_TRUE(testsupport::waitFor([&] { return known(before); }));
      }
      testsupport::waitFor([&] { return std::chrono::steady_clock::now() - begun >= limit / 2; });
      begin(pool, later, kLarge);
      EXPECT_TRUE(testsupport::waitFor([&] { return known(hung); }));
      EXPECT_THAT(verdict(hung).reason, HasSubstr("took longer"));
      letGo(later);
      pool.drain();
    }
    endSpawner();
    return verdict(later).outcome == Outcome::kClean;
  }
};

// A busy machine may let the later file's limit pass: the next round has more time.
TEST_P(PoolsWithAHungFile, EndItAtItsOwnLimitAndNotAtThatOfALaterFile) {
  holdEach();
  int limit = 1000;
  while (!endsBeforeALaterOne(std::chrono::milliseconds(limit), std::to_string(limit))) {
    limit *= 2;
    ASSERT_LE(limit, 8000) << "both files ended together each time";
  }
}

INSTANTIATE_TEST_SUITE_P(In, PoolsWithAHungFile, ::testing::Bool(), [](const auto& row) {
  return std::string(row.param ? "TheSecondWorker" : "TheFirstWorker");
});

// The callback runs on the pool's thread, which goes on with the next queued file.
TEST_F(PoolsThatRecord, AFileBehindACancelIsNotBegun) {
  config().beforeFile = [this](const std::string& path) { note(path.substr(path.rfind('/') + 1)); };
  WorkerPool pool(spawner(), 1);
  begin(pool, "first", "some text");
  pool.drain();
  std::promise<void> queued;
  pool.scan(platform::Descriptor(), "none", {}, [&](const Verdict&) {
    queued.get_future().wait();
    pool.cancel(false);
  });
  begin(pool, "next", "some text");
  queued.set_value();
  pool.drain();
  EXPECT_EQ(verdict("next").reason, "cancelled");
  EXPECT_THAT(namesBegun(), ElementsAre("first"));
}

TEST_F(Pools, CancelSkipsQueuedFiles) {
  holdFilesNamed("slow");
  WorkerPool pool(spawner(), 1);
  begin(pool, "slow", kLarge);
  begin(pool, "second", "some text");
  begin(pool, "third", "some text");
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() == 1; }));
  pool.cancel(false);
  ASSERT_TRUE(testsupport::waitFor([&] { return known("second") && known("third"); }));
  EXPECT_EQ(verdict("second").outcome, Outcome::kSkipped);
  EXPECT_EQ(verdict("second").reason, "cancelled");
  EXPECT_FALSE(known("slow"));
  open();
  pool.drain();
  EXPECT_EQ(verdict("slow").outcome, Outcome::kClean) << describe(verdict("slow"));
  begin(pool, "late", "some text");
  pool.drain();
  EXPECT_EQ(verdict("late").reason, "cancelled");
}

TEST_F(Pools, CancelWithKillEndsRunningFiles) {
  config().beforeFile = [](const std::string&) {
    for (;;) {
      pause();
    }
  };
  WorkerPool pool(spawner(), 2);
  for (int i = 0; i < 6; ++i) {
    begin(pool, "file" + std::to_string(i), "some text");
  }
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() >= 1; }));
  pool.cancel(true);
  pool.drain();
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(verdict("file" + std::to_string(i)).outcome, Outcome::kSkipped);
  }
  EXPECT_TRUE(testsupport::waitFor([&] { return workerCount() == 0; }));
}

TEST_F(Pools, TheEndOfAPoolEndsItsWorkers) {
  {
    WorkerPool pool(spawner(), 2);
    begin(pool, "file", "some text");
    pool.drain();
    EXPECT_GE(workerCount(), 1);
  }
  EXPECT_TRUE(testsupport::waitFor([&] { return workerCount() == 0; }));
}

TEST_F(Pools, SeveralPoolsWorkAtOnce) {
  WorkerPool one(spawner(), 2);
  WorkerPool two(spawner(), 1);
  for (int i = 0; i < 50; ++i) {
    begin(one, "one" + std::to_string(i), eicar());
    begin(two, "two" + std::to_string(i), "some text");
  }
  one.drain();
  two.drain();
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(verdict("one" + std::to_string(i)).outcome, Outcome::kInfected);
    EXPECT_EQ(verdict("two" + std::to_string(i)).outcome, Outcome::kClean);
  }
}

TEST_F(Pools, AnExceptionFromACallbackIsDropped) {
  WorkerPool pool(spawner(), 1);
  const std::string path = dir().write("file", "some text");
  pool.scan(openFile(path), path, {}, [](const Verdict&) { throw std::runtime_error("from a callback"); });
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected);
}

TEST_F(Pools, DrainReturnsBehindTheCallbackOfTheLastFile) {
  WorkerPool pool(spawner(), 1);
  const std::string path = dir().write("file", "some text");
  std::atomic<bool> inCallback = false, open = false, drained = false;
  std::atomic<pid_t> drainer = 0;
  pool.scan(openFile(path), path, {}, [&](const Verdict&) {
    inCallback = true;
    EXPECT_TRUE(testsupport::waitFor([&] { return open.load(); }));
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return inCallback.load(); }));
  std::thread draining([&] {
    drainer = ::gettid();
    pool.drain();
    drained = true;
  });
  EXPECT_TRUE(
      testsupport::waitFor([&] { return drained || (drainer != 0 && testsupport::threadSleeps(drainer)); }));
  EXPECT_FALSE(drained);
  open = true;
  draining.join();
}

TEST_F(Pools, ADescriptorThatCannotBeScannedIsAnError) {
  WorkerPool pool(spawner(), 1);
  pool.scan(openFile(dir().path()), "folder", {}, keep("folder"));
  pool.scan(platform::Descriptor(), "none", {}, keep("none"));
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("folder").outcome, Outcome::kError);
  EXPECT_EQ(verdict("none").outcome, Outcome::kError);
  EXPECT_EQ(verdict("none").reason, "cannot be handed to a worker: Bad file descriptor");
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected);
}

TEST_F(Pools, ARequestTooLargeForAPacketIsAnErrorOfItsFileOnly) {
  WorkerPool pool(spawner(), 1);
  ScanOptions options;
  options.archiveFormats.assign(200, std::string(1000, 'x'));
  begin(pool, "large", "some text", options);
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("large").outcome, Outcome::kError) << describe(verdict("large"));
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected);
}

TEST_F(Pools, DescriptorsAreClosedOnceScanned) {
  WorkerPool pool(spawner(), 2);
  begin(pool, "first", "some text");
  pool.drain();
  const auto before = testing::openDescriptors();
  for (int i = 0; i < 200; ++i) {
    begin(pool, "file", "some text");
  }
  pool.drain();
  EXPECT_LE(testing::openDescriptors(), before + 2);  // a second worker may have come
}

TEST_F(Pools, WithoutSignaturesEveryFileIsAnErrorWithTheReason) {
  config().shippedSignatures = dir().at("none");
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_THAT(verdict("file").reason, HasSubstr(dir().at("none")));
}

TEST_F(Pools, AWorkerHasOnlyItsOwnDescriptors) {
  const platform::Descriptor secret = openFile(dir().write("secret", "not for workers"));
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  const auto workers = processesNamed("tav-worker");
  ASSERT_EQ(workers.size(), 1U);
  std::vector<std::string> targets;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(workers[0]) + "/fd")) {
    targets.push_back(std::filesystem::read_symlink(entry).string());
  }
  EXPECT_LE(targets.size(), 4U) << ::testing::PrintToString(targets);
  EXPECT_THAT(targets, ::testing::Each(::testing::Not(HasSubstr("secret"))));
}

}  // namespace
}  // namespace agent
