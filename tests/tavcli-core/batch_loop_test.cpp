#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

#include "bin/AgentWatch.h"
#include "bin/BatchLoop.h"
#include "bin/BusState.h"

namespace {

using std::chrono::seconds;
using tavcli::BatchEnd;
using tavcli::IPause;
using tavcli::MarkWait;
using testing::ElementsAre;

/// Waits for no time: records each wait and runs the script's step for the wait.
class ScriptedPause : public IPause {
 public:
  struct Step {
    std::function<void()> happening = [] {};
    End end = End::kElapsed;
  };
  End sleep(seconds time) override {
    waits.push_back(static_cast<int>(time.count()));
    return next();
  }
  End sleepUntilFinal(seconds time) override {
    waits.push_back(-static_cast<int>(time.count()));
    return next();
  }
  void setEverySecond(std::function<void()>) override {}
  void endBySignal() override {}

  std::vector<int> waits;  ///< seconds; negative for a wait that a final state may end
  std::deque<Step> script;

 private:
  End next() {
    if (script.empty()) {
      return End::kElapsed;
    }
    const Step step = script.front();
    script.pop_front();
    step.happening();
    return step.end;
  }
};

ScriptedPause::Step stateTurns(std::uint32_t state, IPause::End end = IPause::End::kElapsed) {
  return {[state] { g_lastBusState = state; }, end};
}

class BatchLoop : public testing::Test {
 protected:
  BatchLoop() { g_lastBusState = tavcli::kBusStateNone; }
  ~BatchLoop() override { g_lastBusState = tavcli::kBusStateNone; }

  BatchEnd run(int timeoutSec) {
    const tavcli::BatchHost host{[this](const char* line) { lines_.emplace_back(line); },
                                 [this](const std::string& line) { complaints_.push_back(line); },
                                 [] { return 7; }};
    return tavcli::runBatch({"/data", "/tmp/r", timeoutSec}, host, pause_);
  }

