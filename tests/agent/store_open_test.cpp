#include <fcntl.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "StoreFixture.h"
#include "json/Values.h"
#include "store/Schema.h"
#include "store/Vault.h"

namespace agent {
namespace {

using testing::HasSubstr;
using testsupport::readFile;
using testsupport::TempDir;

class OpenTest : public StoreTest {
 protected:
  std::string refusal(const std::string& dir) {
    try {
      Store::open(dir);
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
      return error.what();
    }
    ADD_FAILURE() << dir << " was opened";
    return {};
  }
};

unsigned modeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

void execute(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

TEST_F(OpenTest, TheStateFolderAndAllInItIsForTheAgentsUserOnly) {
  store().audit(root(), "a", "b", "c");
  EXPECT_EQ(modeOf(stateDir()), 0700U);
  for (const char* name :
       {"agent.db", "agent.db-wal", "cache.db", "agent.lock", "audit.log", "audit-refusals.log"}) {
    EXPECT_EQ(modeOf(stateDir() + "/" + name), 0600U) << name;
  }
}

TEST_F(OpenTest, AFolderThatOthersCanReadIsClosed) {
  store_.reset();
  ASSERT_EQ(::chmod(stateDir().c_str(), 0755), 0);
  reopen();
  EXPECT_EQ(modeOf(stateDir()), 0700U);
}

TEST_F(OpenTest, AFolderThatOthersCanWriteIsRefused) {
  store_.reset();
  ASSERT_EQ(::chmod(stateDir().c_str(), 0777), 0);
  EXPECT_THAT(refusal(stateDir()), HasSubstr("not safe"));
}

TEST_F(OpenTest, AFolderThatIsAFileOrRelativeIsRefused) {
  folder_.write("file", "x");
  refusal(folder_.at("file"));
  refusal("relative");
  refusal("");
}

TEST_F(OpenTest, AFolderReachedByALinkOfTheAgentsUserIsTheFolderItself) {
  store_.reset();
  ASSERT_EQ(::symlink(folder_.path().c_str(), folder_.at("above").c_str()), 0);
  ASSERT_EQ(::symlink("state", folder_.at("itself").c_str()), 0);
  for (const char* name : {"above/state", "itself"}) {
    store_ = Store::open(folder_.at(name));
    store().audit(root(), name, "", "");
    EXPECT_THAT(readFile(stateDir() + "/audit.log"), HasSubstr(name));
    store_.reset();
  }
}

TEST_F(OpenTest, AFolderReachedByALinkOfAnotherUserIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link to a second user";
  }
  store_.reset();
  const std::string link = folder_.at("anothers");
  ASSERT_EQ(::symlink("state", link.c_str()), 0);
  ASSERT_EQ(::lchown(link.c_str(), 60100, 60100), 0);
  EXPECT_THAT(refusal(link), HasSubstr("not safe"));
}

TEST_F(OpenTest, ADatabaseThatIsALinkIsRefused) {
  TempDir other;
  ASSERT_EQ(::symlink(folder_.write("elsewhere", "").c_str(), other.at("agent.db").c_str()), 0);
  EXPECT_THAT(refusal(other.path()), HasSubstr("agent.db': Too many levels of symbolic links"));
}

TEST_F(OpenTest, ADatabaseThatIsALinkToNothingMakesNothing) {
  TempDir other;
  ASSERT_EQ(::symlink(folder_.at("elsewhere").c_str(), other.at("agent.db").c_str()), 0);
  EXPECT_THAT(refusal(other.path()), HasSubstr("agent.db"));
  EXPECT_FALSE(std::filesystem::exists(folder_.at("elsewhere")));
}

TEST_F(OpenTest, ALockThatIsALinkIsRefused) {
  TempDir other;
  ASSERT_EQ(::symlink(folder_.write("elsewhere", "").c_str(), other.at("agent.lock").c_str()), 0);
  EXPECT_THAT(refusal(other.path()), HasSubstr("agent.lock"));
}

TEST_F(OpenTest, ALockThatCannotBeOpenedIsRefusedWithTheReason) {
  TempDir other;
  std::filesystem::create_directory(other.at("agent.lock"));
  EXPECT_THAT(refusal(other.path()),
              AllOf(HasSubstr("cannot open "), HasSubstr("agent.lock"), HasSubstr("Is a directory")));
}

TEST_F(OpenTest, WhatOnlyACheckOfTheWholeDatabaseFindsIsDamageToo) {
  const std::string path = folder_.at("some.db");
  execute(path,
          "CREATE TABLE t (x); INSERT INTO t VALUES (NULL); PRAGMA writable_schema=ON;"
          "UPDATE sqlite_schema SET sql='CREATE TABLE t (x NOT NULL)' WHERE name='t'");
  try {
    store::Database database(path, store::Durability::kFull);
    ADD_FAILURE() << "it was opened";
  } catch (const store::StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("some.db' is damaged: NULL value in t.x"));
  }
}

TEST_F(OpenTest, ADatabaseThatCannotBeReadAtAllIsDamageToo) {
  const std::string path = folder_.at("some.db");
  execute(path, "CREATE TABLE t (x)");
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(100);
  file << "\xff";
  file.close();
  const auto open = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto before = open();
  try {
    store::Database database(path, store::Durability::kFull);
    ADD_FAILURE() << "it was opened";
  } catch (const store::StoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("some.db' is damaged"));
  }
  EXPECT_EQ(open(), before);
}

