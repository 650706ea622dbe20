#include <gmock/gmock.h>

#include "WorkerFixture.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::makeZip;

class Pools : public testing::WorkerFixture {};

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

TEST_F(Pools, CountNoughtIsAsManyAsCores) {
  const WorkerPool pool(spawner(), 0);
  EXPECT_EQ(pool.size(), std::thread::hardware_concurrency());
}

TEST_F(Pools, AWorkersDeathCostsOneFileAnError) {
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

/// The names of the files that a worker began, in the order of their beginning.
class PoolsThatRecord : public Pools {
 protected:
  /// Notes each file, and kills the worker at each one named so, but only the first time: a second try of it
  /// would go well.
  void dieOnceAt(const std::string& poison) {
    config().beforeFile = [log = dir().at("begun"), died = dir().at("died"),
                           poison](const std::string& path) {
      const std::string name = path.substr(path.rfind('/') + 1);
      const int fd = open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
      const std::string line = name + "\n";
      [[maybe_unused]] const ssize_t written = write(fd, line.data(), line.size());
      close(fd);
      if (name.starts_with(poison) &&
          mkdir((died + name).c_str(), 0700) == 0) {  // fails where it has died before
        std::raise(SIGKILL);
      }
    };
  }
  std::string begun() const { return testsupport::readFile(dir().at("begun")); }
};

TEST_F(PoolsThatRecord, AFileUnderWhichAWorkerDiedIsNotTriedAgainAlsoWhenItStandsAlone) {
  dieOnceAt("poison");
  WorkerPool pool(spawner(), 1);
  begin(pool, "poison", "some text");
  pool.drain();
  EXPECT_EQ(verdict("poison").outcome, Outcome::kError) << describe(verdict("poison"));
  EXPECT_EQ(begun(), "poison\n");
  begin(pool, "next", eicar());
  pool.drain();
  EXPECT_EQ(verdict("next").outcome, Outcome::kInfected);
  EXPECT_EQ(begun(), "poison\nnext\n");
}

TEST_F(PoolsThatRecord, BehindAFileUnderWhichAWorkerDiedTheOthersAreBegunOnceAndInTheirOrder) {
  dieOnceAt("poison");
  WorkerPool pool(spawner(), 1);
  begin(pool, "poison", "some text");
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    begin(pool, name, "some text");
  }
  pool.drain();
  EXPECT_EQ(verdict("poison").outcome, Outcome::kError) << describe(verdict("poison"));
  EXPECT_EQ(begun(), "poison\na\nb\nc\nd\ne\n");
}

TEST_F(Pools, ManyDeathsCostAsManyFilesAndNoMore) {
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

TEST_F(Pools, AHungWorkerIsKilledAndItsFileAnError) {
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

TEST_F(Pools, WhatIsQueuedWhenCancelledIsSkipped) {
  const std::string gate = dir().at("gate");
  config().beforeFile = [gate](const std::string& name) {
    while (name.find("slow") != std::string::npos && access(gate.c_str(), F_OK) != 0) {
      usleep(1000);
    }
  };
  WorkerPool pool(spawner(), 1);
  begin(pool, "slow",
        std::string(3U << 20, 'x'));  // nothing waits behind a file of that size but in the queue
  begin(pool, "second", "some text");
  begin(pool, "third", "some text");
  ASSERT_TRUE(testsupport::waitFor([&] { return workerCount() == 1; }));
  pool.cancel(false);
  ASSERT_TRUE(testsupport::waitFor([&] { return known("second") && known("third"); }));
  EXPECT_EQ(verdict("second").outcome, Outcome::kSkipped);
  EXPECT_EQ(verdict("second").reason, "cancelled");
  EXPECT_FALSE(known("slow"));
  dir().write("gate", "");
  pool.drain();
  EXPECT_EQ(verdict("slow").outcome, Outcome::kClean) << describe(verdict("slow"));
  begin(pool, "late", "some text");
  pool.drain();
  EXPECT_EQ(verdict("late").reason, "cancelled");
}

TEST_F(Pools, CancelWithKillEndsWhatRuns) {
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

TEST_F(Pools, AThrowingCallbackHarmsNothing) {
  WorkerPool pool(spawner(), 1);
  const std::string path = dir().write("file", "some text");
  pool.scan(openFile(path), path, {}, [](const Verdict&) { throw std::runtime_error("from a callback"); });
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected);
}

TEST_F(Pools, ADescriptorThatCannotBeScannedIsAnError) {
  WorkerPool pool(spawner(), 1);
  pool.scan(openFile(dir().path()), "folder", {}, keep("folder"));
  pool.scan(-1, "none", {}, keep("none"));
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("folder").outcome, Outcome::kError);
  EXPECT_EQ(verdict("none").outcome, Outcome::kError);
  EXPECT_EQ(verdict("none").reason, "cannot be handed to a worker: Bad file descriptor");
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected);
}

TEST_F(Pools, ARequestTooLargeForAPacketIsAnErrorOfItsOwn) {
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
  const auto before = openDescriptors();
  for (int i = 0; i < 200; ++i) {
    begin(pool, "file", "some text");
  }
  pool.drain();
  EXPECT_LE(openDescriptors(), before + 2);  // a second worker may have come
}

TEST_F(Pools, WithoutSignaturesEveryFileIsAnErrorWithTheReason) {
  config().shippedSignatures = dir().at("none");
  WorkerPool pool(spawner(), 1);
  begin(pool, "file", "some text");
  pool.drain();
  EXPECT_EQ(verdict("file").outcome, Outcome::kError);
  EXPECT_THAT(verdict("file").reason, HasSubstr(dir().at("none")));
}

TEST_F(Pools, AWorkerHasNoDescriptorsButItsOwn) {
  const int secret = openFile(dir().write("secret", "not for workers"));
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
  close(secret);
  EXPECT_LE(targets.size(), 4U) << ::testing::PrintToString(targets);
  EXPECT_THAT(targets, ::testing::Each(::testing::Not(HasSubstr("secret"))));
}

}  // namespace
}  // namespace agent
