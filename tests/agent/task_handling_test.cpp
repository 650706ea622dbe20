// The handling of detections: real files, real store.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <thread>

#include "TaskListener.h"
#include "store/StepHook.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "task/DetectionHandler.h"

namespace agent {
namespace {

using enum json::HandleResult;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAreArray;

class Handling : public testing::Test {
 protected:
  Handling() {
    plan_.handling = json::Handling::kAutomatic;
    plan_.action = json::HandleAction::kDelete;
  }
  void TearDown() override { store::stepHook = nullptr; }

  static std::shared_ptr<EncounteredFile> scanned(const std::string& path) {
    auto file = std::make_shared<EncounteredFile>();
    file->path = path;
    file->fd = platform::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    fstat(file->fd.get(), &file->status);
    file->folderWritable = true;
    return file;
  }
  static Verdict infected() {
    Verdict verdict;
    verdict.outcome = Outcome::kInfected;
    verdict.detections.push_back(Detection{"Test", 0, json::RiskType::kTestFile, "test"});
    return verdict;
  }
  std::optional<json::HandleResult> handle(const std::shared_ptr<EncounteredFile>& file,
                                           Verdict verdict = infected()) {
    const std::string path = file->path;
    DetectionHandler handler({plan_, caller_, *store_, counters_, told_, control_});
    handler.add({file, std::move(verdict)});
    handler.waitBelow(1);
    return told_.handled(path);
  }

  testsupport::TempDir folder_;
  // A minute passes between two refusals: each is a line of its own in the record.
  static store::AuditOptions audit() {
    store::AuditOptions options;
    options.now = [time = std::chrono::steady_clock::time_point()]() mutable {
      return time += std::chrono::minutes(2);
    };
    return options;
  }
  std::unique_ptr<Store> store_ = Store::open(folder_.at("state"), std::chrono::seconds(60), audit());
  ScanPlan plan_;
  CallerId caller_{.uid = geteuid(), .gid = getegid(), .groups = {}, .pid = getpid()};
  Counters counters_;
  TaskControl control_;
  TaskListener told_;
};

TEST_F(Handling, TheScannedFileIsRemovedAndNothingIsLeft) {
  std::filesystem::create_directory(folder_.at("d"));
  const std::string path = folder_.write("d/file", "bad");
  EXPECT_EQ(handle(scanned(path)), kQuarantined);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.at("d")));
  EXPECT_TRUE(store_->quarantine().list(std::nullopt).empty());
}

TEST_F(Handling, ADeletedFileIsToldAsDeletedAndNotAsQuarantined) {
  const std::string path = folder_.write("d/file", "bad");
  EXPECT_EQ(handle(scanned(path)), kQuarantined) << "the number says that the file was removed";
  EXPECT_EQ(told_.handledHow(path), "已删除");
}

TEST_F(Handling, AQuarantinedFileIsToldAsQuarantined) {
  plan_.action = json::HandleAction::kQuarantine;
  const std::string path = folder_.write("d/file", "bad");
  EXPECT_EQ(handle(scanned(path)), kQuarantined);
  EXPECT_EQ(told_.handledHow(path), "已隔离");
}

class HandledBy : public Handling,
                  public testing::WithParamInterface<std::pair<const char*, json::HandleAction>> {};

TEST_P(HandledBy, AFileThatCameInThePlaceOfTheScannedOneStays) {
  plan_.action = GetParam().second;
  const std::string path = folder_.write("d/file", "bad");
  const std::shared_ptr<EncounteredFile> file = scanned(path);
  std::filesystem::rename(folder_.write("good", "good"), path);
  EXPECT_EQ(handle(file), kFailed);
  EXPECT_EQ(testsupport::readFile(path), "good");
  EXPECT_TRUE(store_->quarantine().list(std::nullopt).empty());
}

TEST_P(HandledBy, AFileWhoseFolderWasMovedSinceItsScanIsRemovedWhereItIs) {
  plan_.action = GetParam().second;
  const std::shared_ptr<EncounteredFile> file = scanned(folder_.write("d/file", "bad"));
  std::filesystem::rename(folder_.at("d"), folder_.at("moved"));
  EXPECT_EQ(handle(file), kQuarantined);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.at("moved")));
}

