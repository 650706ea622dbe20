// The course of a scan: beginning, counters, cache, notifications, end.

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "ScanTaskTest.h"
#include "engine/Digest.h"
#include "json/Values.h"
#include "support/ArchiveMaker.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace agent {
namespace {

using enum json::TaskState;
using enum json::HandleResult;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;
using testsupport::waitFor;

constexpr const char* kMd5OfEicar = "44d88612fea8a8f36de82e1278abb02f";
constexpr std::chrono::seconds kLimit{20};

using ScanCourse = ScanTaskTest;

// The beginning.

TEST_F(ScanCourse, AScanThatIsStoppedBeforeItBeganIsNotMade) {
  owner = std::make_shared<TaskListener>();
  ScanTask task({*store, spawner, {}}, "token", custom({dir.path()}), caller, owner);
  EXPECT_TRUE(task.waitPrepared(std::chrono::milliseconds(1)));  // not known yet
  EXPECT_TRUE(task.stop("no longer wanted"));
  task.start({[this] { ++released; }, [this] { ++delivered; }});
  EXPECT_TRUE(task.waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kNotCreated));
  EXPECT_EQ("no longer wanted", owner->detail());
  EXPECT_EQ("no longer wanted", task.waitPrepared(kLimit).error());
  EXPECT_EQ(1, released);
  EXPECT_EQ(1, delivered);
}

TEST_F(ScanCourse, WithoutSignaturesAScanIsNotMade) {
  Spawner::Config without = config(dir);
  without.shippedSignatures = dir.at("none");
  Spawner none(without);
  scanner = &none;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.write("file", "clean")}));
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kNotCreated));
  EXPECT_THAT(owner->detail(), HasSubstr("no signatures are loaded"));
}

/// The spawner's process, held up; it goes on with the object's end.
class StoppedSpawner {
 public:
  explicit StoppedSpawner(pid_t pid) : pid_(pid) { ::kill(pid_, SIGSTOP); }
  ~StoppedSpawner() { ::kill(pid_, SIGCONT); }
  StoppedSpawner(const StoppedSpawner&) = delete;
  StoppedSpawner& operator=(const StoppedSpawner&) = delete;

 private:
  const pid_t pid_;
};

std::set<pid_t> ownChildren() {
  std::istringstream text(testsupport::readFile("/proc/self/task/" + std::to_string(getpid()) + "/children"));
  return {std::istream_iterator<pid_t>(text), {}};
}

std::set<pid_t> ownThreads() {
  std::set<pid_t> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.insert(std::stoi(entry.path().filename()));
  }
  return threads;
}

TEST_F(ScanCourse, AStopEndsTheWaitForSignaturesThatLoad) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    const std::set<pid_t> before = ownChildren();
    Spawner slow(config(dir));
    std::set<pid_t> now = ownChildren();
    std::erase_if(now, [&](pid_t pid) { return before.count(pid) != 0; });
    ASSERT_EQ(1U, now.size());
    const StoppedSpawner stopped(*now.begin());
    if (!slow.signatureState().loading) {
      continue;  // it was quicker
    }
    scanner = &slow;
    const std::set<pid_t> threads = ownThreads();
    const std::unique_ptr<ScanTask> task = begin(custom({dir.write("file", "clean")}));
    std::set<pid_t> begun = ownThreads();
    std::erase_if(begun, [&](pid_t thread) { return threads.count(thread) != 0; });
    ASSERT_EQ(1U, begun.size());
    EXPECT_TRUE(testsupport::waitFor([&] { return testsupport::threadSleeps(*begun.begin()); }));
    EXPECT_TRUE(task->stop("no longer wanted"));
    EXPECT_TRUE(task->waitOver(std::chrono::seconds(10)));
    EXPECT_THAT(owner->states(), ElementsAre(kNotCreated));
    EXPECT_EQ("no longer wanted", owner->detail());
    return;
  }
  ADD_FAILURE() << "the signatures were loaded at once each time";
}

struct ItemRow {
  const char* name;
  const char* item;  // below the test's folder, or absolute
  const char* why;
};
class ItemThatIsNeverScanned : public ScanCourse, public ::testing::WithParamInterface<ItemRow> {};

