// Scans for a user who is neither root nor the agent's user.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <filesystem>
#include <thread>

#include "OwnMounts.h"
#include "ScanTaskTest.h"
#include "json/Values.h"
#include "platform/CLogDebug.h"
#include "support/Samples.h"
#include "support/Wait.h"
#include "task/Places.h"

namespace agent {
namespace {

using enum json::TaskState;
using enum json::HandleResult;
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
  ScanForASecondUser() { caller = CallerId{kUser, kGroup, {}, getpid()}; }
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
  static ScanPlan handling(const std::vector<std::string>& items, json::HandleAction how) {
    ScanPlan plan = custom(items);
    plan.handling = json::Handling::kAutomatic;
    plan.action = how;
    return plan;
  }
};

struct FolderRow {
  const char* name;
  bool callers;
  mode_t mode;
  json::HandleAction handling;
};
class InAFolderThatTheCallerWrites : public ScanForASecondUser,
                                     public ::testing::WithParamInterface<FolderRow> {};

TEST_P(InAFolderThatTheCallerWrites, AFileOfAnotherUserIsNotTakenAwayAndOneOfTheCallersIs) {
  const std::string place = folder("d", GetParam().callers ? kUser : 0, GetParam().mode);
  const std::string roots = infected("d/roots", 0);
  const std::string thirds = infected("d/thirds", kThird);
  const std::string own = infected("d/own", kUser);
  scan(handling({place}, GetParam().handling));
  EXPECT_EQ(kQuarantined, owner->handled(own)) << owner->handledHow(own);
  EXPECT_FALSE(std::filesystem::exists(own));
  for (const std::string& path : {roots, thirds}) {
    EXPECT_EQ(kFailed, owner->handled(path));
    EXPECT_THAT(owner->handledHow(path), HasSubstr("belongs to another user"));
    EXPECT_EQ(testsupport::eicar(), testsupport::readFile(path));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Folders, InAFolderThatTheCallerWrites,
    ::testing::Values(FolderRow{"TheCallersOwnQuarantine", true, 0755, json::HandleAction::kQuarantine},
                      FolderRow{"TheCallersOwnDelete", true, 0755, json::HandleAction::kDelete},
                      FolderRow{"EverybodysQuarantine", false, 01777, json::HandleAction::kQuarantine},
                      FolderRow{"EverybodysDelete", false, 01777, json::HandleAction::kDelete}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(ScanForASecondUser, AFileOfTheCallersInAFolderThatTheCallerCannotWriteIsNotTakenAway) {
  folder("d", 0, 0755);
  const std::string own = infected("d/own", kUser);
  for (const std::string& named : {dir.at("d"), own}) {
    scan(handling({named}, json::HandleAction::kQuarantine));
    EXPECT_EQ(kFailed, owner->handled(own));
    EXPECT_THAT(owner->handledHow(own), HasSubstr("cannot write in the file's folder"));
    EXPECT_TRUE(std::filesystem::exists(own));
  }
}

TEST_F(ScanForASecondUser, OfTheProcessesThatRunADetectionTheCallersAloneAreReportedAndEnded) {
  const std::string path = program("running");
  const auto roots = run(path, 0, 0);
  const auto thirds = run(path, kThird, kGroup);
  const auto own = run(path, kUser, kGroup);
  ScanPlan plan = handling({path}, json::HandleAction::kNothing);
  plan.memoryCheck = plan.endProcesses = true;
  scan(plan);
  EXPECT_THAT(owner->processes(), ElementsAre(own->pid()));
  EXPECT_EQ(kProcessEnded, owner->handled(own->pid()));
  EXPECT_EQ(128 + SIGKILL, own->wait());
  EXPECT_TRUE(roots->running());
  EXPECT_TRUE(thirds->running());
}

TEST_F(ScanForASecondUser, OfTheRunningProgramsTheCallersAloneAreScanned) {
  const std::string theirs = program("theirs");
  const std::string own = program("own");
  const auto roots = run(theirs, 0, 0);
  const auto callers = run(own, kUser, kGroup);
  scan(programsOf(json::ScanMode::kFast));
  EXPECT_THAT(owner->risks(), ElementsAre(own));
  EXPECT_THAT(owner->processes(), ElementsAre(callers->pid()));
}

TEST_F(ScanForASecondUser, APathThatTheCallerCannotOpenStartsNoScan) {
  const std::string path = infected("hidden", 0);
  ASSERT_EQ(0, chmod(path.c_str(), 0600));
  const std::unique_ptr<ScanTask> task = begin(custom({path}));
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_THAT(owner->states(), ElementsAre(kNotCreated));
  EXPECT_THAT(owner->detail(), HasSubstr("Permission denied"));
}

TEST_F(ScanForASecondUser, AnAgentThatIsNotRootStartsNoScan) {
  const std::string path = infected("file", kUser);
  std::thread([&] {
    // Of this thread and the task's, which it starts.
    ASSERT_EQ(0, syscall(SYS_setresuid, kThird, kThird, kThird));
    const std::unique_ptr<ScanTask> task = begin(custom({path}));
    EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  }).join();
  EXPECT_THAT(owner->states(), ElementsAre(kNotCreated));
  EXPECT_THAT(owner->detail(), HasSubstr("does not run as root"));
}

TEST_F(ScanForASecondUser, WhatTheCallerCannotReadIsAnErrorAndTheRestIsScanned) {
  folder("d", 0, 0755);
  const std::string hidden = infected("d/hidden", 0);
  ASSERT_EQ(0, chmod(hidden.c_str(), 0600));
  const std::string open = infected("d/open", 0);
  scan({dir.at("d")});
  EXPECT_THAT(owner->risks(), ElementsAre(open));
  EXPECT_EQ(2, owner->counted("total_item_count"));
  EXPECT_EQ(1, owner->counted("failed_item_count"));
}

/// Fast scans on a thread with mounts of its own.
class StagesForASecondUser : public ScanForASecondUser {
 protected:
  /// How many entries could not be scanned; -1 when the mounts cannot be made.
  int failures(const std::function<bool()>& mounts) {
    const ScanPlan plan = programsOf(json::ScanMode::kFast);
    const bool ran = withOwnMounts(mounts, [&] {
      const std::unique_ptr<ScanTask> task = begin(plan);
      EXPECT_TRUE(task->waitOver(std::chrono::minutes(1)));
      EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kFinished));
      EXPECT_EQ(99, task->percent());  // what failed is behind it, too
    });
    return ran ? owner->counted("failed_item_count") : -1;
  }
};

TEST_F(StagesForASecondUser, APathThatTheCallerCannotOpenIsAnError) {
  folder("home", 0, 0755);
  folder("home/.ssh", 0, 0755);
  const auto users = userDatabase(dir.write("passwd", "root:x:0:0::" + dir.at("home") + ":/bin/sh\n"));
  const int before = failures(users);
  if (before < 0) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  ASSERT_EQ(0, chmod(dir.at("home/.ssh").c_str(), 0700));
  EXPECT_EQ(before + 1, failures(users));
}

TEST_F(StagesForASecondUser, ProcessesThatCannotBeListedAreAnError) {
  const int before = failures([] { return true; });
  if (before < 0) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
  EXPECT_EQ(before + 1, failures([] { return mount("none", "/proc", "tmpfs", 0, "mode=0700") == 0; }));
}

TEST_F(StagesForASecondUser, AStageWithoutAPlaceIsBehindItsScanToo) {
  const auto emptyEtc = [] {
    return mount("none", "/etc", "tmpfs", 0, "mode=0755") == 0 &&
           stagesOf(json::ScanMode::kFast, true, {}).front().places.empty();
  };
  if (failures(emptyEtc) < 0) {
    GTEST_SKIP() << "this process may not make a mount namespace";
  }
}

/// A log that only root can write, and that goes to a new file with each record.
class LogOfRoot {
 public:
  explicit LogOfRoot(std::string folder) : folder_(std::move(folder)) {
    EXPECT_TRUE(std::filesystem::create_directory(folder_));
    EXPECT_EQ(0, chmod(folder_.c_str(), 0700));
    CLogDebug* const log = CLogDebug::Create();
    log->SetProperty(CLogDebug::kPath, folder_);
    log->SetProperty(CLogDebug::kLevel, std::to_string(static_cast<int>(LogLevel::kDebug)));
    log->SetProperty(CLogDebug::kSize, "1");
    log->SetProperty(CLogDebug::kBackupCount, "200");
  }
  ~LogOfRoot() { CLogDebug::Instance()->Close(); }
  LogOfRoot(const LogOfRoot&) = delete;
  LogOfRoot& operator=(const LogOfRoot&) = delete;
  std::string text() const {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      text += testsupport::readFile(entry.path());
    }
    return text;
  }

 private:
  const std::string folder_;
};

TEST_F(ScanForASecondUser, AfterAWalkThatFailedTheScanEndsWithTheAgentsRights) {
  const LogOfRoot log(dir.at("log"));
  onStage = [](int) { throw std::runtime_error("from the listener"); };
  const std::unique_ptr<ScanTask> task = begin(programsOf(json::ScanMode::kFast));
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kAborted));
  EXPECT_EQ("internal error: from the listener", owner->detail());
  EXPECT_THAT(log.text(), HasSubstr("scan token aborted"));
}

TEST_F(ScanForASecondUser, TheAgentsLogIsWrittenWithTheAgentsRights) {
  const LogOfRoot log(dir.at("log"));
  folder("d", 0, 0755);
  const std::string hidden = infected("d/hidden", 0);
  ASSERT_EQ(0, chmod(hidden.c_str(), 0600));
  const std::string trusted = infected("d/trusted", 0);
  list(json::Region::kTrust, trusted);
  ASSERT_EQ(0, symlink("trusted", dir.at("d/link").c_str()));
  pausedAtFirst = true;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("d")}));
  ASSERT_TRUE(waitFor([&] { return owner->states().size() == 3; }));
  EXPECT_TRUE(task->resume());
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kPaused, kResumed, kFinished));
  EXPECT_THAT(log.text(), HasSubstr("scan token paused"));
  EXPECT_THAT(log.text(), HasSubstr("scan token resumed"));
  EXPECT_THAT(log.text(), HasSubstr(hidden + ": not scanned: Permission denied"));
  EXPECT_THAT(log.text(), HasSubstr(trusted + ": skipped: trusted"));
  EXPECT_THAT(log.text(), HasSubstr(dir.at("d/link") + ": skipped: symbolic link"));
}

}  // namespace
}  // namespace agent