TEST_P(HandledBy, AFileThatWasWrittenAfterItsScanStays) {
  plan_.action = GetParam().second;
  const std::string path = folder_.write("d/file", "bad");
  const std::shared_ptr<EncounteredFile> file = scanned(path);
  folder_.write("d/file", "good by now");
  EXPECT_EQ(handle(file), kFailed);
  EXPECT_EQ(testsupport::readFile(path), "good by now");
  EXPECT_TRUE(store_->quarantine().list(std::nullopt).empty());
}

INSTANTIATE_TEST_SUITE_P(Actions, HandledBy,
                         testing::Values(std::pair("Deletion", json::HandleAction::kDelete),
                                         std::pair("Quarantine", json::HandleAction::kQuarantine)),
                         [](const auto& row) { return std::string(row.param.first); });

TEST_F(Handling, AnAgentThatIsNotRootMindsNoOwnerForItsOwnUserAndForRoot) {
  constexpr uid_t kUser = 60123;
  const std::string path = folder_.write("d/file", "bad");
  ASSERT_EQ(0, chown(path.c_str(), kUser + 2, 0));
  const std::shared_ptr<EncounteredFile> file = scanned(path);
  file->folderWritable = false;
  for (const uid_t uid : {kUser, uid_t{0}, kUser + 1}) {
    caller_.uid = uid;
    std::thread([&] {
      // Of this thread and the handler's, which it starts.
      ASSERT_EQ(0, syscall(SYS_setresuid, kUser, kUser, kUser));
      EXPECT_EQ(handle(file), kFailed);  // the kernel minds them
    }).join();
    const bool minded = told_.handledHow(path).find("belongs to another user") != std::string::npos;
    EXPECT_EQ(uid == kUser + 1, minded) << told_.handledHow(path);
  }
  EXPECT_EQ(testsupport::readFile(path), "bad");
}

TEST_F(Handling, AnotherFileThatWasTakenAtTheLastMomentIsPutBack) {
  std::filesystem::create_directory(folder_.at("d"));
  const std::string path = folder_.write("d/file", "bad");
  const std::string good = folder_.write("good", "good");
  store::stepHook = [&](const std::string& step) {
    if (step == "moved") {
      for (const auto& entry : std::filesystem::directory_iterator(folder_.at("d"))) {
        std::filesystem::rename(good, entry.path());
      }
    }
  };
  EXPECT_EQ(handle(scanned(path)), kFailed);
  EXPECT_EQ(testsupport::readFile(path), "good");
}

TEST_F(Handling, AFileWhoseBytesAreNotTheScannedOnesIsNotQuarantined) {
  plan_.action = json::HandleAction::kQuarantine;
  const std::string path = folder_.write("d/file", "bad");
  Verdict verdict = infected();
  verdict.md5 = "900150983cd24fb0d6963f7d28e17f72";  // of "abc"
  EXPECT_EQ(handle(scanned(path), verdict), kFailed);
  EXPECT_THAT(told_.handledHow(path), HasSubstr("changed after it was scanned"));
  EXPECT_EQ(testsupport::readFile(path), "bad");
  EXPECT_TRUE(store_->quarantine().list(std::nullopt).empty());

  verdict.md5 = "bae60998ffe4923b131e3d6e4c19993e";
  EXPECT_EQ(handle(scanned(path), verdict), kQuarantined);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Handling, ADetectionWithATrustedHashIsReportedAsTrustedAndLeftAlone) {
  const std::string path = folder_.write("d/file", "bad");
  {
    DetectionHandler handler({plan_, caller_, *store_, counters_, told_, control_});
    handler.add({scanned(path), infected(), true});
  }
  EXPECT_EQ(told_.handled(path), kTrusted);
  EXPECT_TRUE(told_.risks().empty());
  EXPECT_EQ(testsupport::readFile(path), "bad");
  EXPECT_EQ(counters_.overview("").trusted_risk_count, 1);
  EXPECT_EQ(counters_.overview("").checkout_risk_count, 0);
}

