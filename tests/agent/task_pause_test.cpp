// A pause and a stop take effect inside one file, during a quarantine, and wherever the walk waits.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ScanTaskTest.h"
#include "store/StepHook.h"

namespace agent {
namespace {

using enum json::TaskState;
using enum json::HandleResult;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testsupport::waitFor;

constexpr std::chrono::seconds kLimit{20};

class Pauses : public ScanTaskTest {
 protected:
  void TearDown() override { store::stepHook = nullptr; }
  bool isPaused() const {
    return waitFor([this] { return !owner->states().empty() && owner->states().back() == kPaused; });
  }
  void expectFinished(ScanTask& task) const {
    EXPECT_TRUE(task.waitOver(kLimit));
    EXPECT_EQ(kFinished, owner->states().back());
  }
};

TEST_F(Pauses, AFileUnderWayIsScannedAgainAfterTheResumeAndCountsOnce) {
  constexpr int kFiles = 12;  // more than wait for one worker: the walk stands at a full queue
  for (int i = 0; i < kFiles; ++i) {
    dir.write("d/" + std::to_string(i), "clean");
  }
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("d")}));
  ASSERT_TRUE(waitFor([&] { return !testsupport::readFile(dir.at("begun")).empty(); }));
  const std::string first = testsupport::readFile(dir.at("begun"));
  EXPECT_TRUE(task->pause());
  ASSERT_TRUE(isPaused());  // the workers would still wait
  EXPECT_EQ(0, owner->counted("checked_item_count"));
  EXPECT_EQ(first, testsupport::readFile(dir.at("begun")));
  EXPECT_TRUE(task->resume());
  release();
  expectFinished(*task);
  EXPECT_THAT(testsupport::readFile(dir.at("begun")), HasSubstr(first + first)) << "first again";
  EXPECT_EQ(kFiles, owner->counted("total_item_count"));
  EXPECT_EQ(kFiles, owner->counted("checked_item_count"));
  EXPECT_EQ(0, owner->counted("failed_item_count"));
}

TEST_F(Pauses, TheLastFileIsInterruptedTooAndTheEndWaitsForTheResume) {
  const std::string path = dir.write("file", testsupport::eicar());
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({path}));
  for (int times = 1; times <= 4; ++times) {  // from the third on, its worker is stopped and goes on
    ASSERT_TRUE(waitFor([&] { return begun(path) == std::min(times, 3); }));
    EXPECT_TRUE(task->pause());
    ASSERT_TRUE(isPaused());
    EXPECT_TRUE(task->resume());
    ASSERT_TRUE(waitFor([&] { return owner->states().back() == kResumed; }));
  }
  release();
  expectFinished(*task);
  EXPECT_EQ(3, begun(path));
  EXPECT_THAT(owner->risks(), ElementsAre(path));
  EXPECT_EQ(1, owner->counted("checked_item_count"));
}

TEST_F(Pauses, OfAScanWhoseConsoleIsGoneEndAfterATimeAndOfOneWhoseConsoleLivesDoNot) {
  forgottenPause = std::chrono::milliseconds(50);
  dir.write("d/file", "clean");
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("d")}));
  EXPECT_TRUE(task->pause());
  ASSERT_TRUE(isPaused());
  ASSERT_TRUE(waitFor([this] { return owner->asked >= 3; }));
  EXPECT_EQ(kPaused, owner->states().back());
  owner->ended = true;
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_EQ(kAborted, owner->states().back());
  EXPECT_EQ("paused, and the program that started the scan has ended", owner->detail());
  release();
}

TEST_F(Pauses, AScanThatIsPausedInAFileCanBeStopped) {
  const std::string path = dir.write("file", "clean");
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({path}));
  ASSERT_TRUE(waitFor([&] { return begun(path) == 1; }));
  EXPECT_TRUE(task->pause());
  ASSERT_TRUE(isPaused());
  EXPECT_TRUE(task->stop("enough"));
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->states(), ElementsAre(kCreated, kStarted, kPaused, kAborted));
  EXPECT_EQ(0, owner->counted("checked_item_count"));
}

TEST_F(Pauses, ADetectionWaitsWhileItsOwnerTakesNothing) {
  constexpr int kFiles = 80;  // more than wait to be handled: the walk stands there
  for (int i = 0; i < kFiles; ++i) {
    dir.write("d/" + std::to_string(i), testsupport::eicar());
  }
  held = true;
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("d")}));
  ASSERT_TRUE(waitFor([&] { return owner->waiting.load(); }));
  EXPECT_TRUE(task->pause());
  ASSERT_TRUE(isPaused());
  EXPECT_THAT(owner->risks(), IsEmpty());
  owner->held = false;
  EXPECT_TRUE(task->resume());
  expectFinished(*task);
  EXPECT_EQ(kFiles, static_cast<int>(owner->risks().size()));
}

