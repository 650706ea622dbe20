// The pool's end of a worker. The test plays the worker.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "EngineFixture.h"
#include "support/Process.h"
#include "support/Wait.h"
#include "worker/Pidfd.h"
#include "worker/PoolWorker.h"

namespace agent {
namespace {

using Clock = PoolWorker::Clock;

class PoolWorkers : public ::testing::Test {
 protected:
  PoolWorkers() {
    auto [ours, theirs] = Channel::pair().value();
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
  tl::expected<void, NotSent> begin(std::uint64_t id, std::uint64_t bytes = 10) {
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
  static void expectNotSent(const tl::expected<void, NotSent>& sent, bool peerGone, const char* reason) {
    ASSERT_FALSE(sent);
    EXPECT_EQ(sent.error().peerGone, peerGone);
    EXPECT_EQ(sent.error().reason, reason);
  }
  PoolWorker::Received receive() { return worker_->receive(answered_); }
  /// The start of the current file.
  Clock::time_point since() const { return worker_->deadline(std::chrono::milliseconds(0)).value(); }

  std::optional<PoolWorker> worker_;
  Channel other_;
  PoolWorker::Answered answered_;
};

TEST_F(PoolWorkers, TheTimeLimitStartsAtTheHelloAndAgainAtEachAnswer) {
  EXPECT_FALSE(worker_->deadline(std::chrono::milliseconds(0))) << "the worker has no file";
  const auto begun = Clock::now();
  ASSERT_TRUE(begin(1));
  EXPECT_GE(since(), begun);
  const auto hello = Clock::now();
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  EXPECT_GE(since(), hello) << "a file sent before starts at the hello";
  const auto first = since();
  ASSERT_TRUE(begin(2));
  EXPECT_EQ(since(), first) << "a queued file gives the current file no more time";
  const auto answer = Clock::now();
  sayAnswer(1);
  ASSERT_EQ(receive(), PoolWorker::Received::kAnswer);
  EXPECT_GE(since(), answer) << "the next file has its full time";
  sayAnswer(2);
  ASSERT_EQ(receive(), PoolWorker::Received::kAnswer);
  EXPECT_FALSE(worker_->deadline(std::chrono::milliseconds(0)));
  const auto third = Clock::now();
  ASSERT_TRUE(begin(3));
  EXPECT_GE(since(), third) << "idle time does not count";
  EXPECT_EQ(*worker_->deadline(std::chrono::milliseconds(5)), since() + std::chrono::milliseconds(5));
}

TEST_F(PoolWorkers, AnAnswerBelongsToTheFirstFileAndReturnsItsTask) {
  ASSERT_TRUE(begin(1));
  ASSERT_TRUE(begin(2));
  EXPECT_FALSE(worker_->helloReceived());
  EXPECT_EQ(receive(), PoolWorker::Received::kNothing);
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  EXPECT_TRUE(worker_->helloReceived());
  sayAnswer(1);
  ASSERT_EQ(receive(), PoolWorker::Received::kAnswer);
  EXPECT_EQ(answered_.task.id, 1U);
  EXPECT_EQ(answered_.verdict.reason, "answer 1");
  EXPECT_EQ(worker_->load(), 1U);
  EXPECT_FALSE(worker_->idle());
}

TEST_F(PoolWorkers, AnAnswerToAnotherFileEndsTheWorker) {
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  ASSERT_TRUE(begin(1));
  ASSERT_TRUE(begin(2));
  sayAnswer(2);
  EXPECT_EQ(receive(), PoolWorker::Received::kEnded);
  EXPECT_EQ(worker_->takeTasks().size(), 2U) << "neither file is answered";
}

TEST_F(PoolWorkers, AnAnswerWithoutAFileEndsTheWorker) {
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  sayAnswer(0);
  EXPECT_EQ(receive(), PoolWorker::Received::kEnded);
}

TEST_F(PoolWorkers, ASecondHelloOrAnUnknownMessageEndsTheWorker) {
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  sayHello();
  EXPECT_EQ(receive(), PoolWorker::Received::kEnded);
  ASSERT_TRUE(other_.send("nonsense"));
  EXPECT_EQ(receive(), PoolWorker::Received::kEnded);
}

TEST_F(PoolWorkers, AWorkerTakesUpToFourFilesOfTwoMebibytesAndAnIdleOneAnyFile) {
  constexpr std::uint64_t kMost = 2U << 20;
  EXPECT_TRUE(worker_->accepts(kMost * 1000));
  ASSERT_TRUE(begin(1, 10));
  EXPECT_TRUE(worker_->accepts(kMost - 10));
  EXPECT_FALSE(worker_->accepts(kMost - 9));
  for (std::uint64_t id = 2; id <= 4; ++id) {
    EXPECT_TRUE(worker_->accepts(0)) << id;
    ASSERT_TRUE(begin(id, 10));
  }
  EXPECT_FALSE(worker_->accepts(0)) << "the worker has four files";
  sayAnswer(1);
  ASSERT_EQ(receive(), PoolWorker::Received::kAnswer);
  EXPECT_TRUE(worker_->accepts(kMost - 30)) << "the answered file does not count";
  EXPECT_FALSE(worker_->accepts(kMost - 29));
  EXPECT_EQ(worker_->takeTasks().size(), 3U);
  EXPECT_TRUE(worker_->idle());
  ASSERT_TRUE(begin(5, 10));
  EXPECT_TRUE(worker_->accepts(kMost - 10)) << "files that were taken back do not count";
}

TEST_F(PoolWorkers, AFileThatNoWorkerCanTakeDiffersFromAGoneWorker) {
  PoolTask none = task(1);
  none.fd.reset();
  expectNotSent(worker_->begin(none), false, "Bad file descriptor");
  PoolTask large = task(2);
  large.options.archiveFormats.assign(200, std::string(1000, 'x'));
  expectNotSent(worker_->begin(large), false, "Message too long");
  EXPECT_TRUE(large.fd) << "a refused file stays the caller's";
  EXPECT_TRUE(worker_->idle());
  other_.close();
  PoolTask one = task(3);
  expectNotSent(worker_->begin(one), true, "Broken pipe");
  EXPECT_TRUE(one.fd);
  EXPECT_EQ(receive(), PoolWorker::Received::kEnded);
}

TEST_F(PoolWorkers, AWorkerThatDiedWithUnreadFilesIsGone) {
  ASSERT_TRUE(begin(1));
  other_.close();
  expectNotSent(begin(2), true, "Connection reset by peer");
  EXPECT_EQ(receive(), PoolWorker::Received::kEnded);
  EXPECT_EQ(worker_->takeTasks().size(), 1U);
}

/// A waiting process, killed in the place of a worker.
class PoolWorkerProcess : public PoolWorkers {
 protected:
  testsupport::Process process_{{"/bin/sleep", "600"}};
  const platform::Descriptor pidfd_{pidfd_open(process_.pid(), 0)};
};

TEST_F(PoolWorkerProcess, IsKilledAfterItsHello) {
  sayHello(pidfd_.get());
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  worker_->kill();
  EXPECT_EQ(process_.wait(), 128 + SIGKILL);
  EXPECT_FALSE(other_.send("to nobody"));
}

TEST_F(PoolWorkerProcess, IsKilledBeforeItsHelloIsRead) {
  sayHello(pidfd_.get());
  worker_->kill();
  EXPECT_EQ(process_.wait(), 128 + SIGKILL);
}

TEST_F(PoolWorkerProcess, IsNotKilledForAnotherMessage) {
  ASSERT_TRUE(other_.send(encode(ScanAnswer{}), pidfd_.get()));
  worker_->kill();
  process_.kill(SIGTERM);
  EXPECT_EQ(process_.wait(), 128 + SIGTERM) << "no other signal came earlier";
}

TEST_F(PoolWorkerProcess, OfASecondHelloIsNotKilled) {
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  sayHello(pidfd_.get());
  worker_->kill();
  process_.kill(SIGTERM);
  EXPECT_EQ(process_.wait(), 128 + SIGTERM) << "a worker names no other process";
}

TEST_F(PoolWorkerProcess, IsStoppedOnlyInAFileThatWasInterruptedOftenAndTheStopIsNoTimeOfTheFile) {
  const auto isStopped = [this] {
    return testsupport::readFile("/proc/" + std::to_string(process_.pid()) + "/stat").find(") T ") !=
           std::string::npos;
  };
  PoolTask often = task(1);
  often.interruptions = 1;
  ASSERT_TRUE(worker_->begin(often));
  EXPECT_FALSE(worker_->stopAfter(1)) << "it has not begun";
  sayHello(pidfd_.get());
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  EXPECT_FALSE(worker_->stopAfter(2));
  EXPECT_TRUE(worker_->runs());
  const auto begun = since();
  EXPECT_TRUE(worker_->stopAfter(1));
  EXPECT_FALSE(worker_->runs());
  EXPECT_FALSE(worker_->deadline(std::chrono::milliseconds(0)));
  EXPECT_TRUE(testsupport::waitFor(isStopped));
  worker_->goOn();
  EXPECT_TRUE(testsupport::waitFor([&] { return !isStopped(); }));
  EXPECT_GT(since(), begun);
}

TEST_F(PoolWorkerProcess, ThatAnsweredBeforeItWasStoppedGoesOn) {
  sayHello(pidfd_.get());
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  ASSERT_TRUE(begin(1));
  sayAnswer(1);
  EXPECT_TRUE(worker_->stopAfter(0));
  ASSERT_EQ(receive(), PoolWorker::Received::kAnswer);
  EXPECT_TRUE(worker_->idle());
  EXPECT_TRUE(testsupport::waitFor([this] {
    return testsupport::readFile("/proc/" + std::to_string(process_.pid()) + "/stat").find(") S ") !=
           std::string::npos;
  }));
}

TEST_F(PoolWorkers, OnlyTheFileThatHadBegunCountsAnInterruption) {
  ASSERT_TRUE(begin(1));
  EXPECT_EQ(0, worker_->takeInterrupted().at(0).interruptions) << "before the hello";
  sayHello();
  ASSERT_EQ(receive(), PoolWorker::Received::kHello);
  ASSERT_TRUE(begin(2));
  ASSERT_TRUE(begin(3));
  const auto tasks = worker_->takeInterrupted();
  EXPECT_EQ(1, tasks.at(0).interruptions);
  EXPECT_EQ(0, tasks.at(1).interruptions);
}

TEST_F(PoolWorkerProcess, CannotSendItsHelloAfterAKill) {
  worker_->kill();
  EXPECT_FALSE(other_.send(encode(WorkerHello{}), pidfd_.get()));
}

}  // namespace
}  // namespace agent