TEST_P(ItemThatIsNeverScanned, StartsNoScanWhateverTheOthersAre) {
  ownFolders = {dir.at("own")};
  dir.write("own/file", "x");
  ASSERT_EQ(0, mkfifo(dir.at("fifo").c_str(), 0600));
  const std::string item = GetParam().item;
  const std::unique_ptr<ScanTask> task =
      begin(custom({dir.write("file", testsupport::eicar()), item.front() == '/' ? item : dir.at(item)}));
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kNotCreated));
  EXPECT_THAT(owner->detail(), HasSubstr(GetParam().why));
  EXPECT_THAT(owner->risks(), IsEmpty());
  EXPECT_EQ(1, released);
  EXPECT_EQ(1, delivered);
}

INSTANTIATE_TEST_SUITE_P(Items, ItemThatIsNeverScanned,
                         ::testing::Values(ItemRow{"Absent", "ab\nsent", "ab\\nsent: No such file"},
                                           ItemRow{"Fifo", "fifo", "fifo: fifo"},
                                           ItemRow{"PseudoFileSystem", "/proc", "/proc: pseudo"},
                                           ItemRow{"OwnFolder", "own/file", "kept by the agent itself"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(ScanCourse, AScanThatBreaksOffIsAbortedWithTheReason) {
  attributesFail = true;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.write("file", "clean")}));
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kAborted));
  EXPECT_EQ("internal error: no attributes", owner->detail());
  EXPECT_THAT(owner->percents(), Not(Contains(100)));
}

TEST_F(ScanCourse, TheAgentsOwnFoldersAreNotEnteredFromAbove) {
  ownFolders = {dir.at("d/own")};
  dir.write("d/own/file", testsupport::eicar());
  const std::string other = dir.write("d/other", testsupport::eicar());
  scan({dir.at("d")});
  EXPECT_THAT(owner->risks(), ElementsAre(other));
}

TEST_F(ScanCourse, ItsAttributesNameTheKindTheWorkersAndTheSignatures) {
  ScanPlan plan = custom({dir.write("file", "clean")});
  plan.parallelism = 3;
  plan.scanType = json::toScanType(plan.mode, true);
  scan(plan);
  EXPECT_EQ(3, owner->attributes()["parallelism"].asInt());
  EXPECT_EQ(plan.scanType, owner->attributes()["scan_type"].asInt());
  EXPECT_EQ(spawner.signatureState().version, owner->attributes()["signature_version"].asString());
  EXPECT_EQ(1, released);
  EXPECT_EQ(1, delivered);
}

