#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/Wait.h"
#include "task/TaskControl.h"

namespace agent {
namespace {

using testsupport::waitFor;

/// A thread that works until a stop, and counts its pauses.
class Worker {
 public:
  explicit Worker(TaskControl& control) {
    control.onPause([this] { ++pauses; }, [this] { ++resumes; });
    thread_ = std::thread([this, &control] {
      while (control.keepGoing()) {
        ++steps;
        std::this_thread::yield();
      }
      ended = true;
    });
  }
  ~Worker() { thread_.join(); }
  std::atomic<long> steps{0}, pauses{0}, resumes{0};
  std::atomic<bool> ended{false};

 private:
  std::thread thread_;
};

TEST(TaskControl, APausedTaskDoesNothingUntilItIsResumed) {
  TaskControl control;
  Worker worker(control);
  ASSERT_TRUE(waitFor([&] { return worker.steps > 10; }));
  EXPECT_TRUE(control.pause());
  ASSERT_TRUE(waitFor([&] { return worker.pauses == 1; }));
  EXPECT_TRUE(control.paused());
  const long steps = worker.steps;
  EXPECT_EQ(0, worker.resumes);
  EXPECT_EQ(steps, worker.steps);
  EXPECT_TRUE(control.resume());
  ASSERT_TRUE(waitFor([&] { return worker.steps > steps; }));
  EXPECT_EQ(1, worker.resumes);
  control.stop("done");
}

TEST(TaskControl, APauseThatWasTakenBackBeforeItWasSeenIsReportedAllTheSame) {
  TaskControl control;
  EXPECT_TRUE(control.pause());
  EXPECT_TRUE(control.resume());
  int pauses = 0;
  int resumes = 0;
  control.onPause([&] { ++pauses; }, [&] { ++resumes; });
  EXPECT_TRUE(control.keepGoing());
  EXPECT_EQ(1, pauses);
  EXPECT_EQ(1, resumes);
  EXPECT_TRUE(control.keepGoing());
  EXPECT_EQ(1, pauses);
}

TEST(TaskControl, APauseThatIsTakenBackWhileAnEarlierOneIsReportedIsReportedToo) {
  TaskControl control;
  std::string reported;
  control.onPause(
      [&] {
        reported += "paused ";
        if (reported == "paused ") {
          EXPECT_TRUE(control.resume());
          EXPECT_TRUE(control.pause());
          EXPECT_TRUE(control.resume());
        }
      },
      [&] { reported += "resumed "; });
  EXPECT_TRUE(control.pause());
  EXPECT_TRUE(control.keepGoing());
  EXPECT_EQ("paused resumed paused resumed ", reported);
}

TEST(TaskControl, APauseHoldsAtOnceAndTheTasksThreadReleasesBehindTheReportOfTheResume) {
  TaskControl control;
  std::string course;
  control.onHold([&] { course += "hold "; }, [&] { course += "release "; });
  control.onPause([&] { course += "paused "; }, [&] { course += "resumed "; });
  EXPECT_TRUE(control.pause());
  EXPECT_EQ("hold ", course);
  EXPECT_TRUE(control.resume());
  EXPECT_EQ("hold ", course);
  EXPECT_TRUE(control.keepGoing());
  EXPECT_EQ("hold paused resumed release ", course);
}

TEST(TaskControl, APauseThatFollowsAResumeIsNotReleasedByIt) {
  TaskControl control;
  std::string course;
  control.onHold([&] { course += "hold "; }, [&] { course += "release "; });
  control.onPause([&] { course += "paused "; },
                  [&] {
                    course += "resumed ";
                    if (course == "hold paused resumed ") {
                      EXPECT_TRUE(control.pause());
                    } else {
                      control.stop("enough");
                    }
                  });
  EXPECT_TRUE(control.pause());
  EXPECT_TRUE(control.resume());
  std::thread task([&] { EXPECT_FALSE(control.keepGoing()); });
  EXPECT_TRUE(waitFor([&] { return control.resume(); }));
  task.join();
  EXPECT_EQ("hold paused resumed hold paused resumed ", course);
}

TEST(TaskControl, StopEndsAPausedTask) {
  TaskControl control;
  Worker worker(control);
  control.pause();
  ASSERT_TRUE(waitFor([&] { return worker.pauses == 1; }));
  const long steps = worker.steps;
  EXPECT_TRUE(control.stop("why"));
  EXPECT_TRUE(waitFor([&] { return worker.ended.load(); }));
  EXPECT_EQ(steps, worker.steps);
  EXPECT_EQ(0, worker.resumes);
  EXPECT_EQ("why", control.stopReason());
}

TEST(TaskControl, AStopThatCameBeforeAPauseWasSeenIsNotReportedAsAPause) {
  TaskControl control;
  control.pause();
  control.stop("why");
  int calls = 0;
  control.onPause([&] { ++calls; }, [&] { ++calls; });
  EXPECT_FALSE(control.keepGoing());
  EXPECT_EQ(0, calls);
}

TEST(TaskControl, OnlyTheFirstStopCounts) {
  TaskControl control;
  int actions = 0;
  control.onStop([&] { ++actions; });
  EXPECT_TRUE(control.stop("first"));
  EXPECT_FALSE(control.stop("second"));
  EXPECT_EQ("first", control.stopReason());
  EXPECT_EQ(1, actions);
}

TEST(TaskControl, WhatDoesNotFitTheStateIsRefused) {
  TaskControl control;
  EXPECT_FALSE(control.resume());
  EXPECT_TRUE(control.pause());
  EXPECT_FALSE(control.pause());
  EXPECT_TRUE(control.stop("end"));
  EXPECT_FALSE(control.pause());
  EXPECT_FALSE(control.resume());
}

TEST(TaskControl, ATaskThatIsPausedAtItsEndFinishesWhenItIsResumed) {
  TaskControl control;
  EXPECT_TRUE(control.pause());
  std::atomic<int> pauses{0};
  std::atomic<int> resumes{0};
  std::atomic<bool> finished{false};
  control.onPause([&] { ++pauses; }, [&] { ++resumes; });
  std::thread task([&] { finished = control.finish(); });
  EXPECT_TRUE(waitFor([&] { return pauses == 1; }));
  EXPECT_FALSE(finished);
  EXPECT_TRUE(control.paused());
  EXPECT_TRUE(control.resume());
  task.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ(1, resumes);
}

TEST(TaskControl, APauseThatWasTakenIsReportedOnceHoweverNearTheEndItCame) {
  for (int round = 0; round < 2000; ++round) {
    TaskControl control;
    int pauses = 0;
    control.onPause([&] { ++pauses; }, [] {});
    std::atomic<bool> begun{false};
    bool taken = false;
    std::thread owner([&] {
      begun = true;
      taken = control.pause();
      control.resume();
    });
    while (!begun) {
      std::this_thread::yield();
    }
    EXPECT_TRUE(control.finish());
    owner.join();
    ASSERT_EQ(taken ? 1 : 0, pauses) << "round " << round;
  }
}

TEST(TaskControl, AStopThatWasTakenKeepsTheTaskFromFinishingHoweverNearTheEndItCame) {
  for (int round = 0; round < 5000; ++round) {
    TaskControl control;
    std::atomic<bool> begun{false};
    bool taken = false;
    std::thread owner([&] {
      begun = true;
      taken = control.stop("why");
    });
    while (!begun) {
      std::this_thread::yield();
    }
    const bool finished = control.finish();
    owner.join();
    ASSERT_NE(taken, finished) << "round " << round;
  }
}

TEST(TaskControl, ATaskThatIsStoppedWhilePausedAtItsEndDoesNotFinish) {
  TaskControl control;
  control.onPause([&] { control.stop("why"); }, [] {});
  control.pause();
  EXPECT_FALSE(control.finish());
  EXPECT_TRUE(control.stopping());
}

TEST(TaskControl, ATaskThatHasFinishedTakesNeitherAPauseNorAStop) {
  TaskControl control;
  EXPECT_TRUE(control.finish());
  EXPECT_FALSE(control.pause());
  EXPECT_FALSE(control.paused());
  EXPECT_FALSE(control.stop("late"));
  EXPECT_FALSE(control.stopping());
}

}  // namespace
}  // namespace agent
