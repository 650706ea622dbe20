#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "ScanTaskTest.h"
#include "support/Samples.h"
#include "support/Wait.h"
#include "task/FileSystems.h"

namespace agent {
namespace {

using enum json::TaskState;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::waitFor;

TEST_F(ScanTaskTest, APauseWhileTheLastDetectionWaitsIsReportedAndTheEndWaitsForTheResume) {
  const std::string file = dir.write("eicar.com", testsupport::eicar());
  held = true;
  const std::unique_ptr<ScanTask> task = begin(custom({file}));
  ASSERT_TRUE(waitFor([&] { return owner->waiting.load(); }));  // the walk of one file is over
  EXPECT_TRUE(task->pause());
  ASSERT_TRUE(waitFor([&] { return owner->states().size() == 3; }));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kPaused));
  EXPECT_THAT(owner->risks(), IsEmpty());
  owner->held = false;
  EXPECT_TRUE(task->paused());
  EXPECT_TRUE(task->resume());
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kPaused, kResumed, kFinished));
  EXPECT_THAT(owner->risks(), ElementsAre(file));
  EXPECT_FALSE(task->pause());
}

TEST_F(ScanTaskTest, WhenAScanIsOverItsWorkersEndThoughNoOtherScanBegins) {
  const std::string file = dir.write("file", "clean");
  const auto foldersOfWorkers = [this] {
    std::ptrdiff_t count = 0;
    for (const std::string& parent : spawner.temporaryFolders()) {
      count += std::distance(std::filesystem::directory_iterator(parent), {});
    }
    return count;
  };
  for (const bool stopped : {false, true}) {
    hold();
    ScanPlan plan = custom({file});
    plan.readCache = false;  // which may know the file by the second scan
    const std::unique_ptr<ScanTask> task = begin(plan);
    ASSERT_TRUE(waitFor([&] { return begun(file) == (stopped ? 2 : 1); }));
    EXPECT_LT(0, foldersOfWorkers());
    if (stopped) {
      EXPECT_TRUE(task->stop("enough"));
    }
    release();
    EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
    EXPECT_TRUE(waitFor([&] { return foldersOfWorkers() == 0; })) << "stopped: " << stopped;
  }
}

TEST_F(ScanTaskTest, ATaskThatIsPausedAtItsEndCanBeStopped) {
  held = true;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.write("eicar.com", testsupport::eicar())}));
  ASSERT_TRUE(waitFor([&] { return owner->waiting.load(); }));
  EXPECT_TRUE(task->pause());
  owner->held = false;
  ASSERT_TRUE(waitFor([&] { return owner->states().size() == 3; }));
  EXPECT_TRUE(task->stop("enough"));
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kPaused, kAborted));
}

/// The lists under the name of a link to a file, and under the name of the file.
struct RegionRow {
  const char* name;
  std::optional<json::Region> asNamed, whereItIs;  ///< nullopt: not listed
  bool infected, detected;
};
class RegionsThroughALink : public ScanTaskTest, public ::testing::WithParamInterface<RegionRow> {};

TEST_P(RegionsThroughALink, HoldUnderBothNamesAndRejectedUnderOneIsRejected) {
  dir.write("real/file", GetParam().infected ? testsupport::eicar() : "clean");
  ASSERT_EQ(0, symlink("real", dir.at("link").c_str()));
  if (GetParam().asNamed) {
    list(*GetParam().asNamed, dir.at("link/file"));
  }
  if (GetParam().whereItIs) {
    list(*GetParam().whereItIs, dir.at("real/file"));
  }
  scan({dir.at("link")});
  EXPECT_EQ(GetParam().detected ? std::vector{dir.at("link/file")} : std::vector<std::string>{},
            owner->risks());
  EXPECT_EQ(GetParam().infected && !GetParam().detected ? 1 : 0, owner->counted("trusted_risk_count"));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RegionsThroughALink,
    ::testing::Values(RegionRow{"NotListed", std::nullopt, std::nullopt, true, true},
                      RegionRow{"TrustedWhereItIs", std::nullopt, json::Region::kTrust, true, false},
                      RegionRow{"TrustedAsNamed", json::Region::kTrust, std::nullopt, true, false},
                      RegionRow{"RejectedWhereItIs", std::nullopt, json::Region::kReject, false, true},
                      RegionRow{"RejectedAsNamed", json::Region::kReject, std::nullopt, false, true},
                      RegionRow{"TrustedAsNamedRejectedWhereItIs", json::Region::kTrust,
                                json::Region::kReject, false, true},
                      RegionRow{"RejectedAsNamedTrustedWhereItIs", json::Region::kReject,
                                json::Region::kTrust, false, true}),
    [](const auto& row) { return std::string(row.param.name); });

/// Writes through a mapping that is shared with the file.
void overwrite(const std::string& path, const std::string& content) {
  const platform::Descriptor fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
  void* memory = mmap(nullptr, content.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  ASSERT_NE(MAP_FAILED, memory);
  content.copy(static_cast<char*>(memory), content.size());
  munmap(memory, content.size());
}

TEST_F(ScanTaskTest, AFileInMemoryIsNeverTakenFromTheCacheForItCanChangeAndKeepItsTimes) {
  const testsupport::TempDir memory("/dev/shm");
  const platform::Descriptor folder(open(memory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(fileSystemOf(folder.get()).inMemory);
  const std::string sample = testsupport::eicar();
  const std::string inMemory = memory.write("file", std::string(sample.size(), 'x'));
  const std::string onDisk = dir.write("file", "clean");
  ASSERT_TRUE(waitFor([&] {  // a file that changed a moment ago is not remembered yet
    scan({inMemory, onDisk});
    return store->cache().count() > 0;
  }));
  scan({inMemory, onDisk});
  EXPECT_EQ(1, store->cache().count());
  overwrite(inMemory, sample);
  scan({inMemory, onDisk});
  EXPECT_THAT(owner->risks(), ElementsAre(inMemory));
}

TEST_F(ScanTaskTest, AFileThatIsKnownCleanIsScannedAgainWhenItsHashJoinsAListOfHashes) {
  const std::string path = dir.write("file", "abc");
  list(json::Region::kReject, "0123456789abcdef0123456789abcdef", json::RegionItemType::kMd5);
  ASSERT_TRUE(becomesKnownClean(path));
  EXPECT_THAT(owner->risks(), IsEmpty());
  list(json::Region::kReject, "900150983cd24fb0d6963f7d28e17f72", json::RegionItemType::kMd5);
  scan({path});
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

TEST_F(ScanTaskTest, AFileThatIsKnownCleanIsADetectionWhenItsPathIsRejected) {
  const std::string path = dir.write("file", "abc");
  ASSERT_TRUE(becomesKnownClean(path));
  EXPECT_THAT(owner->risks(), IsEmpty());
  list(json::Region::kReject, path);
  scan({path});
  EXPECT_THAT(owner->risks(), ElementsAre(path));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", owner->lastMd5());
}

TEST_F(ScanTaskTest, AFileOnDiskThatIsChangedThroughAMappingIsScannedAgain) {
  const std::string sample = testsupport::eicar();
  const std::string path = dir.write("file", std::string(sample.size(), 'x'));
  ASSERT_TRUE(becomesKnownClean(path));
  EXPECT_THAT(owner->risks(), IsEmpty());
  overwrite(path, sample);
  scan({path});
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

}  // namespace
}  // namespace agent
