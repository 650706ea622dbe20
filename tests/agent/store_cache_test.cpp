#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "StoreFixture.h"
#include "platform/Posix.h"
#include "store/ScanCache.h"
#include "store/Schema.h"
#include "support/FileCalls.h"
#include "support/Wait.h"

namespace agent {
namespace {

constexpr std::int64_t kScannedNs = 3'600'000'000'000;  // the scan of files that changed long before

FileIdentity file(std::uint64_t inode) {
  return {.device = 1, .inode = inode, .size = 100, .changeTimeNs = 1000, .modifyTimeNs = 900};
}

class CacheTest : public StoreTest {
 protected:
  store::ScanCache& cache() { return store().cache(); }
  std::int64_t rowsOnDisk(const std::string& table = "scanned") {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open((stateDir() + "/cache.db").c_str(), &db), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, ("SELECT count(*) FROM " + table).c_str(), -1, &statement, nullptr),
              SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const std::int64_t rows = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
  }
};

TEST_F(CacheTest, WhatWasFoundCleanIsCleanAndNothingElse) {
  EXPECT_FALSE(cache().isClean(file(1), "v1"));
  cache().remember(file(1), "v1", kScannedNs);
  EXPECT_TRUE(cache().isClean(file(1), "v1"));
  EXPECT_FALSE(cache().isClean(file(2), "v1"));
}

TEST_F(CacheTest, AFileOfWhichAnythingChangedIsScannedAgain) {
  cache().remember(file(1), "v1", kScannedNs);
  for (const auto& member : {&FileIdentity::device, &FileIdentity::inode, &FileIdentity::size}) {
    FileIdentity changed = file(1);
    changed.*member += 1;
    EXPECT_FALSE(cache().isClean(changed, "v1"));
  }
  for (const auto& member : {&FileIdentity::changeTimeNs, &FileIdentity::modifyTimeNs}) {
    FileIdentity changed = file(1);
    changed.*member += 1;
    EXPECT_FALSE(cache().isClean(changed, "v1"));
  }
}

TEST_F(CacheTest, NewSignaturesOrOtherOptionsAreScannedAgain) {
  cache().remember(file(1), "signatures 1, archives", kScannedNs);
  EXPECT_FALSE(cache().isClean(file(1), "signatures 2, archives"));
  EXPECT_FALSE(cache().isClean(file(1), "signatures 1"));
  cache().remember(file(1), "signatures 2, archives", kScannedNs);
  EXPECT_TRUE(cache().isClean(file(1), "signatures 2, archives"));
  EXPECT_FALSE(cache().isClean(file(1), "signatures 1, archives"));
  EXPECT_EQ(cache().count(), 1);
}

TEST_F(CacheTest, ItSurvivesARestart) {
  for (std::uint64_t i = 0; i < 10; ++i) {
    cache().remember(file(i), i % 2 == 0 ? "even" : "odd", kScannedNs);
  }
  reopen();
  EXPECT_EQ(cache().count(), 10);
  EXPECT_TRUE(cache().isClean(file(4), "even"));
  EXPECT_TRUE(cache().isClean(file(5), "odd"));
  EXPECT_FALSE(cache().isClean(file(5), "even"));
}

TEST_F(CacheTest, AfterARestartTheLastScanOfAFileHoldsAndNoEarlierOne) {
  FileIdentity changed = file(1);
  changed.changeTimeNs += 1;
  cache().remember(file(1), "v1", kScannedNs);
  cache().flush();
  cache().remember(changed, "v2", kScannedNs);
  reopen();
  EXPECT_TRUE(cache().isClean(changed, "v2"));
  EXPECT_FALSE(cache().isClean(file(1), "v1"));
}

TEST_F(CacheTest, FlushWritesWhatIsNotOnDiskYet) {
  cache().remember(file(1), "v1", kScannedNs);
  cache().flush();
  EXPECT_EQ(rowsOnDisk(), 1);
  const testsupport::FileCalls calls;
  cache().flush();
  EXPECT_THAT(calls.seen(), testing::IsEmpty()) << "there is nothing new";
  cache().remember(file(2), "v1", kScannedNs);
  cache().flush();
  EXPECT_EQ(rowsOnDisk(), 2) << "a file whose key is on disk already";
}

TEST_F(CacheTest, TheFirstQuestionAfterARestartIsAnsweredFromTheDisk) {
  cache().remember(file(1), "v1", kScannedNs);
  reopen();
  EXPECT_TRUE(cache().isClean(file(1), "v1"));
}

TEST_F(CacheTest, AFullBatchIsWrittenWithoutBeingAsked) {
  for (std::uint64_t i = 0; i < 5000; ++i) {
    cache().remember(file(i), "v1", kScannedNs);
  }
  EXPECT_TRUE(testsupport::waitFor([this] { return rowsOnDisk() >= 4096; }));
}

TEST_F(CacheTest, CountIsTheNumberOfFilesAlsoBeforeTheFirstQuestion) {
  EXPECT_EQ(cache().count(), 0);
  cache().remember(file(1), "v1", kScannedNs);
  cache().remember(file(2), "v1", kScannedNs);
  cache().remember(file(2), "v1", kScannedNs);
  EXPECT_EQ(cache().count(), 2);
  reopen();
  EXPECT_EQ(cache().count(), 2);
}

TEST_F(CacheTest, ClearEmptiesItForGood) {
  cache().remember(file(1), "v1", kScannedNs);
  cache().flush();
  cache().remember(file(2), "v1", kScannedNs);
  cache().clear();
  EXPECT_EQ(cache().count(), 0);
  EXPECT_FALSE(cache().isClean(file(1), "v1"));
  cache().flush();
  EXPECT_EQ(rowsOnDisk(), 0);
  EXPECT_EQ(rowsOnDisk("scan_keys"), 0);
  reopen();
  EXPECT_EQ(cache().count(), 0);
  cache().remember(file(3), "v1", kScannedNs);
  EXPECT_TRUE(cache().isClean(file(3), "v1"));
}

TEST_F(CacheTest, ClearBeforeTheFirstQuestionAfterARestartEmptiesItToo) {
  cache().remember(file(1), "v1", kScannedNs);
  reopen();
  cache().clear();
  EXPECT_EQ(cache().count(), 0);
  reopen();
  EXPECT_EQ(cache().count(), 0);
}

TEST_F(CacheTest, AFileThatHadChangedJustBeforeItWasEncounteredIsNotRemembered) {
  FileIdentity young = file(1);
  for (const std::int64_t agoNs : {0, 9'999'999}) {
    young.changeTimeNs = kScannedNs - agoNs;
    cache().remember(young, "v1", kScannedNs);
    EXPECT_EQ(cache().count(), 0);
  }
  young.changeTimeNs = kScannedNs + 3'600'000'000'000;
  cache().remember(young, "v1", kScannedNs);
  EXPECT_EQ(cache().count(), 0);
  young.changeTimeNs = kScannedNs - 10'000'000;
  cache().remember(young, "v1", kScannedNs);
  EXPECT_EQ(cache().count(), 1);
}

TEST_F(CacheTest, AScanThatTookLongMakesNoFileOlderThanItWasWhenEncountered) {
  FileIdentity young = file(1);
  const std::int64_t metNs = platform::nowNs() - 3'600'000'000'000;
  young.changeTimeNs = metNs - 1'000'000;
  cache().remember(young, "v1", metNs);
  EXPECT_EQ(cache().count(), 0);
}

TEST_F(CacheTest, IdentityIsTakenFromTheFileItself) {
  const std::string path = folder_.write("f", "abc");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  const FileIdentity identity = FileIdentity::of(st);
  EXPECT_EQ(identity.device, st.st_dev);
  EXPECT_EQ(identity.inode, st.st_ino);
  EXPECT_EQ(identity.size, 3U);
  EXPECT_EQ(identity.changeTimeNs, st.st_ctim.tv_sec * 1'000'000'000 + st.st_ctim.tv_nsec);
  EXPECT_EQ(identity.modifyTimeNs, st.st_mtim.tv_sec * 1'000'000'000 + st.st_mtim.tv_nsec);
}

class BoundedCacheTest : public testing::Test {
 protected:
  void open(std::size_t limit) {
    cache_.reset();
    database_ = std::make_unique<store::Database>(folder_.at("cache.db"), store::Durability::kNormal);
    store::migrate(*database_, store::cacheSteps());
    cache_ = std::make_unique<store::ScanCache>(*database_, limit);
  }
  testsupport::TempDir folder_;
  std::unique_ptr<store::Database> database_;
  std::unique_ptr<store::ScanCache> cache_;
};

TEST_F(BoundedCacheTest, PastTheLimitTheOldestGoInMemoryAndOnDisk) {
  open(160);
  for (std::uint64_t i = 0; i < 1000; ++i) {
    cache_->remember(file(i), "v1", kScannedNs);
    ASSERT_LE(cache_->count(), 160);
    if (i % 100 == 0) {
      cache_->flush();
    }
  }
  EXPECT_GE(cache_->count(), 140);
  EXPECT_TRUE(cache_->isClean(file(999), "v1"));
  EXPECT_TRUE(cache_->isClean(file(870), "v1"));
  EXPECT_FALSE(cache_->isClean(file(800), "v1"));
  const std::int64_t kept = cache_->count();
  open(160);
  EXPECT_EQ(cache_->count(), kept);
  EXPECT_TRUE(cache_->isClean(file(999), "v1"));
  EXPECT_FALSE(cache_->isClean(file(800), "v1"));
}

TEST_F(BoundedCacheTest, AKeyWhoseFilesAllWentIsNeverTakenForAnother) {
  open(32);
  for (std::uint64_t i = 0; i < 100; ++i) {
    cache_->remember(file(i), "key " + std::to_string(i), kScannedNs);
    cache_->flush();
  }
  open(32);
  cache_->remember(file(1000), "a new key", kScannedNs);
  for (std::uint64_t i = 0; i < 100; ++i) {
    EXPECT_FALSE(cache_->isClean(file(i), "a new key"));
  }
  EXPECT_FALSE(cache_->isClean(file(0), "key 0"));
  EXPECT_TRUE(cache_->isClean(file(99), "key 99"));
  EXPECT_LE(database_->number("SELECT count(*) FROM scan_keys"), 33) << "keys go with their files";
}

TEST_F(BoundedCacheTest, AKeyThatNoFileHasAnyMoreIsNotTakenForANewOne) {
  open(32);
  cache_->remember(file(1), "a", kScannedNs);
  cache_->remember(file(2), "b", kScannedNs);
  cache_->flush();
  cache_->remember(file(2), "a", kScannedNs);
  open(32);
  cache_->remember(file(3), "c", kScannedNs);
  EXPECT_FALSE(cache_->isClean(file(3), "b"));
  EXPECT_TRUE(cache_->isClean(file(3), "c"));
}

TEST_F(BoundedCacheTest, AKeyThatNoFileHasForAMomentIsStillKnownAfterARestart) {
  open(32);
  for (const char* key : {"a", "b"}) {
    cache_->remember(file(1), key, kScannedNs);
    cache_->flush();
  }
  cache_->remember(file(2), "a", kScannedNs);
  open(32);
  EXPECT_TRUE(cache_->isClean(file(2), "a"));
}

TEST_F(BoundedCacheTest, AFileWhoseKeyWasLostIsNotTakenForOneOfANewKey) {
  open(32);
  cache_->remember(file(1), "a", kScannedNs);
  cache_->flush();
  database_->run("DELETE FROM scan_keys");
  open(32);
  cache_->remember(file(2), "b", kScannedNs);
  EXPECT_FALSE(cache_->isClean(file(1), "b"));
  EXPECT_FALSE(cache_->isClean(file(1), "a"));
}

TEST_F(BoundedCacheTest, WhatWasRememberedAfterARestartIsTheYoungest) {
  open(160);
  for (std::uint64_t i = 0; i < 160; ++i) {
    cache_->remember(file(i), "v1", kScannedNs);
  }
  open(160);
  cache_->remember(file(1000), "v1", kScannedNs);
  EXPECT_TRUE(cache_->isClean(file(1000), "v1"));
  EXPECT_FALSE(cache_->isClean(file(0), "v1"));
}

TEST_F(BoundedCacheTest, OneFileTooManyTakesTheOldestSixteenth) {
  open(160);
  for (std::uint64_t i = 0; i < 161; ++i) {
    cache_->remember(file(i), "v1", kScannedNs);
  }
  EXPECT_EQ(cache_->count(), 150);
  EXPECT_FALSE(cache_->isClean(file(10), "v1"));
  EXPECT_TRUE(cache_->isClean(file(11), "v1"));
  cache_->flush();
  EXPECT_EQ(database_->number("SELECT count(*) FROM scanned"), 150);
}

TEST_F(BoundedCacheTest, RowsThatCannotBeReadToTheEndAreNone) {
  open(1000);
  for (std::uint64_t i = 0; i < 1000; ++i) {
    cache_->remember(file(i), "v1", kScannedNs);
  }
  open(1000);
  int calls = 0;
  sqlite3_progress_handler(
      database_->handle(), 1000, [](void* count) { return ++*static_cast<int*>(count) > 5 ? 1 : 0; }, &calls);
  EXPECT_EQ(cache_->count(), 0);
  EXPECT_GT(calls, 5) << "some rows were read";
  sqlite3_progress_handler(database_->handle(), 0, nullptr, nullptr);
}

TEST_F(BoundedCacheTest, AClearThatTheDiskRefusesHoldsAndIsMadeUpForWithTheNextBatch) {
  open(1000);
  cache_->remember(file(1), "v1", kScannedNs);
  open(1000);
  database_->run("CREATE TRIGGER refuse BEFORE DELETE ON scanned BEGIN SELECT RAISE(ABORT,'refused'); END");
  cache_->clear();
  EXPECT_EQ(cache_->count(), 0) << "before the first question, too";
  database_->run("DROP TRIGGER refuse");
  open(1000);
  EXPECT_EQ(cache_->count(), 1) << "nothing was written in between";
  database_->run("CREATE TRIGGER refuse BEFORE DELETE ON scanned BEGIN SELECT RAISE(ABORT,'refused'); END");
  cache_->clear();
  database_->run("DROP TRIGGER refuse");
  cache_->flush();
  EXPECT_EQ(database_->number("SELECT count(*) FROM scanned"), 0);
}

TEST_F(BoundedCacheTest, MoreKeysThanAnyoneHasStartItAnew) {
  open(100'000);
  for (std::uint64_t i = 0; i < 4100; ++i) {
    cache_->remember(file(i), "key " + std::to_string(i), kScannedNs);
    if (i == 4000) {
      cache_->flush();
    }
  }
  EXPECT_EQ(cache_->count(), 4);
  EXPECT_TRUE(cache_->isClean(file(4099), "key 4099"));
  open(100'000);
  EXPECT_EQ(cache_->count(), 4);
}

TEST_F(BoundedCacheTest, ADiskThatFailsCostsWhatWasNotWrittenAndNoAnswer) {
  open(1000);
  database_->run("DROP TABLE scanned");
  cache_->remember(file(1), "v1", kScannedNs);
  cache_->flush();
  EXPECT_TRUE(cache_->isClean(file(1), "v1"));
  cache_->clear();
  EXPECT_EQ(cache_->count(), 0);
}

TEST_F(BoundedCacheTest, WhatIsOnTheDiskIsNotWrittenAgain) {
  open(1000);
  cache_->remember(file(1), "v1", kScannedNs);
  cache_->flush();
  database_->run("DELETE FROM scanned");
  cache_->flush();
  EXPECT_EQ(database_->number("SELECT count(*) FROM scanned"), 0);
}

TEST_F(BoundedCacheTest, SeveralThreadsAskRememberFlushAndClear) {
  open(500);
  std::vector<std::thread> threads;
  for (std::uint64_t t = 0; t < 3; ++t) {
    threads.emplace_back([this, t] {
      for (std::uint64_t i = 0; i < 2000; ++i) {
        cache_->remember(file(t * 10'000 + i), "v1", kScannedNs);
        cache_->isClean(file(i), "v1");
        if (i % 500 == 0) {
          cache_->flush();
        }
        if (i == 1000 && t == 0) {
          cache_->clear();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_LE(cache_->count(), 500);
  EXPECT_TRUE(cache_->isClean(file(1999), "v1") || cache_->isClean(file(11'999), "v1") ||
              cache_->isClean(file(21'999), "v1"));
}

}  // namespace
}  // namespace agent