TEST_F(ScanCourse, OnANetworkFileSystemWhatWasAskedForIsScannedAndAStageIsNot) {
  ScanPlan plan = programsOf(json::ScanMode::kFast);
  plan.memoryCheck = false;
  scan(plan);
  EXPECT_EQ(0, owner->counted("checked_item_count"));
  EXPECT_NE(0, owner->counted("total_item_count"));
  const std::string path = dir.write("file", testsupport::eicar());
  ScanPlan asked = custom({path});
  asked.networkFileSystems = false;
  scan(asked);
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

// The stages.

TEST_F(ScanCourse, RootEncountersTheProgramsOfEverybody) {
  const std::string path = program("theirs");
  const auto process = run(path, 60123, 60124);
  scan(programsOf(json::ScanMode::kFast));
  EXPECT_THAT(owner->risks(), Contains(path));
  EXPECT_THAT(owner->processes(), Contains(process->pid()));
}

TEST_F(ScanCourse, ProcessesThatRunADetectionAreLeftOutWithoutMemoryCheck) {
  const std::string path = program("running");
  const auto process = run(path, 60123, 60124);
  ScanPlan plan = custom({path});
  plan.handling = json::Handling::kAutomatic;
  plan.endProcesses = true;
  scan(plan);
  EXPECT_THAT(owner->processes(), IsEmpty());
  plan.memoryCheck = true;
  plan.endProcesses = false;
  scan(plan);
  EXPECT_THAT(owner->processes(), ElementsAre(process->pid()));
  EXPECT_EQ(kReportedOnly, owner->handled(process->pid()));
  EXPECT_TRUE(process->running());
  plan.endProcesses = true;
  scan(plan);
  EXPECT_EQ(kProcessEnded, owner->handled(process->pid()));
  EXPECT_EQ(128 + SIGKILL, process->wait());
  EXPECT_THAT(testsupport::readFile(dir.at("state/audit.log")),
              AllOf(HasSubstr("end process"), HasSubstr(std::to_string(process->pid()) + " " + path)));
}

TEST_F(ScanCourse, EachStageIsReportedWithItsBeginAndItsEnd) {
  const ScanPlan plan = programsOf(json::ScanMode::kFast);
  const std::unique_ptr<ScanTask> task = begin(plan);
  EXPECT_TRUE(task->waitOver(std::chrono::minutes(1)));
  EXPECT_THAT(owner->stages(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  EXPECT_EQ(99, task->percent());  // the shares of all stages are behind it
}

TEST_F(ScanCourse, EachStageOfAFastScanHasTheSameShareOfTheWork) {
  std::atomic<ScanTask*> running{nullptr};
  onStage = [&](int stage) {
    EXPECT_TRUE(waitFor([&] { return running.load() != nullptr; }));
    if (stage % 2 == 0) {
      EXPECT_NEAR(stage * 10, running.load()->percent(), 1) << stage;  // five stages, each with two numbers
    }
  };
  const std::unique_ptr<ScanTask> task = begin(programsOf(json::ScanMode::kFast));
  running = task.get();
  EXPECT_TRUE(task->waitOver(std::chrono::minutes(1)));
}

TEST_F(ScanCourse, TheLastStageOfAFullScanHasNineTenthsOfTheWork) {
  const ScanPlan plan = programsOf(json::ScanMode::kFull);
  std::atomic<ScanTask*> running{nullptr};
  int atLast = -1;
  onStage = [&](int stage) {
    if (stage == 8) {
      EXPECT_TRUE(waitFor([&] { return running.load() != nullptr; }));
      atLast = running.load()->percent();
    }
  };
  const std::unique_ptr<ScanTask> task = begin(plan);
  running = task.get();
  EXPECT_TRUE(task->waitOver(std::chrono::minutes(1)));
  EXPECT_GE(atLast, 7);
  EXPECT_LE(atLast, 10);
  EXPECT_EQ(99, task->percent());
}

TEST_F(ScanCourse, BehindAStopNoStageEndsAndNoneBegins) {
  std::atomic<ScanTask*> running{nullptr};
  onStage = [&](int) {
    EXPECT_TRUE(waitFor([&] { return running.load() != nullptr; }));
    running.load()->stop("enough");
    const std::size_t toldBefore = owner->percents().size();
    waitForManyTicks();
    EXPECT_LE(owner->percents().size(), toldBefore + 1);  // one may have been on its way
  };
  const std::unique_ptr<ScanTask> task = begin(programsOf(json::ScanMode::kFast));
  running = task.get();
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->stages(), ElementsAre(0));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kAborted));
  EXPECT_EQ("enough", owner->detail());
  EXPECT_THAT(owner->percents(), Not(Contains(100)));
}

TEST_F(ScanCourse, TheEndOfAStageIsReportedBehindWhatItFound) {
  const std::string path = program("running");
  const auto process = run(path, 60123, 60124);
  std::vector<std::string> foundByThen;
  onStage = [&](int stage) {
    if (stage == 5) {
      foundByThen = owner->risks();
    }
  };
  scan(programsOf(json::ScanMode::kFast));
  EXPECT_THAT(foundByThen, Contains(path));
}

// The counters.

TEST_F(ScanCourse, EveryEntryIsEncounteredAndEndsOnce) {
  dir.write("d/clean", "clean");
  dir.write("d/infected", testsupport::eicar());
  dir.write("d/deadly", "its worker dies");
  dir.write("d/large", std::string(3 << 20, 'x'));
  list(json::Region::kTrust, dir.write("d/trusted", testsupport::eicar()));
  ASSERT_EQ(0, symlink("clean", dir.at("d/link").c_str()));
  dir.write("d/archive", testsupport::makeZip({{.name = "member", .content = std::string(2000, 'x')}}));
  ScanPlan plan = custom({dir.at("d")});
  plan.skipBytes = 2 << 20;
  plan.options.maxArchiveBytes = 100;
  for (int known = 0; known < 2; ++known) {  // the second time from the cache
    scan(plan);
    EXPECT_EQ(7, owner->counted("total_item_count"));
    EXPECT_EQ(2, owner->counted("checked_item_count"));
    EXPECT_EQ(1, owner->counted("checkout_risk_count"));
    EXPECT_EQ(1, owner->counted("failed_item_count"));
    EXPECT_EQ(1, owner->counted("trusted_risk_count"));
    EXPECT_THAT(owner->detail(), HasSubstr(std::string("7 entries: 1 clean") +
                                           (known > 0 ? " (1 known from the scan cache)" : "") +
                                           ", 1 infected, 1 errors, 4 skipped"));
    ASSERT_TRUE(waitFor([&] {
      scan(plan);
      return store->cache().count() == 1;
    }));
  }
  EXPECT_EQ(100, owner->percents().back());
}