  ScriptedPause pause_;
  std::vector<std::string> lines_;
  std::vector<std::string> complaints_;
};

constexpr const char* kLine =
    "SCAN START HANDLE UPLOAD SPECIALCONFIG OFF MODE CUSTOM PATH /data LOGPATH tav1/tmp/r";

TEST_F(BatchLoop, GivesTheScanCommandOnce) {
  pause_.script = {stateTurns(tavcli::kBusStateClean, IPause::End::kFinalState)};
  run(100);
  EXPECT_THAT(lines_, ElementsAre(kLine));
}

TEST_F(BatchLoop, ACleanEndGives0) {
  pause_.script = {stateTurns(tavcli::kBusStateClean, IPause::End::kFinalState)};
  EXPECT_EQ(run(100).exitCode, 0);
  EXPECT_THAT(complaints_, ElementsAre());
}

TEST_F(BatchLoop, AnInfectedEndGives1) {
  pause_.script = {stateTurns(tavcli::kBusStateInfected, IPause::End::kFinalState)};
  EXPECT_EQ(run(100).exitCode, 1);
}

TEST_F(BatchLoop, AnyOtherStateGives1) {
  pause_.script = {stateTurns(0x7)};
  EXPECT_EQ(run(100).exitCode, 1);
}

TEST_F(BatchLoop, AStateThatStandsAlreadyIsNotWaitedFor) {
  const tavcli::BatchHost host{[](const char*) { g_lastBusState = tavcli::kBusStateInfected; },
                               [](const std::string&) {}, [] { return 7; }};
  EXPECT_EQ(tavcli::runBatch({"/data", "/tmp/r", 100}, host, pause_).exitCode, 1);
  EXPECT_THAT(pause_.waits, ElementsAre());
}

TEST_F(BatchLoop, WaitsInStepsOf10SecondsThatAFinalStateEnds) {
  pause_.script = {{}, {}, stateTurns(tavcli::kBusStateClean, IPause::End::kFinalState)};
  run(100);
  EXPECT_THAT(pause_.waits, ElementsAre(-10, -10, -10));
}

/// The line about a scan whose end the run has not seen.
std::string notEndedWithin(int timeoutSec) {
  return "tavcli: the scan of /data has not ended within " + std::to_string(timeoutSec) +
         " seconds; it may still be running";
}

TEST_F(BatchLoop, ATimeoutGives0AndOneLineForTheOperator) {
  EXPECT_EQ(run(30).exitCode, 0);
  EXPECT_THAT(pause_.waits, ElementsAre(-10, -10, -10));
  EXPECT_THAT(complaints_, ElementsAre(notEndedWithin(30)));
}

TEST_F(BatchLoop, ATimeoutIsRoundedUpToWholeSteps) {
  run(11);
  EXPECT_THAT(pause_.waits, ElementsAre(-10, -10));
}

/// The line about a scan that ended in the last wait.
std::string endedInTheLastWait(int timeoutSec) {
  return "tavcli: the scan of /data was over in the last wait of the timeout of " +
         std::to_string(timeoutSec) + " seconds: infected files 7, report /tmp/r";
}

TEST_F(BatchLoop, AWaitThatTheEndOfTheTaskCutsShortIsChargedInFull) {
  pause_.script = {stateTurns(tavcli::kBusStateInfected, IPause::End::kFinalState)};
  EXPECT_EQ(run(10).exitCode, 0) << "the timeout has run out";
  EXPECT_THAT(complaints_, ElementsAre(endedInTheLastWait(10)));
}

TEST_F(BatchLoop, AnInfectedEndWithAWaitLeftGives1) {
  pause_.script = {stateTurns(tavcli::kBusStateInfected, IPause::End::kFinalState)};
  EXPECT_EQ(run(11).exitCode, 1);
  EXPECT_THAT(complaints_, ElementsAre());
}

TEST_F(BatchLoop, ACleanEndInTheLastWaitIsToldToo) {
  pause_.script = {{}, stateTurns(tavcli::kBusStateClean, IPause::End::kFinalState)};
  EXPECT_EQ(run(20).exitCode, 0);
  EXPECT_THAT(complaints_, ElementsAre(endedInTheLastWait(20)));
}

TEST_F(BatchLoop, ABusyAgentGetsTheCommandAgainAndTheStateIsReset) {
  pause_.script = {stateTurns(tavcli::kBusStateBusy),
                   {[] { EXPECT_EQ(g_lastBusState, tavcli::kBusStateNone); }, IPause::End::kElapsed},
                   stateTurns(tavcli::kBusStateClean, IPause::End::kFinalState)};
  EXPECT_EQ(run(100).exitCode, 0);
  EXPECT_THAT(lines_, ElementsAre(kLine, kLine));
  EXPECT_THAT(pause_.waits, ElementsAre(-10, 30, -10)) << "the pause of 30 seconds cannot be cut short";
}

TEST_F(BatchLoop, TheAnswerToARepeatedCommandIsReadAfterItsPause) {
  pause_.script = {stateTurns(tavcli::kBusStateBusy), stateTurns(tavcli::kBusStateInfected)};
  EXPECT_EQ(run(100).exitCode, 1);
  EXPECT_THAT(pause_.waits, ElementsAre(-10, 30));
}

TEST_F(BatchLoop, ABusyAgentUsesTheTimeoutUpInStepsOf30) {
  for (int i = 0; i < 4; ++i) {
    pause_.script.push_back(stateTurns(tavcli::kBusStateBusy));
  }
  EXPECT_EQ(run(70).exitCode, 0);
  EXPECT_THAT(pause_.waits, ElementsAre(-10, 30, 30));
  EXPECT_EQ(complaints_.size(), 1U);
}

TEST_F(BatchLoop, ATaskThatEndsInTheLastPauseBehindABusyAgentGives0AndOneLine) {
  pause_.script = {stateTurns(tavcli::kBusStateBusy), stateTurns(tavcli::kBusStateInfected)};
  EXPECT_EQ(run(40).exitCode, 0);
  EXPECT_THAT(complaints_, ElementsAre(endedInTheLastWait(40)));
}

TEST_F(BatchLoop, AStateThatComesAsTheLastWaitIsOverGives0AndOneLine) {
  pause_.script = {stateTurns(tavcli::kBusStateInfected, IPause::End::kElapsed)};
  EXPECT_EQ(run(10).exitCode, 0);
  EXPECT_THAT(complaints_, ElementsAre(endedInTheLastWait(10)));
}

TEST_F(BatchLoop, AnAgentThatIsBusyToTheEndIsATimeout) {
  pause_.script = {stateTurns(tavcli::kBusStateBusy), stateTurns(tavcli::kBusStateBusy)};
  EXPECT_EQ(run(40).exitCode, 0);
  EXPECT_THAT(complaints_, ElementsAre(notEndedWithin(40)));
}

TEST_F(BatchLoop, ASignalEndsAWait) {
  pause_.script = {{[] {}, IPause::End::kSignal}};
  EXPECT_TRUE(run(100).signalled);
  EXPECT_THAT(pause_.waits, ElementsAre(-10));
  EXPECT_THAT(complaints_, ElementsAre());
}

TEST_F(BatchLoop, ASignalEndsThePauseBehindABusyAgent) {
  pause_.script = {stateTurns(tavcli::kBusStateBusy), {[] {}, IPause::End::kSignal}};
  EXPECT_TRUE(run(100).signalled);
  EXPECT_THAT(pause_.waits, ElementsAre(-10, 30));
}

TEST_F(BatchLoop, TheLargestTimeoutDoesNotOverflow) {
  pause_.script = {stateTurns(tavcli::kBusStateClean, IPause::End::kFinalState)};
  EXPECT_EQ(run(2147483647).exitCode, 0);
}

class MarkWaiting : public testing::Test {
 protected:
  MarkWait wait(int timeoutSec) {
    return tavcli::waitForMark(
        timeoutSec, [this] { return results_.at(tries_++); }, pause_);
  }

