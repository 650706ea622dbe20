// A whole scan in this process: real store, real workers; only who hears of it is played.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "json/CppJson.h"
#include "support/Samples.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/FileSystems.h"
#include "task/ScanTask.h"

namespace agent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::waitFor;

/// Writes down what a task tells; detections can be held up on their way.
class Owner final : public TaskEvents {
 public:
  void state(State state, const std::string&) override {
    const std::lock_guard guard(mutex_);
    states_.push_back(state);
  }
  void progress(int) override {}
  void overview(const Json::Value& overview) override {
    const std::lock_guard guard(mutex_);
    overview_ = overview;
  }
  void stage(int, const std::string&) override {}
  void attributes(const Json::Value&) override {}
  void risk(int, int, const Json::Value& info) override {
    const std::lock_guard guard(mutex_);
    risks_.push_back(info["item"].asString());
  }
  void repaired(int, int, const Json::Value&, const Json::Value&) override {}
  void waitForRoom(const std::function<bool()>& cancelled) override {
    waiting = true;
    EXPECT_TRUE(waitFor([&] { return !held || cancelled(); }));
  }
  void whenTold(std::function<void()> action) override { action(); }

  std::vector<int> states() const {
    const std::lock_guard guard(mutex_);
    return states_;
  }
  std::vector<std::string> risks() const {
    const std::lock_guard guard(mutex_);
    return risks_;
  }
  int counted(const char* what) const {
    const std::lock_guard guard(mutex_);
    return overview_[what].asInt();
  }
  std::atomic<bool> held{false}, waiting{false};

 private:
  mutable std::mutex mutex_;
  std::vector<int> states_;
  std::vector<std::string> risks_;
  Json::Value overview_;
};

class ScanTaskTest : public ::testing::Test {
 protected:
  static Spawner::Config config(const testsupport::TempDir& dir) {
    Spawner::Config config;
    config.shippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";
    config.systemSignatures = dir.at("system");
    config.tempFolder = dir.path();
    return config;
  }
  static ScanPlan custom(const std::vector<std::string>& items) {
    ScanPlan plan;
    plan.mode = ScanPlan::kCustom;
    plan.scanType = 2;
    plan.items = items;
    plan.parallelism = 1;
    plan.useCache = plan.readCache = true;
    return plan;
  }
  std::unique_ptr<ScanTask> begin(const ScanPlan& plan) {
    owner = std::make_shared<Owner>();
    owner->held = held;
    auto task =
        std::make_unique<ScanTask>(ScanTask::Parts{*store, spawner, {}, std::chrono::milliseconds(20)},
                                   "token", plan, CallerId{geteuid(), getegid(), {}, getpid()}, owner);
    task->start({[] {}, [] {}});
    return task;
  }
  void scan(const std::vector<std::string>& items) {
    const std::unique_ptr<ScanTask> task = begin(custom(items));
    EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
    EXPECT_THAT(owner->states(), ElementsAre(0, 1, 2));
  }
  void list(int region, const std::string& path) {
    Json::Value items;
    CppJson::LoadJsonString(R"({"action":0,"type":0,"domain":0,"is_all":false})", items);
    items["items"].append(json::encodePath(path));
    std::string why;
    EXPECT_TRUE(store->regions().change(region, items, CallerId{0, 0, {}, getpid()}, &why)) << why;
  }

  testsupport::TempDir dir{testsupport::diskFolder()};
  Spawner spawner{config(dir)};
  std::unique_ptr<Store> store = Store::open(dir.at("state"));
  std::shared_ptr<Owner> owner;
  bool held = false;
};

TEST_F(ScanTaskTest, APauseWhileTheLastFileIsUnderWayIsToldAndTheEndWaitsForTheResume) {
  const std::string file = dir.write("eicar.com", testsupport::eicar());
  held = true;
  const std::unique_ptr<ScanTask> task = begin(custom({file}));
  ASSERT_TRUE(waitFor([&] { return owner->waiting.load(); }));  // the walk of one file is over
  EXPECT_TRUE(task->pause());
  EXPECT_THAT(owner->states(), ElementsAre(0, 1));
  owner->held = false;
  ASSERT_TRUE(waitFor([&] { return owner->states().size() == 3; }));
  EXPECT_THAT(owner->states(), ElementsAre(0, 1, 3));
  EXPECT_THAT(owner->risks(), ElementsAre(file));
  EXPECT_TRUE(task->paused());
  EXPECT_TRUE(task->resume());
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_THAT(owner->states(), ElementsAre(0, 1, 3, 4, 2));
  EXPECT_FALSE(task->pause());
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
  EXPECT_THAT(owner->states(), ElementsAre(0, 1, 3, 5));
}

/// What the lists say of a file under the name of a link that leads to it, and under its own.
struct RegionRow {
  const char* name;
  int asNamed, whereItIs;  // 0 trusted, 1 rejected, -1 not listed
  bool infected, detected;
};
class RegionsThroughALink : public ScanTaskTest, public ::testing::WithParamInterface<RegionRow> {};

TEST_P(RegionsThroughALink, HoldUnderBothNamesAndRejectedUnderOneIsRejected) {
  dir.write("real/file", GetParam().infected ? testsupport::eicar() : "clean");
  ASSERT_EQ(0, symlink("real", dir.at("link").c_str()));
  if (GetParam().asNamed >= 0) {
    list(GetParam().asNamed, dir.at("link/file"));
  }
  if (GetParam().whereItIs >= 0) {
    list(GetParam().whereItIs, dir.at("real/file"));
  }
  scan({dir.at("link")});
  EXPECT_EQ(GetParam().detected ? std::vector{dir.at("link/file")} : std::vector<std::string>{},
            owner->risks());
  EXPECT_EQ(GetParam().infected && !GetParam().detected ? 1 : 0, owner->counted("trusted_risk_count"));
}

INSTANTIATE_TEST_SUITE_P(Rows, RegionsThroughALink,
                         ::testing::Values(RegionRow{"NotListed", -1, -1, true, true},
                                           RegionRow{"TrustedWhereItIs", -1, 0, true, false},
                                           RegionRow{"TrustedAsNamed", 0, -1, true, false},
                                           RegionRow{"RejectedWhereItIs", -1, 1, false, true},
                                           RegionRow{"RejectedAsNamed", 1, -1, false, true},
                                           RegionRow{"TrustedAsNamedRejectedWhereItIs", 0, 1, false, true},
                                           RegionRow{"RejectedAsNamedTrustedWhereItIs", 1, 0, false, true}),
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

TEST_F(ScanTaskTest, AFileOnDiskThatIsChangedThroughAMappingIsScannedAgain) {
  const std::string sample = testsupport::eicar();
  const std::string path = dir.write("file", std::string(sample.size(), 'x'));
  ASSERT_TRUE(waitFor([&] {
    scan({path});
    return store->cache().count() == 1;
  }));
  EXPECT_THAT(owner->risks(), IsEmpty());
  overwrite(path, sample);
  scan({path});
  EXPECT_THAT(owner->risks(), ElementsAre(path));
}

}  // namespace
}  // namespace agent