TEST_F(ScanCourse, CleanFilesAreCountedAlsoInAScanWithoutTheCache) {
  dir.write("d/one", "clean");
  dir.write("d/two", "clean too");
  dir.write("d/infected", testsupport::eicar());
  ScanPlan plan = custom({dir.at("d")});
  plan.useCache = plan.readCache = false;
  scan(plan);
  EXPECT_EQ(3, owner->counted("checked_item_count"));
  EXPECT_THAT(owner->detail(), HasSubstr("3 entries: 2 clean, 1 infected, 0 errors, 0 skipped"));
}

TEST_F(ScanCourse, AFileForWhichTheAgentHasNoDescriptorLeftIsAnError) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  ScanPlan plan = custom({});
  plan.useCache = plan.readCache = false;
  Counters counters;
  TaskListener events;
  TaskControl control;
  ASSERT_TRUE(spawner.waitLoaded(kLimit).loaded);
  FilePipeline files({plan, caller, *store, counters, events, control}, spawner, "1");
  const auto open = [this](const char* name) {
    return Walker::open(dir.write(name, testsupport::eicar())).value();
  };
  files.file(open("first"));
  files.waitUntilDone();  // its worker runs by now
  EncounteredFile second = open("second");
  rlimit normal{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &normal));
  const rlimit none{0, normal.rlim_max};
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  files.file(std::move(second));
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &normal));
  files.waitUntilDone();
  EXPECT_THAT(events.risks(), ElementsAre(dir.at("first")));
  EXPECT_EQ(2, counters.overview("").total_item_count);
  EXPECT_EQ(1, counters.overview("").failed_item_count);
}

TEST_F(ScanCourse, ProgressIsReportedWhileAFileIsScannedAndIsNotAHundredBeforeTheEnd) {
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({dir.write("file", "clean")}));
  ASSERT_TRUE(waitFor([&] { return task->percent() == 99; }));
  ASSERT_TRUE(waitFor([&] { return !owner->percents().empty() && owner->percents().back() == 99; }));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted));
  EXPECT_EQ(0, released);
  release();
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_EQ(100, owner->percents().back());
  EXPECT_EQ(1, owner->counted("checked_item_count"));
}

TEST_F(ScanCourse, APauseIsReportedBehindAnOverviewAndThenNothingUntilTheResume) {
  pausedAtFirst = true;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.write("file", "clean")}));
  ASSERT_TRUE(waitFor([&] { return owner->states().size() == 3; }));
  EXPECT_THAT(owner->percents(), ElementsAre(0));
  pausedAtFirst = false;
  waitForManyTicks();
  EXPECT_THAT(owner->percents(), ElementsAre(0));
  EXPECT_TRUE(task->resume());
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kPaused, kResumed, kFinished));
}

TEST_F(ScanCourse, TheTimeLimitEndsAScanWhateverItsFileDoes) {
  hold();
  ScanPlan plan = custom({dir.write("file", "clean")});
  plan.limit = std::chrono::seconds(1);
  const std::unique_ptr<ScanTask> task = begin(plan);
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kAborted));
  EXPECT_THAT(owner->detail(), HasSubstr("the time limit of 1 seconds is over"));
  EXPECT_GE(owner->counted("cost_time"), 1);
}

TEST_F(ScanCourse, DetectionsThatWaitForTheirOwnerAreFew) {
  constexpr long kFiles = 80;
  for (int i = 0; i < kFiles; ++i) {
    dir.write("d/" + std::to_string(i), testsupport::eicar());
  }
  held = true;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("d")}));
  ASSERT_TRUE(waitFor([&] { return owner->waiting.load(); }));
  const auto filesBegun = [&] {
    const std::string names = testsupport::readFile(dir.at("begun"));
    return std::count(names.begin(), names.end(), '\n');
  };
  EXPECT_TRUE(waitFor([&] { return filesBegun() >= 32; }));
  EXPECT_FALSE(waitFor([&] { return filesBegun() > 60; }, std::chrono::milliseconds(300)));
  owner->held = false;
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_EQ(kFiles, static_cast<long>(owner->risks().size()));
}

// Hard links.

