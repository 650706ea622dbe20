// A pool that is held: what runs is interrupted, waits, and ends after the release.

#include <gmock/gmock.h>

#include <thread>

#include "WorkerFixture.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::eicar;
using testsupport::waitFor;

const std::string kLarge(3U << 20, 'x');  // no file is sent to a worker behind one of this size

class HeldPools : public testing::WorkerFixture {
 protected:
  void beginCounted(WorkerPool& pool, const std::string& name, const std::string& content) {
    const std::string path = dir().write(name, content);
    pool.scan(openFile(path), path, {}, [this, done = keep(name)](Verdict verdict) {
      ++callbacks_;
      done(std::move(verdict));
    });
  }
  bool haveBegun(std::size_t files) const {
    return waitFor([&] { return begun().size() == files; });
  }
  bool isStopped() const {
    return testsupport::readFile("/proc/" + begun().back().process + "/stat").find(") T ") !=
           std::string::npos;
  }
  static void holdAndWait(WorkerPool& pool) {
    pool.hold();
    pool.waitHeld();
  }
  std::atomic<int> callbacks_{0};
};

TEST_F(HeldPools, AFileThatRunsIsInterruptedAndBeginsAgainBeforeAllOthersAtTheRelease) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 1);
  for (const char* name : {"held", "a", "b", "c", "d", "e"}) {  // the worker takes four, two are queued
    beginCounted(pool, name, eicar());
  }
  ASSERT_TRUE(haveBegun(1));
  holdAndWait(pool);
  EXPECT_EQ(0, callbacks_);
  EXPECT_FALSE(pool.drain());
  EXPECT_TRUE(waitFor([] { return workerCount() == 0; }));
  open();
  EXPECT_THAT(namesBegun(), ElementsAre("held"));
  pool.release();
  EXPECT_TRUE(pool.drain());
  EXPECT_THAT(namesBegun(), ElementsAre("held", "held", "a", "b", "c", "d", "e"));
  EXPECT_EQ(6, callbacks_);
  for (const char* name : {"held", "a", "b", "c", "d", "e"}) {
    EXPECT_EQ(verdict(name).outcome, Outcome::kInfected) << describe(verdict(name));
  }
}

TEST_F(HeldPools, TheFilesOfAllWorkersAreInterruptedAndEachEndsOnce) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 3);
  for (const char* name : {"held1", "held2", "held3"}) {
    begin(pool, name, kLarge);
  }
  ASSERT_TRUE(haveBegun(3));
  holdAndWait(pool);
  EXPECT_TRUE(waitFor([] { return workerCount() == 0; }));
  open();
  pool.release();
  EXPECT_TRUE(pool.drain());
  EXPECT_EQ(6U, begun().size());
  for (const char* name : {"held1", "held2", "held3"}) {
    EXPECT_EQ(verdict(name).outcome, Outcome::kClean) << describe(verdict(name));
  }
}

TEST_F(HeldPools, AFileThatIsInterruptedAgainAndAgainKeepsItsWorkerAndEnds) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 1);
  beginCounted(pool, "held", eicar());
  for (std::size_t times = 1; times <= 2; ++times) {
    ASSERT_TRUE(haveBegun(times));
    holdAndWait(pool);
    pool.release();
  }
  ASSERT_TRUE(haveBegun(3));
  for (int times = 0; times < 3; ++times) {
    holdAndWait(pool);
    EXPECT_TRUE(waitFor([&] { return isStopped(); }));
    pool.release();
    EXPECT_TRUE(waitFor([&] { return !isStopped(); }));
  }
  open();
  EXPECT_TRUE(pool.drain());
  EXPECT_THAT(namesBegun(), ElementsAre("held", "held", "held"));
  EXPECT_EQ(1, callbacks_);
  EXPECT_EQ(verdict("held").outcome, Outcome::kInfected) << describe(verdict("held"));
}

TEST_F(HeldPools, AHeldPoolTakesAnyNumberOfFilesAndBeginsNone) {
  holdFilesNamed("none");
  WorkerPool pool(spawner(), 1);
  holdAndWait(pool);
  for (int i = 0; i < 10; ++i) {
    beginCounted(pool, "file" + std::to_string(i), eicar());
  }
  EXPECT_FALSE(pool.drain());
  EXPECT_THAT(begun(), IsEmpty());
  pool.release();
  EXPECT_TRUE(pool.drain());
  EXPECT_EQ(10U, begun().size());
  EXPECT_EQ(10, callbacks_);
}

TEST_F(HeldPools, AHoldEndsTheWaitOfAFileForAPlaceInTheQueueAndTheWaitForTheLastFile) {
  holdFilesNamed("held");
  WorkerPool pool(spawner(), 1);
  begin(pool, "held", kLarge);
  ASSERT_TRUE(haveBegun(1));
  std::atomic<pid_t> thread{0};
  std::atomic<int> handed{0};
  bool drained = true;
  std::thread caller([&] {
    thread = gettid();
    for (int i = 0; i < 5; ++i) {
      begin(pool, "queued" + std::to_string(i), kLarge);
      ++handed;
    }
    drained = pool.drain();
  });
  EXPECT_TRUE(waitFor([&] { return handed == 4 && testsupport::threadSleeps(thread); }));
  pool.hold();
  caller.join();
  EXPECT_EQ(5, handed);
  EXPECT_FALSE(drained);
  open();
  pool.release();
  EXPECT_TRUE(pool.drain());
}

TEST_F(HeldPools, AHeldPoolCanBeCancelled) {
  holdFilesNamed("held");
  for (const int interruptions : {1, 3}) {  // the third time its worker is stopped, not ended
    const std::size_t before = begun().size();
    WorkerPool pool(spawner(), 1);
    begin(pool, "held", "some text");
    begin(pool, "queued", kLarge);
    for (int i = 1; i <= interruptions; ++i) {
      pool.release();
      ASSERT_TRUE(haveBegun(before + static_cast<std::size_t>(i)));
      holdAndWait(pool);
    }
    pool.cancel(true);
    EXPECT_TRUE(pool.drain());
    EXPECT_EQ(verdict("held").reason, "cancelled");
    EXPECT_EQ(verdict("queued").reason, "cancelled");
    EXPECT_TRUE(waitFor([] { return workerCount() == 0; }));
    pool.hold();
    pool.waitHeld();  // of no effect behind a cancel
    begin(pool, "late", "some text");
    EXPECT_TRUE(pool.drain());
    EXPECT_EQ(verdict("late").reason, "cancelled");
  }
}

TEST_F(HeldPools, AHeldPoolCanEnd) {
  holdFilesNamed("held");
  {
    WorkerPool pool(spawner(), 1);
    beginCounted(pool, "held", "some text");
    ASSERT_TRUE(haveBegun(1));
    holdAndWait(pool);
  }
  EXPECT_EQ(verdict("held").reason, "cancelled");
  EXPECT_EQ(1, callbacks_);
}

}  // namespace
}  // namespace agent