TEST_F(OpenTest, AFunctionInTheSchemaOfADatabaseIsNotTrusted) {
  store::Database database(folder_.at("some.db"), store::Durability::kFull);
  EXPECT_EQ(database.number("PRAGMA trusted_schema"), 0);
}

TEST_F(OpenTest, AValueThatAStatementCannotTakeIsRefused) {
  store::Database database(folder_.at("some.db"), store::Durability::kFull);
  sqlite3_limit(database.handle(), SQLITE_LIMIT_LENGTH, 100);
  store::Statement text(database, "SELECT ?");
  EXPECT_THROW(text.bind(std::string(101, 'x')), store::StoreError);
  EXPECT_TRUE(text.bind(std::string(100, 'x')).step());
  store::Statement none(database, "SELECT 1");
  EXPECT_THROW(none.bind(1), store::StoreError);
}

TEST_F(OpenTest, ALongTextOfAnyBytesIsReadBackAsItWasBound) {
  store::Database database(folder_.at("some.db"), store::Durability::kFull);
  store::Statement echo(database, "SELECT ?1");
  for (const std::string& text : {testsupport::noise(1 << 20), std::string(100'000, '\0'), std::string()}) {
    ASSERT_TRUE(echo.bind(text).step());
    EXPECT_EQ(echo.text(0), text);
  }
}

TEST_F(OpenTest, AQuarantineFolderThatCannotBeReadIsAnErrorAndNotEmpty) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  const store::Vault vault(folder_.path());
  rlimit normal{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &normal), 0);
  const rlimit none{0, normal.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  std::string reason;
  try {
    vault.files();
  } catch (const store::StoreError& error) {
    reason = error.what();
  }
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &normal), 0);
  EXPECT_EQ(reason, "cannot read the quarantine's folder: Too many open files");
}

TEST_F(OpenTest, AStatementThatTheDatabaseDoesNotKnowIsRefusedBeforeItsFirstUse) {
  store::Database database(folder_.at("some.db"), store::Durability::kFull);
  EXPECT_THROW(store::Statement(database, "SELECT x FROM nowhere"), store::StoreError);
}