TEST_F(ScanCourse, AFileWithSeveralNamesIsScannedOnceAndEachNameIsAnEntry) {
  const std::string first = dir.write("d/first", "clean");
  for (const char* name : {"d/second", "d/third"}) {
    ASSERT_EQ(0, link(first.c_str(), dir.at(name).c_str()));
  }
  for (const bool cached : {false, true}) {
    scan({dir.at("d")});
    EXPECT_EQ(3, owner->counted("total_item_count"));
    EXPECT_EQ(1, owner->counted("checked_item_count"));
    EXPECT_THAT(owner->detail(), HasSubstr("2 skipped (2 another name of a clean file)"));
    EXPECT_EQ(cached, owner->detail().find("1 clean (1 known") != std::string::npos) << owner->detail();
    if (!cached) {
      EXPECT_EQ(1, begun(first) + begun(dir.at("d/second")) + begun(dir.at("d/third")));
      ASSERT_TRUE(waitFor([&] {
        scan({dir.at("d")});
        return store->cache().count() == 1;
      }));
    }
  }
}

TEST_F(ScanCourse, EachNameOfADetectedFileIsDetectedAndHandled) {
  std::vector<std::string> names{dir.write("d/0", testsupport::eicar())};
  for (int i = 1; i < 100; ++i) {  // more than wait for the first one at a time
    names.push_back(dir.at("d/" + std::to_string(i)));
    ASSERT_EQ(0, link(names[0].c_str(), names.back().c_str()));
  }
  ScanPlan plan = custom({dir.at("d")});
  scan(plan);
  EXPECT_THAT(owner->risks(), UnorderedElementsAreArray(names));
  EXPECT_EQ(100, owner->counted("checkout_risk_count"));
  plan.handling = json::Handling::kAutomatic;
  plan.action = json::HandleAction::kQuarantine;
  scan(plan);
  for (const std::string& name : names) {
    EXPECT_EQ(kQuarantined, owner->handled(name)) << owner->handledHow(name);
    EXPECT_FALSE(std::filesystem::exists(name));
  }
}

TEST_F(ScanCourse, WhenTheScanOfOneNameFailsEachNameIsAnError) {
  const std::string first = dir.write("d/one-deadly", "its worker dies");
  ASSERT_EQ(0, link(first.c_str(), dir.at("d/two-deadly").c_str()));
  scan({dir.at("d")});
  EXPECT_EQ(2, owner->counted("failed_item_count"));
  EXPECT_EQ(1, begun(first) + begun(dir.at("d/two-deadly")));
}

TEST_F(ScanCourse, ATrustedNameAndARejectedNameAreNoResultForTheOthers) {
  const std::string trusted = dir.write("d/trusted", testsupport::eicar());
  const std::string other = dir.at("d/other");
  ASSERT_EQ(0, link(trusted.c_str(), other.c_str()));
  list(json::Region::kTrust, trusted);
  const std::string rejected = dir.write("e/rejected", "clean");
  ASSERT_EQ(0, link(rejected.c_str(), dir.at("e/other").c_str()));
  list(json::Region::kReject, rejected);
  scan({dir.at("d"), dir.at("e")});
  EXPECT_THAT(owner->risks(), UnorderedElementsAre(other, rejected));
  EXPECT_EQ(3, owner->counted("checked_item_count"));
}

// The cache.

TEST_F(ScanCourse, AFileThatIsKnownCleanIsNotReadAgainUnlessTheScanIsForced) {
  const std::string path = dir.write("file", "clean");
  ASSERT_TRUE(becomesKnownClean(path));
  const long before = begun(path);
  scan({path});
  EXPECT_EQ(before, begun(path));
  list(json::Region::kTrust, "/some/other/path");  // no list of hashes is concerned
  scan({path});
  EXPECT_EQ(before, begun(path));
  ScanPlan forced = custom({path});
  forced.readCache = false;
  scan(forced);
  EXPECT_EQ(before + 1, begun(path));
}

TEST_F(ScanCourse, WithoutTheCacheNothingIsRemembered) {
  const std::string path = dir.write("unknown", "clean");
  ASSERT_TRUE(becomesKnownClean(dir.write("file", "clean")));  // by then the first one is old enough
  ScanPlan plan = custom({path});
  plan.useCache = plan.readCache = false;
  scan(plan);
  EXPECT_EQ(1, store->cache().count());
}

TEST_F(ScanCourse, AFileThatChangedJustNowIsNotRemembered) {
  EXPECT_TRUE(waitFor([&] {
    store->cache().clear();
    scan({dir.write("file", "clean")});
    return store->cache().count() == 0;
  }));
}

