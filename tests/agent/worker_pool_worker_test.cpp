// A worker as its pool sees it, its other end played by the test.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>

#include "EngineFixture.h"
#include "support/Process.h"
#include "worker/Pidfd.h"
#include "worker/PoolWorker.h"

namespace agent {
namespace {

using Clock = PoolWorker::Clock;

class PoolWorkers : public ::testing::Test {
 protected:
  PoolWorkers() {
    auto [ours, theirs] = Channel::pair();
    worker_.emplace(std::move(ours), 1);
    other_ = std::move(theirs);
  }

  PoolTask task(std::uint64_t id, std::uint64_t bytes = 10) const {
    PoolTask task;
    task.id = id;
    task.fd = platform::Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
    task.name = "file" + std::to_string(id);
    task.bytes = bytes;
    return task;
  }
  PoolWorker::Begun begin(std::uint64_t id, std::uint64_t bytes = 10) {
    PoolTask one = task(id, bytes);
    return worker_->begin(one);
  }
  void sayHello(int process = -1) { ASSERT_TRUE(other_.send(encode(WorkerHello{}), process)); }
  void sayAnswer(std::uint64_t id) {
    ScanAnswer answer;
    answer.id = id;
    answer.verdict.reason = "answer " + std::to_string(id);
    ASSERT_TRUE(other_.send(encode(answer)));
  }
  PoolWorker::Heard hear() { return worker_->hear(answered_); }
  /// Since when the file under way counts.
  Clock::time_point since() const { return worker_->deadline(std::chrono::milliseconds(0)).value(); }