TEST_F(OpenTest, ADatabaseThatIsBusyForAMomentIsWaitedFor) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open((stateDir() + "/agent.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  bool changed = false;
  std::thread change([&] {
    changed = store().settings().change(json::ConfigType::kScan, R"({"Common":{"SkipSize":5}})").has_value();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
  change.join();
  EXPECT_TRUE(changed);
  sqlite3_close(other);
}

TEST_F(OpenTest, ADamagedStoreFileIsAClearErrorAndNotACrash) {
  store_.reset();
  std::ofstream(stateDir() + "/agent.db") << std::string(20000, 'x');
  EXPECT_THAT(refusal(stateDir()), HasSubstr("agent.db' is damaged"));
}

TEST_F(OpenTest, AStoreFileDamagedInTheMiddleIsAClearErrorAndNotACrash) {
  Json::Value items = testsupport::jsonOf(R"({"action":0,"type":4,"domain":0,"items":[]})");
  for (int i = 0; i < 2000; ++i) {
    items["items"].append("name" + std::to_string(i));
  }
  ASSERT_TRUE(store().regions().change(json::Region::kTrust, items, root()));
  store_.reset();
  std::fstream file(stateDir() + "/agent.db", std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(8 * 4096);
  file << std::string(16 * 4096, '\xA5');
  file.close();
  EXPECT_THAT(refusal(stateDir()), HasSubstr("agent.db' is damaged"));
}

TEST_F(OpenTest, ADamagedCacheFileStartsAnewAndIsSaid) {
  store_.reset();
  std::ofstream(stateDir() + "/cache.db") << std::string(20000, 'x');
  reopen();
  EXPECT_EQ(store().cache().count(), 0);
  EXPECT_THAT(store().notices(), testing::Contains(HasSubstr("cache.db' is damaged")));
}

TEST_F(OpenTest, AStoreOfANewerAgentIsRefusedAndLeftAsItIs) {
  store_.reset();
  for (const std::size_t newer : {store::storeSteps().size() + 1, std::size_t{99}}) {
    execute(stateDir() + "/agent.db", ("PRAGMA user_version=" + std::to_string(newer)).c_str());
    EXPECT_THAT(refusal(stateDir()), HasSubstr("made by a newer agent")) << newer;
  }
}

TEST_F(OpenTest, ASecondAgentOnTheSameStoreIsRefused) {
  const pid_t child = ::fork();
  if (child == 0) {
    int status = 1;
    try {
      Store::open(stateDir());
    } catch (const std::runtime_error& error) {
      status = std::string(error.what()).find("in use by another agent") != std::string::npos ? 0 : 2;
    }
    ::_exit(status);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(OpenTest, MigrationTakesOnlyTheStepsThatTheFileHasNotSeen) {
  store::Database database(folder_.at("m.db"), store::Durability::kNormal);
  const std::vector<const char*> first = {"CREATE TABLE a (x); INSERT INTO a VALUES (1);"};
  const std::vector<const char*> second = {first[0], "CREATE TABLE b (y); INSERT INTO b SELECT x+1 FROM a;"};
  store::migrate(database, first);
  store::migrate(database, second);
  store::migrate(database, second);
  EXPECT_EQ(database.number("SELECT y FROM b"), 2);
  EXPECT_EQ(database.number("SELECT count(*) FROM a"), 1);
  EXPECT_EQ(database.number("PRAGMA user_version"), 2);
}

TEST_F(OpenTest, AMigrationThatFailsLeavesTheFileAtItsOldVersion) {
  store::Database database(folder_.at("m.db"), store::Durability::kNormal);
  const std::vector<const char*> steps = {"CREATE TABLE a (x);", "CREATE TABLE b (y); nonsense;"};
  EXPECT_THROW(store::migrate(database, steps), store::StoreError);
  EXPECT_EQ(database.number("PRAGMA user_version"), 0);
  EXPECT_EQ(database.number("SELECT count(*) FROM sqlite_schema"), 0);
}

TEST_F(OpenTest, TasksUnderWayAreThereAfterARestart) {
  const TaskRecord task{"token-1", 2, "{A4F72BA6}", 4711, 1000, 123456789012};
  store().tasks().put(task);
  store().tasks().put({"token-2", 0, "", 1, 0, 0});
  store().tasks().remove("token-2");
  store().tasks().remove("never there");
  reopen();
  const auto tasks = store().tasks().all();
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0].token, task.token);
  EXPECT_EQ(tasks[0].scanType, task.scanType);
  EXPECT_EQ(tasks[0].ownerGuid, task.ownerGuid);
  EXPECT_EQ(tasks[0].ownerPid, task.ownerPid);
  EXPECT_EQ(tasks[0].ownerUid, task.ownerUid);
  EXPECT_EQ(tasks[0].ownerStartTicks, task.ownerStartTicks);
}

TEST_F(OpenTest, PuttingATaskAgainReplacesIt) {
  store().tasks().put({"t", 0, "a", 1, 0, 0});
  store().tasks().put({"t", 1, "b", 2, 0, 0});
  ASSERT_EQ(store().tasks().all().size(), 1U);
  EXPECT_EQ(store().tasks().all()[0].ownerGuid, "b");
}

TEST_F(OpenTest, NothingThatTheStoreHasOpenIsInherited) {
  store().cache().count();
  int seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    if (target.starts_with(stateDir())) {
      ++seen;
      EXPECT_NE(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0) << target;
    }
  }
  EXPECT_GE(seen, 5) << "two databases, the lock, the audit record, the quarantine";
}

}  // namespace
}  // namespace agent
