// The budgets of files, seen from the agent.

#include <gmock/gmock.h>
#include <sys/statfs.h>

#include "WorkerFixture.h"
#include "support/BombMaker.h"
#include "support/LibarchiveMaker.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::HasSubstr;
using testsupport::eicar;
using testsupport::makeDocumentOfSharedStreams;
using testsupport::makeLzma;

class WorkerBudgets : public testing::WorkerFixture {};

TEST_F(WorkerBudgets, AWorkerThatLoopsEndsWithTheProcessorTimeOfItsFile) {
  config().limits.processorMs = 1;
  config().limits.processorMsPer100Mb = 0;
  config().limits.clockFactor = 100000;
  config().beforeFile = [](const std::string& name) {
    for (volatile bool loops = name.ends_with("loop"); loops;) {
    }
  };
  WorkerPool pool(spawner(), 1);
  begin(pool, "loop", "some text");
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("loop").outcome, Outcome::kError);
  EXPECT_EQ(verdict("loop").reason, "the scan used more processor time than its budget of 1 ms");
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected) << describe(verdict("behind"));
}

TEST_F(WorkerBudgets, AStoppedWorkerIsEndedByTheClock) {
  config().limits.processorMs = 1;
  config().limits.processorMsPer100Mb = 0;
  config().beforeFile = [](const std::string& name) {
    if (name.ends_with("stop")) {
      raise(SIGSTOP);
    }
  };
  WorkerPool pool(spawner(), 1);
  begin(pool, "stop", "some text");
  begin(pool, "behind", eicar());
  pool.drain();
  EXPECT_EQ(verdict("stop").outcome, Outcome::kError);
  EXPECT_THAT(verdict("stop").reason, HasSubstr("by the clock and was ended"));
  EXPECT_EQ(verdict("behind").outcome, Outcome::kInfected) << describe(verdict("behind"));
}

class ConfinedBudgets : public testing::ConfinedWorkerFixture {
 protected:
  static void expectError(const Verdict& verdict, const std::string& reason) {
    EXPECT_EQ(verdict.outcome, Outcome::kError);
    EXPECT_THAT(describe(verdict), HasSubstr(reason));
  }
  /// Of the templates' file system.
  static std::uint64_t bytesInUse() {
    const std::string root = "/proc/" + std::to_string(processesNamed("tav-template").at(0)) + "/root";
    struct statfs status {};
    EXPECT_EQ(statfs(root.c_str(), &status), 0);
    return (status.f_blocks - status.f_bfree) * static_cast<std::uint64_t>(status.f_bsize);
  }
};

TEST_F(ConfinedBudgets, TemporarySpaceEndsAScanAndIsFreeAgain) {
  config().limits.tempBytes = 4U << 20;
  WorkerPool pool(spawner(), 1);
  ASSERT_EQ(scan(pool, "before", eicar()).outcome, Outcome::kInfected) << describe(verdict("before"));
  const auto before = bytesInUse();
  const auto processes = processesNamed("tav-worker");
  expectError(scan(pool, "document", makeDocumentOfSharedStreams(600, 1'000'000)),
              "more temporary space than its budget of 4194304 bytes");
  EXPECT_EQ(bytesInUse(), before);
  EXPECT_EQ(processesNamed("tav-worker"), processes) << "the worker goes on";
  EXPECT_EQ(scan(pool, "after", eicar()).outcome, Outcome::kInfected) << describe(verdict("after"));
}

TEST_F(ConfinedBudgets, ProcessorTimeEndsAScan) {
  config().limits.processorMs = 1;
  config().limits.clockFactor = 100000;
  config().limits.processorMsPer100Mb = 0;
  WorkerPool pool(spawner(), 1);
  expectError(scan(pool, "zeros", testsupport::packedBy("zstd", std::string(100U << 20, '\0'))),
              "more processor time than its budget of 1 ms");
  EXPECT_EQ(scan(pool, "after", eicar()).outcome, Outcome::kInfected) << describe(verdict("after"));
}

TEST_F(ConfinedBudgets, MemoryOfADecoderIsLimited) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "the sanitizer's memory is above the limit";
#endif
  WorkerPool pool(spawner(), 1);
  const Verdict small = scan(pool, "small", makeLzma(1U << 20));
  EXPECT_EQ(small.outcome, Outcome::kClean) << describe(small);
  expectError(scan(pool, "large", makeLzma(1U << 30)), "needs more memory than a scan may use");
  EXPECT_EQ(scan(pool, "after", eicar()).outcome, Outcome::kInfected) << describe(verdict("after"));
}

}  // namespace
}  // namespace agent
