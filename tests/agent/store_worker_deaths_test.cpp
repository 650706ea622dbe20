#include <gtest/gtest.h>

#include "StoreFixture.h"
#include "store/Schema.h"
#include "store/WorkerDeaths.h"

namespace agent {
namespace {

using store::WorkerDeaths;

constexpr uid_t kOwner = 1000;

FileIdentity file(std::uint64_t inode, std::int64_t changeTimeNs = 1000) {
  return {.device = 1, .inode = inode, .size = 100, .changeTimeNs = changeTimeNs, .modifyTimeNs = 900};
}

class WorkerDeathsTest : public StoreTest {
 protected:
  WorkerDeaths& deaths() { return store().workerDeaths(); }
  WorkerDeaths::Count die(const FileIdentity& identity, uid_t owner = kOwner,
                          const std::string& signatures = "v1") {
    return deaths().add(identity, owner, signatures, now_);
  }
  void giveUp(const FileIdentity& identity) {
    for (std::size_t i = 0; i < WorkerDeaths::kDeathsToGiveUp; ++i) {
      die(identity);
    }
  }
  WorkerDeaths::Clock::time_point now_ = WorkerDeaths::Clock::now();
};

TEST_F(WorkerDeathsTest, TheThirdDeathWithinAnHourGivesTheFileUp) {
  EXPECT_FALSE(die(file(1)).givenUp);
  EXPECT_FALSE(die(file(1)).givenUp);
  EXPECT_FALSE(deaths().isGivenUp(file(1), "v1"));
  const auto third = die(file(1));
  EXPECT_TRUE(third.givenUp);
  EXPECT_EQ(third.ofFile, 3U);
  EXPECT_TRUE(deaths().isGivenUp(file(1), "v1"));
  EXPECT_FALSE(deaths().isGivenUp(file(2), "v1"));
}

TEST_F(WorkerDeathsTest, DeathsOlderThanAnHourDoNotCount) {
  die(file(1));
  now_ += std::chrono::minutes(59);
  EXPECT_EQ(die(file(1)).ofFile, 2U);
  now_ += std::chrono::minutes(1);
  const auto third = die(file(1));
  EXPECT_FALSE(third.givenUp);
  EXPECT_EQ(third.ofFile, 2U);
  EXPECT_EQ(third.ofOwner, 2U);
}

TEST_F(WorkerDeathsTest, AChangedFileAndChangedSignaturesAreTriedAgain) {
  giveUp(file(1));
  EXPECT_FALSE(deaths().isGivenUp(file(1, 1001), "v1"));
  EXPECT_FALSE(deaths().isGivenUp(file(1), "v2"));
  EXPECT_FALSE(die(file(1, 1001)).givenUp) << "the changed file begins anew";
  EXPECT_FALSE(die(file(1), kOwner, "v2").givenUp) << "with other signatures the file begins anew";
}

TEST_F(WorkerDeathsTest, DeathsAreCountedForTheOwnerOfTheFiles) {
  die(file(1));
  die(file(1));
  die(file(2));
  const auto other = die(file(3), kOwner + 1);
  EXPECT_EQ(other.ofOwner, 1U);
  EXPECT_EQ(other.ownersFiles, 1U);
  const auto count = die(file(3));
  EXPECT_EQ(count.ofOwner, 4U);
  EXPECT_EQ(count.ownersFiles, 3U);
}

TEST_F(WorkerDeathsTest, AFileThatWasGivenUpStaysSoAfterARestart) {
  giveUp(file(1));
  reopen();
  EXPECT_TRUE(deaths().isGivenUp(file(1), "v1"));
  EXPECT_FALSE(deaths().isGivenUp(file(2), "v1"));
}

TEST_F(WorkerDeathsTest, TheOldestGoBeyondTheLimitsInMemoryAndOnDisk) {
  store::Database database(stateDir() + "-small.db", store::Durability::kNormal);
  store::migrate(database, store::cacheSteps());
  {
    WorkerDeaths small(database, 4, 2);
    for (std::uint64_t inode = 1; inode <= 3; ++inode) {
      for (int i = 0; i < 3; ++i) {
        EXPECT_LE(small.add(file(inode), kOwner, "v1", now_).ofOwner, 4U);
      }
    }
    EXPECT_FALSE(small.isGivenUp(file(1), "v1"));
    EXPECT_TRUE(small.isGivenUp(file(2), "v1"));
  }
  const WorkerDeaths again(database, 4, 2);
  EXPECT_FALSE(again.isGivenUp(file(1), "v1"));
  EXPECT_TRUE(again.isGivenUp(file(2), "v1"));
  EXPECT_TRUE(again.isGivenUp(file(3), "v1"));
}

TEST_F(WorkerDeathsTest, AFileIsGivenUpInMemoryWhereTheDatabaseFails) {
  store::Database database(stateDir() + "-broken.db", store::Durability::kNormal);
  store::migrate(database, store::cacheSteps());
  WorkerDeaths broken(database);
  {
    const std::lock_guard lock(database.mutex());
    database.run("DROP TABLE given_up");
  }
  for (int i = 0; i < 3; ++i) {
    broken.add(file(1), kOwner, "v1", now_);
  }
  EXPECT_TRUE(broken.isGivenUp(file(1), "v1"));
}

}  // namespace
}  // namespace agent
