// Scans for a user who is neither root nor the agent's own: what the agent can do and that user cannot.

#include <sys/stat.h>

#include <filesystem>

#include "TaskFixture.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testsupport::waitFor;

constexpr gid_t kGroup = 60124;

/// Users of this test's process alone: another test that runs beside it has none of their processes.
const uid_t kUser = 10'000'000 + 2 * static_cast<uid_t>(getpid());
const uid_t kThird = kUser + 1;

class ScanForASecondUser : public ScanTaskTest {
 protected:
  ScanForASecondUser() {
    caller = CallerId{kUser, kGroup, {}, getpid()};
    EXPECT_EQ(0, chmod(dir.path().c_str(), 0755));
  }
  std::string folder(const char* name, uid_t uid, mode_t mode) {
    const std::string path = dir.at(name);
    EXPECT_TRUE(std::filesystem::create_directory(path));
    EXPECT_EQ(0, chown(path.c_str(), uid, 0));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
  std::string infected(const std::string& name, uid_t uid) {
    const std::string path = dir.write(name, testsupport::eicar());
    EXPECT_EQ(0, chown(path.c_str(), uid, 0));
    EXPECT_EQ(0, chmod(path.c_str(), 0644));
    return path;
  }
  static ScanPlan handling(const std::vector<std::string>& items, ScanPlan::Handling how) {
    ScanPlan plan = custom(items);
    plan.fixMethod = 0;
    plan.handling = how;
    return plan;
  }
};

struct FolderRow {
  const char* name;
  bool callers;
  mode_t mode;
  ScanPlan::Handling handling;
};
class InAFolderThatTheCallerWrites : public ScanForASecondUser,
                                     public ::testing::WithParamInterface<FolderRow> {};

TEST_P(InAFolderThatTheCallerWrites, AFileOfAnotherUserIsNotTakenAwayAndOneOfTheCallersIs) {
  const std::string place = folder("d", GetParam().callers ? kUser : 0, GetParam().mode);
  const std::string roots = infected("d/roots", 0);
  const std::string thirds = infected("d/thirds", kThird);
  const std::string own = infected("d/own", kUser);
  scan(handling({place}, GetParam().handling));
  EXPECT_EQ(1, owner->handled(own)) << owner->handledHow(own);
  EXPECT_FALSE(std::filesystem::exists(own));
  for (const std::string& path : {roots, thirds}) {
    EXPECT_EQ(4, owner->handled(path));
    EXPECT_THAT(owner->handledHow(path), HasSubstr("belongs to another user"));
    EXPECT_EQ(testsupport::eicar(), testsupport::readFile(path));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Folders, InAFolderThatTheCallerWrites,
    ::testing::Values(FolderRow{"TheCallersOwnQuarantine", true, 0755, ScanPlan::Handling::kQuarantine},
                      FolderRow{"TheCallersOwnDelete", true, 0755, ScanPlan::Handling::kDelete},
                      FolderRow{"EverybodysQuarantine", false, 01777, ScanPlan::Handling::kQuarantine},
                      FolderRow{"EverybodysDelete", false, 01777, ScanPlan::Handling::kDelete}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ScanForASecondUser, AFileOfTheCallersInAFolderThatTheCallerCannotWriteIsNotTakenAway) {
  folder("d", 0, 0755);
  const std::string own = infected("d/own", kUser);
  for (const std::string& named : {dir.at("d"), own}) {
    scan(handling({named}, ScanPlan::Handling::kQuarantine));
    EXPECT_EQ(4, owner->handled(own));
    EXPECT_THAT(owner->handledHow(own), HasSubstr("cannot write in the file's folder"));
    EXPECT_TRUE(std::filesystem::exists(own));
  }
}

TEST_F(ScanForASecondUser, OfTheProcessesThatRunADetectionTheCallersAloneAreToldAndEnded) {
  const std::string path = program("running");
  const auto roots = run(path, 0, 0);
  const auto thirds = run(path, kThird, kGroup);
  const auto own = run(path, kUser, kGroup);
  ScanPlan plan = handling({path}, ScanPlan::Handling::kNothing);
  plan.memoryCheck = plan.endProcesses = true;
  scan(plan);
  EXPECT_THAT(owner->processes(), ElementsAre(own->pid()));
  EXPECT_EQ(2, owner->handled(own->pid()));
  EXPECT_EQ(128 + SIGKILL, own->wait());
  EXPECT_TRUE(roots->running());
  EXPECT_TRUE(thirds->running());
}

TEST_F(ScanForASecondUser, OfTheRunningProgramsTheCallersAloneAreScanned) {
  const std::string theirs = program("theirs");
  const std::string own = program("own");
  const auto roots = run(theirs, 0, 0);
  const auto callers = run(own, kUser, kGroup);
  ScanPlan plan;
  plan.mode = ScanPlan::kFast;
  plan.memoryCheck = true;
  std::atomic<ScanTask*> task{nullptr};
  constexpr int kMemoryStageEnds = 5;
  onStage = [&](int stage) {
    if (stage == kMemoryStageEnds) {
      EXPECT_TRUE(waitFor([&] { return task.load() != nullptr; }));
      task.load()->stop("seen enough");
    }
  };
  const std::unique_ptr<ScanTask> whole = begin(plan);
  task = whole.get();
  EXPECT_TRUE(whole->waitOver(std::chrono::minutes(2)));
  EXPECT_THAT(owner->stages(), Contains(kMemoryStageEnds));
  EXPECT_THAT(owner->risks(), ElementsAre(own));
  EXPECT_THAT(owner->processes(), ElementsAre(callers->pid()));
}

}  // namespace
}  // namespace agent