  ScriptedPause pause_;
  std::vector<int> results_;
  std::size_t tries_ = 0;
};

TEST_F(MarkWaiting, EndsAtOnceWhenTheMarkIsFree) {
  results_ = {1};
  EXPECT_EQ(wait(1), MarkWait::kAcquired);
  EXPECT_THAT(pause_.waits, ElementsAre());
}

TEST_F(MarkWaiting, TriesEvery30SecondsWhileAnotherHoldsIt) {
  results_ = {2, 2, 1};
  EXPECT_EQ(wait(100), MarkWait::kAcquired);
  EXPECT_THAT(pause_.waits, ElementsAre(30, 30));
}

TEST_F(MarkWaiting, EndsWithItsTimeout) {
  results_ = {2, 2};
  EXPECT_EQ(wait(60), MarkWait::kTimedOut);
  EXPECT_THAT(pause_.waits, ElementsAre(30, 30));
}

TEST_F(MarkWaiting, OfTimeout0OrLessNeverTries) {
  EXPECT_EQ(wait(0), MarkWait::kTimedOut);
  EXPECT_EQ(wait(-5), MarkWait::kTimedOut);
  EXPECT_EQ(tries_, 0U);
}

TEST_F(MarkWaiting, EndsAtOnceWhenTheMarkCannotBeMade) {
  results_ = {2, 0};
  EXPECT_EQ(wait(100), MarkWait::kFailed);
  EXPECT_THAT(pause_.waits, ElementsAre(30));
}

TEST_F(MarkWaiting, EndsWithASignal) {
  results_ = {2};
  pause_.script = {{[] {}, IPause::End::kSignal}};
  EXPECT_EQ(wait(100), MarkWait::kSignal);
}

class Watching : public testing::Test {
 protected:
  bool up_ = true;
  std::vector<std::string> complaints_;
  tavcli::AgentWatch watch_{[this] { return up_; },
                            [this](const std::string& line) { complaints_.push_back(line); }};
};

TEST_F(Watching, AnAgentThatAnswersIsSilent) {
  watch_.look();
  watch_.look();
  EXPECT_THAT(complaints_, ElementsAre());
}

TEST_F(Watching, TheLossOfTheAgentIsOneLine) {
  up_ = false;
  watch_.look();
  watch_.look();
  EXPECT_THAT(complaints_, ElementsAre(testing::HasSubstr("the agent is gone")));
}

TEST_F(Watching, ItsReturnIsOneLine) {
  up_ = false;
  watch_.look();
  up_ = true;
  watch_.look();
  watch_.look();
  ASSERT_EQ(complaints_.size(), 2U);
  EXPECT_THAT(complaints_[1], testing::HasSubstr("answers again"));
}

TEST_F(Watching, AReturnThatEndsTheRunIsToldBehindIt) {
  up_ = false;
  watch_.look();
  up_ = true;
  watch_.lookForReturn();
  ASSERT_EQ(complaints_.size(), 2U);
  EXPECT_THAT(complaints_[1], testing::HasSubstr("answers again"));
}

TEST_F(Watching, BehindARunWithoutALossNobodyAsks) {
  up_ = false;
  watch_.lookForReturn();
  EXPECT_THAT(complaints_, ElementsAre());
}

}  // namespace