TEST_F(Handling, ADetectionThatIsOnlyReportedStaysAndCountsAsLeftAlone) {
  plan_.action = json::HandleAction::kNothing;
  const std::string path = folder_.write("d/file", "bad");
  EXPECT_EQ(handle(scanned(path)), kReportedOnly);
  EXPECT_EQ(testsupport::readFile(path), "bad");
  const JsonReflect::ScanBusOverView view = counters_.overview("");
  EXPECT_EQ(view.checkout_risk_count, 1);
  EXPECT_EQ(view.ignore_risk_count, 1);
  EXPECT_EQ(view.fixed_risk_count, 0);
}

TEST_F(Handling, ADetectionCarriesTheTimesOfItsFileAndOfItsOwn) {
  plan_.action = json::HandleAction::kNothing;
  const std::string path = folder_.write("d/file", "bad");
  const timespec times[2] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  const std::shared_ptr<EncounteredFile> file = scanned(path);
  const std::time_t before = std::time(nullptr);
  handle(file);
  EXPECT_EQ(birthTime(file->fd.get()), told_.lastRisk()["file_create_time"].asInt64());
  EXPECT_EQ(2000, told_.lastRisk()["file_modify_time"].asInt64());
  EXPECT_LE(before, told_.lastRisk()["find_time"].asInt64());
  EXPECT_GE(std::time(nullptr), told_.lastRisk()["find_time"].asInt64());
  EXPECT_FALSE(told_.lastRisk()["risk_id"].asString().empty());
  EXPECT_LE(before, told_.handledAtSec(path));
  EXPECT_GE(std::time(nullptr), told_.handledAtSec(path));
}

TEST_F(Handling, ADetectionAndItsResultAreToldWithTheHandlingOfThePlan) {
  plan_.action = json::HandleAction::kNothing;
  plan_.memoryCheck = true;
  for (const auto handling : {json::Handling::kAutomatic, json::Handling::kReportOnly}) {
    plan_.handling = handling;
    const std::size_t before = told_.handlings().size();
    handle(scanned("/proc/self/exe"));
    {
      DetectionHandler handler({plan_, caller_, *store_, counters_, told_, control_});
      handler.add({scanned(folder_.write("trusted", "bad")), infected(), true});
    }
    const std::vector<json::Handling> told = told_.handlings();
    EXPECT_GE(told.size() - before, 5U) << "a process, its file, and a trusted file";
    for (std::size_t i = before; i < told.size(); ++i) {
      EXPECT_EQ(handling, told[i]) << i;
    }
  }
}

TEST_F(Handling, WhatBecameOfADetectionIsCountedAndAudited) {
  handle(scanned(folder_.write("d/file", "bad")));
  EXPECT_EQ(counters_.overview("").fixed_risk_count, 1);
  const std::shared_ptr<EncounteredFile> gone = scanned(folder_.write("d/gone", "bad"));
  std::filesystem::remove(gone->path);
  EXPECT_EQ(handle(gone), kFailed);
  EXPECT_EQ(counters_.overview("").fixed_risk_count, 1);
  EXPECT_EQ(counters_.overview("").disposed_risk_count, 2);
  const std::string audit = testsupport::readFile(folder_.at("state/audit.log"));
  const std::string begin = " pid=" + std::to_string(getpid()) + " action=\"handle detection\" object=\"";
  EXPECT_THAT(audit, HasSubstr(begin + folder_.at("d/file") + "\" outcome=\"deleted\""));
  EXPECT_THAT(testsupport::readFile(folder_.at("state/audit-refusals.log")),
              HasSubstr(begin + folder_.at("d/gone") + "\" outcome=\"it was changed after it was scanned\""));
}

TEST_F(Handling, TheQuarantineGetsTheDetection) {
  plan_.action = json::HandleAction::kQuarantine;
  EXPECT_EQ(handle(scanned(folder_.write("d/file", "bad"))), kQuarantined);
  EXPECT_EQ("Test", store_->quarantine().list(std::nullopt)[0]["virus_name"].asString());
}