TEST_F(Pauses, TheNamesOfAFileUnderWayWait) {
  constexpr int kNames = 80;  // more than wait for the first one's end: the walk stands there
  const std::string first = dir.write("d/0", "clean");
  for (int i = 1; i < kNames; ++i) {
    ASSERT_EQ(0, link(first.c_str(), dir.at("d/" + std::to_string(i)).c_str()));
  }
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("d")}));
  ASSERT_TRUE(waitFor([&] { return owner->counted("total_item_count") == 66; }));
  EXPECT_TRUE(task->pause());
  ASSERT_TRUE(isPaused());
  release();
  EXPECT_TRUE(task->resume());
  expectFinished(*task);
  EXPECT_EQ(kNames, owner->counted("total_item_count"));
  EXPECT_EQ(1, owner->counted("checked_item_count"));
}

/// A scan that moves one large file to the quarantine, and meets a pause or a stop in the midst of the copy.
class PausesInAQuarantine : public Pauses {
 protected:
  PausesInAQuarantine() { list(json::Region::kReject, path); }
  std::unique_ptr<ScanTask> beginAnd(const std::function<void(ScanTask&)>& inTheCopy) {
    store::stepHook = [this, inTheCopy, blocks = 0](const std::string& step) mutable {
      if (step == "copied a block" && ++blocks == 3) {
        EXPECT_TRUE(waitFor([&] { return running.load() != nullptr; }));
        inTheCopy(*running);
      }
    };
    ScanPlan plan = custom({path});
    plan.handling = json::Handling::kAutomatic;
    plan.action = json::HandleAction::kQuarantine;
    std::unique_ptr<ScanTask> task = begin(plan);
    running = task.get();
    return task;
  }
  std::ptrdiff_t vaultFiles() const {
    return std::distance(std::filesystem::directory_iterator(dir.at("state/quarantine")), {});
  }
  void expectUntouchedBecause(const std::string& why) {
    EXPECT_EQ(kAborted, owner->states().back());
    EXPECT_EQ(kFailed, owner->handled(path));
    EXPECT_THAT(owner->handledHow(path), HasSubstr(why));
    EXPECT_EQ(content, testsupport::readFile(path));
    EXPECT_TRUE(store->quarantine().list(std::nullopt).empty());
    EXPECT_EQ(0, vaultFiles());
    EXPECT_EQ(0, owner->counted("fixed_risk_count"));
    EXPECT_THAT(testsupport::readFile(dir.at("state/audit-refusals.log")), HasSubstr(why));
  }

  const std::string content = std::string(4 << 20, 'x');
  const std::string path = dir.write("large", content);
  std::atomic<ScanTask*> running{nullptr};
};

TEST_F(PausesInAQuarantine, AStopUndoesItAndTheFileIsReportedAsNotHandled) {
  const std::unique_ptr<ScanTask> task = beginAnd([](ScanTask& scan) { scan.stop("enough"); });
  EXPECT_TRUE(task->waitOver(kLimit));
  EXPECT_THAT(owner->risks(), ElementsAre(path));
  expectUntouchedBecause("the scan was stopped: enough");
}

TEST_F(PausesInAQuarantine, APauseStandsInTheMidstAndTheResumeGoesOn) {
  const std::unique_ptr<ScanTask> task = beginAnd([](ScanTask& scan) { scan.pause(); });
  ASSERT_TRUE(isPaused());
  EXPECT_EQ(content, testsupport::readFile(path));
  EXPECT_EQ(0, owner->counted("disposed_risk_count"));
  EXPECT_EQ(1, vaultFiles());
  EXPECT_TRUE(task->resume());
  expectFinished(*task);
  EXPECT_EQ(kQuarantined, owner->handled(path));
  EXPECT_THAT(owner->risks(), ElementsAre(path)) << "once";
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(1U, store->quarantine().list(std::nullopt).size());
}

TEST_F(PausesInAQuarantine, AStopInAPauseUndoesIt) {
  const std::unique_ptr<ScanTask> task = beginAnd([](ScanTask& scan) { scan.pause(); });
  ASSERT_TRUE(isPaused());
  EXPECT_TRUE(task->stop("enough"));
  EXPECT_TRUE(task->waitOver(kLimit));
  expectUntouchedBecause("the scan was stopped: enough");
}

TEST_F(PausesInAQuarantine, AFileThatIsChangedInThePauseStays) {
  const std::unique_ptr<ScanTask> task = beginAnd([](ScanTask& scan) { scan.pause(); });
  ASSERT_TRUE(isPaused());
  std::ofstream(path, std::ios::app) << "!";
  EXPECT_TRUE(task->resume());
  expectFinished(*task);
  EXPECT_EQ(kFailed, owner->handled(path));
  EXPECT_EQ(content + "!", testsupport::readFile(path));
  EXPECT_EQ(0, vaultFiles());
}

}  // namespace
}  // namespace agent