TEST_F(ScanCourse, AFileThatChangesDuringItsScanIsNotRemembered) {
  const std::string path = dir.write("file", "clean");
  ASSERT_TRUE(becomesKnownClean(path));
  store->cache().clear();
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({path}));
  ASSERT_TRUE(waitFor([&] { return task->percent() == 99; }));  // its status was read
  dir.write("file", "clean too");
  release();
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_EQ(0, store->cache().count());
}

TEST_F(ScanCourse, WhatIsKnownCleanIsWrittenByTheEndOfTheScan) {
  ASSERT_TRUE(becomesKnownClean(dir.write("file", "clean")));
  std::filesystem::copy(dir.at("state"), dir.at("copy"), std::filesystem::copy_options::recursive);
  EXPECT_EQ(1, Store::open(dir.at("copy"))->cache().count());
}

TEST_F(ScanCourse, CleanInOneWayOfScanningIsNotKnownCleanInAnother) {
  const std::string path = dir.write("file", testsupport::eicar());
  ScanPlan plan = custom({path});
  plan.options.enabledEngines = 0;
  plan.cacheKey = "no engine";
  ASSERT_TRUE(waitFor([&] {
    scan(plan);
    return store->cache().count() == 1;
  }));
  EXPECT_THAT(owner->risks(), IsEmpty());
  plan.options = {};
  plan.cacheKey = "every engine";
  scan(plan);
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

TEST_F(ScanCourse, CleanForOldSignaturesIsNotKnownCleanForNewOnes) {
  const std::string path = dir.write("file", "no database knows this: 5c0ffee5");
  ASSERT_TRUE(becomesKnownClean(path));
  dir.write("system/new.ndb", "TAV.Test.Later:0:*:3563306666656535\n");
  ASSERT_TRUE(spawner.reload());
  scan({path});
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

// The lists.

TEST_F(ScanCourse, ARejectedFileIsADetectionAlsoWhenItWouldBeLeftOutOrCannotBeScanned) {
  const std::string large = dir.write("d/large", std::string(3 << 20, 'x'));
  const std::string deadly = dir.write("d/deadly", "its worker dies");
  const std::string archive =
      dir.write("d/archive", testsupport::makeZip({{.name = "member", .content = std::string(2000, 'x')}}));
  for (const std::string& path : {large, deadly, archive}) {
    list(json::Region::kReject, path);
  }
  ScanPlan plan = custom({dir.at("d")});
  plan.skipBytes = 2 << 20;
  plan.options.maxArchiveBytes = 100;
  scan(plan);
  EXPECT_THAT(owner->risks(), ::testing::UnorderedElementsAre(large, deadly, archive));
}

TEST_F(ScanCourse, ARejectedHashIsADetectionAlsoOfAFileThatCannotBeLookedInto) {
  const std::string archive = testsupport::makeZip({{.name = "member", .content = std::string(2000, 'x')}});
  Digest md5(Digest::Kind::kMd5);
  md5.add(archive.data(), archive.size());
  const std::string path = dir.write("archive", archive);
  ScanPlan plan = custom({path});
  plan.options.maxArchiveBytes = 100;
  scan(plan);
  EXPECT_THAT(owner->detail(), HasSubstr("1 skipped"));
  list(json::Region::kReject, md5.hex(), json::RegionItemType::kMd5);
  scan(plan);
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

TEST_F(ScanCourse, ARejectedFileThatAStopLeftUnscannedIsNoDetection) {
  const std::string path = dir.write("file", "clean");
  list(json::Region::kReject, path);
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({path}));
  ASSERT_TRUE(waitFor([&] { return begun(path) == 1; }));
  EXPECT_TRUE(task->stop("enough"));
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kAborted));
  EXPECT_THAT(owner->risks(), IsEmpty());
}

TEST_F(ScanCourse, ATrustedHashIsReportedAsTrustedAndARejectedPathComesBeforeIt) {
  const std::string path = dir.write("file", testsupport::eicar());
  list(json::Region::kTrust, kMd5OfEicar, json::RegionItemType::kMd5);
  scan({path});
  EXPECT_THAT(owner->risks(), IsEmpty());
  EXPECT_EQ(kTrusted, owner->handled(path));
  EXPECT_EQ(1, owner->counted("trusted_risk_count"));
  list(json::Region::kReject, path);
  scan({path});
  EXPECT_THAT(owner->risks(), ElementsAre(path));
  EXPECT_EQ(kReportedOnly, owner->handled(path));
  EXPECT_EQ("Rejected.ByAdministrator", owner->lastName());
}

}  // namespace
}  // namespace agent