TEST_F(Handling, TheQuarantineGetsThePathUnderWhichTheFileWasEncountered) {
  plan_.action = json::HandleAction::kQuarantine;
  folder_.write("d/file", "bad");
  std::filesystem::create_directory_symlink("d", folder_.at("link"));
  EXPECT_EQ(handle(scanned(folder_.at("link/file"))), kQuarantined);
  EXPECT_EQ(json::encodePath(folder_.at("link/file")),
            store_->quarantine().list(std::nullopt)[0]["filepath_src"].asString());
}

TEST_F(Handling, AProcessThatIsNotEndedIsReportedAsThat) {
  plan_.action = json::HandleAction::kNothing;
  plan_.memoryCheck = plan_.endProcesses = true;
  handle(scanned("/proc/self/exe"));  // what runs the agent's own program is spared
  EXPECT_THAT(told_.processes(), Contains(getpid()));
  EXPECT_EQ(told_.handled(getpid()), kFailed);
  EXPECT_THAT(told_.handledHow(getpid()), HasSubstr("is the agent or started it"));
  EXPECT_THAT(testsupport::readFile(folder_.at("state/audit-refusals.log")),
              AllOf(HasSubstr(" pid=" + std::to_string(getpid()) + " action=\"end process\""),
                    HasSubstr("is the agent or started it")));
}

TEST_F(Handling, EveryProcessThatRunsTheDetectionIsReportedAndEnded) {
  plan_.action = json::HandleAction::kNothing;
  plan_.memoryCheck = plan_.endProcesses = true;
  const std::string program = folder_.at("program");
  std::filesystem::copy_file("/bin/sleep", program);
  std::vector<std::unique_ptr<testsupport::Process>> processes;
  std::vector<int> pids;
  for (int i = 0; i < 3; ++i) {
    processes.push_back(std::make_unique<testsupport::Process>(std::vector<std::string>{program, "600"}));
    pids.push_back(processes.back()->pid());
    const std::string link = "/proc/" + std::to_string(pids.back()) + "/exe";
    ASSERT_TRUE(testsupport::waitFor([&] { return std::filesystem::read_symlink(link) == program; }));
  }
  handle(scanned(program));
  EXPECT_THAT(told_.processes(), UnorderedElementsAreArray(pids));
  for (const auto& process : processes) {
    EXPECT_EQ(told_.handled(process->pid()), kProcessEnded);
    EXPECT_EQ(process->wait(), 128 + SIGKILL);
  }
}

TEST_F(Handling, WhatIsQueuedAtTheEndIsHandledFirst) {
  constexpr int kMany = 200;
  plan_.action = json::HandleAction::kNothing;
  const std::shared_ptr<EncounteredFile> file = scanned(folder_.write("d/file", "bad"));
  told_.held = true;
  {
    DetectionHandler handler({plan_, caller_, *store_, counters_, told_, control_});
    for (int i = 0; i < kMany; ++i) {
      handler.add({file, infected()});
    }
    told_.held = false;
  }
  EXPECT_EQ(kMany, counters_.overview("").checkout_risk_count);
}

TEST_F(Handling, AStopEndsTheWaitForAnOwnerWhoTakesNothingAndLeavesTheFile) {
  const std::string path = folder_.write("d/file", "bad");
  told_.held = true;
  DetectionHandler handler({plan_, caller_, *store_, counters_, told_, control_});
  handler.add({scanned(path), infected()});
  ASSERT_TRUE(testsupport::waitFor([this] { return told_.waiting.load(); }));
  control_.stop("enough");
  handler.waitBelow(1);
  EXPECT_EQ(told_.handled(path), kFailed);
  EXPECT_THAT(told_.handledHow(path), HasSubstr("the scan was stopped: enough"));
  EXPECT_EQ(testsupport::readFile(path), "bad");
}

}  // namespace
}  // namespace agent