  std::optional<PoolWorker> worker_;
  Channel other_;
  PoolWorker::Answered answered_;
};

TEST_F(PoolWorkers, TheTimeLimitBeginsWithTheHelloAndAnewWithEachAnswer) {
  EXPECT_FALSE(worker_->deadline(std::chrono::milliseconds(0))) << "nothing is under way";
  const auto begun = Clock::now();
  ASSERT_EQ(begin(1), PoolWorker::Begun::kYes);
  EXPECT_GE(since(), begun);
  const auto hello = Clock::now();
  sayHello();
  ASSERT_EQ(hear(), PoolWorker::Heard::kHello);
  EXPECT_GE(since(), hello) << "what was sent ahead begins with the hello";
  const auto first = since();
  ASSERT_EQ(begin(2), PoolWorker::Begun::kYes);
  EXPECT_EQ(since(), first) << "one more behind it gives the file under way no more time";
  const auto answer = Clock::now();
  sayAnswer(1);
  ASSERT_EQ(hear(), PoolWorker::Heard::kAnswer);
  EXPECT_GE(since(), answer) << "the next file has the whole of its time";
  sayAnswer(2);
  ASSERT_EQ(hear(), PoolWorker::Heard::kAnswer);
  EXPECT_FALSE(worker_->deadline(std::chrono::milliseconds(0)));
  const auto third = Clock::now();
  ASSERT_EQ(begin(3), PoolWorker::Begun::kYes);
  EXPECT_GE(since(), third) << "time without a file is no file's";
  EXPECT_EQ(*worker_->deadline(std::chrono::milliseconds(5)), since() + std::chrono::milliseconds(5));
}

TEST_F(PoolWorkers, AnAnswerIsTheFirstFilesAndBringsItBack) {
  ASSERT_EQ(begin(1), PoolWorker::Begun::kYes);
  ASSERT_EQ(begin(2), PoolWorker::Begun::kYes);
  EXPECT_FALSE(worker_->greeted());
  EXPECT_EQ(hear(), PoolWorker::Heard::kNothing);
  sayHello();
  ASSERT_EQ(hear(), PoolWorker::Heard::kHello);
  EXPECT_TRUE(worker_->greeted());
  sayAnswer(1);
  ASSERT_EQ(hear(), PoolWorker::Heard::kAnswer);
  EXPECT_EQ(answered_.task.id, 1U);
  EXPECT_EQ(answered_.verdict.reason, "answer 1");
  EXPECT_EQ(worker_->load(), 1U);
  EXPECT_FALSE(worker_->idle());
}

TEST_F(PoolWorkers, AnAnswerToAnotherFileThanTheOneUnderWayIsTheEndOfIt) {
  sayHello();
  ASSERT_EQ(hear(), PoolWorker::Heard::kHello);
  ASSERT_EQ(begin(1), PoolWorker::Begun::kYes);
  ASSERT_EQ(begin(2), PoolWorker::Begun::kYes);
  sayAnswer(2);
  EXPECT_EQ(hear(), PoolWorker::Heard::kEnded);
  EXPECT_EQ(worker_->takeTasks().size(), 2U) << "neither is answered";
}

TEST_F(PoolWorkers, AnAnswerToNothingIsTheEndOfIt) {
  sayHello();
  ASSERT_EQ(hear(), PoolWorker::Heard::kHello);
  sayAnswer(0);
  EXPECT_EQ(hear(), PoolWorker::Heard::kEnded);
}

TEST_F(PoolWorkers, ASecondHelloAndWhatIsNoMessageAreTheEndOfIt) {
  sayHello();
  ASSERT_EQ(hear(), PoolWorker::Heard::kHello);
  sayHello();
  EXPECT_EQ(hear(), PoolWorker::Heard::kEnded);
  ASSERT_TRUE(other_.send("nonsense"));
  EXPECT_EQ(hear(), PoolWorker::Heard::kEnded);
}

TEST_F(PoolWorkers, UpToFourFilesAndTwoMebibytesWaitInOneAndAnIdleOneTakesAnyFile) {
  constexpr std::uint64_t kMost = 2U << 20;
  EXPECT_TRUE(worker_->hasRoomFor(kMost * 1000));
  ASSERT_EQ(begin(1, 10), PoolWorker::Begun::kYes);
  EXPECT_TRUE(worker_->hasRoomFor(kMost - 10));
  EXPECT_FALSE(worker_->hasRoomFor(kMost - 9));
  for (std::uint64_t id = 2; id <= 4; ++id) {
    EXPECT_TRUE(worker_->hasRoomFor(0)) << id;
    ASSERT_EQ(begin(id, 10), PoolWorker::Begun::kYes);
  }
  EXPECT_FALSE(worker_->hasRoomFor(0)) << "four are there";
  sayAnswer(1);
  ASSERT_EQ(hear(), PoolWorker::Heard::kAnswer);
  EXPECT_TRUE(worker_->hasRoomFor(kMost - 30)) << "the answered one counts no more";
  EXPECT_FALSE(worker_->hasRoomFor(kMost - 29));
  EXPECT_EQ(worker_->takeTasks().size(), 3U);
  EXPECT_TRUE(worker_->idle());
  ASSERT_EQ(begin(5, 10), PoolWorker::Begun::kYes);
  EXPECT_TRUE(worker_->hasRoomFor(kMost - 10)) << "nor do those that were taken back";
}

TEST_F(PoolWorkers, WhatCannotBeHandedToAnyWorkerIsToldApartFromAWorkerThatIsGone) {
  PoolTask none = task(1);
  none.fd.reset();
  EXPECT_EQ(worker_->begin(none), PoolWorker::Begun::kCannot);
  EXPECT_EQ(errno, EBADF);
  PoolTask large = task(2);
  large.options.archiveFormats.assign(200, std::string(1000, 'x'));
  EXPECT_EQ(worker_->begin(large), PoolWorker::Begun::kCannot);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_TRUE(large.fd) << "a file that was not taken stays the caller's";
  EXPECT_TRUE(worker_->idle());
  other_.close();
  PoolTask one = task(3);
  EXPECT_EQ(worker_->begin(one), PoolWorker::Begun::kWorkerGone);
  EXPECT_TRUE(one.fd);
  EXPECT_EQ(hear(), PoolWorker::Heard::kEnded);
}

TEST_F(PoolWorkers, AWorkerThatDiedWithFilesUnreadIsGoneToo) {
  ASSERT_EQ(begin(1), PoolWorker::Begun::kYes);
  other_.close();
  EXPECT_EQ(begin(2), PoolWorker::Begun::kWorkerGone);
  EXPECT_EQ(hear(), PoolWorker::Heard::kEnded);
  EXPECT_EQ(worker_->takeTasks().size(), 1U);
}

/// A process that waits, to be killed as a worker.
class PoolWorkerProcess : public PoolWorkers {
 protected:
  testsupport::Process process_{{"/bin/sleep", "600"}};
  const platform::Descriptor pidfd_{pidfd_open(process_.pid(), 0)};
};

TEST_F(PoolWorkerProcess, IsKilledOnceItHasSaidHello) {
  sayHello(pidfd_.get());
  ASSERT_EQ(hear(), PoolWorker::Heard::kHello);
  worker_->kill();
  EXPECT_EQ(process_.wait(), 128 + SIGKILL);
  EXPECT_FALSE(other_.send("to nobody"));
}

TEST_F(PoolWorkerProcess, IsKilledWhenItsHelloHasNotBeenReadYet) {
  sayHello(pidfd_.get());
  worker_->kill();
  EXPECT_EQ(process_.wait(), 128 + SIGKILL);
}

TEST_F(PoolWorkerProcess, IsNotKilledForWhatIsNoHello) {
  ASSERT_TRUE(other_.send(encode(ScanAnswer{}), pidfd_.get()));
  worker_->kill();
  process_.kill(SIGTERM);
  EXPECT_EQ(process_.wait(), 128 + SIGTERM) << "no other signal came before";
}

TEST_F(PoolWorkerProcess, CannotSayHelloAnyMoreOnceItIsToBeKilled) {
  worker_->kill();
  EXPECT_FALSE(other_.send(encode(WorkerHello{}), pidfd_.get()));
}

}  // namespace
}  // namespace agent
