// The running scans, and the users who may see and control them: real store, real workers, a fake endpoint.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "json/Values.h"
#include "support/FakeEndpoint.h"
#include "support/Json.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/CallerRights.h"
#include "task/TaskManager.h"

namespace agent {
namespace {

using json::TaskState;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using testsupport::jsonOf;
using testsupport::waitFor;

constexpr int kFastScan = json::toScanType(json::ScanMode::kFast, false);
constexpr int kCustomScan = json::toScanType(json::ScanMode::kCustom, false);
constexpr int kStrongCustomScan = json::toScanType(json::ScanMode::kCustom, true);
constexpr uid_t kUser = 60123;
constexpr uid_t kThird = 60124;
constexpr std::chrono::seconds kLimit{20};

CallerId callerOf(uid_t uid) {
  return {uid, uid, {}, getpid()};
}

/// The workers begin no file before release(): each scan of a file runs until then.
class Tasks : public ::testing::Test {
 protected:
  Tasks() {
    EXPECT_EQ(0, chmod(dir.path().c_str(), 0755));
    file = dir.write("file", "clean");
    EXPECT_EQ(0, chmod(file.c_str(), 0644));
  }
  void TearDown() override {
    EXPECT_TRUE(tasks.stopAll("the test ends", kLimit));
    EXPECT_TRUE(notifications.drain(kLimit));
  }
  static Spawner::Config config(const testsupport::TempDir& dir) {
    Spawner::Config config;
    config.shippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";
    config.systemSignatures = dir.at("system");
    config.tempFolder = dir.path();
    config.beforeFile = [release = dir.at("release")](const std::string&) {
      waitFor([&] { return access(release.c_str(), F_OK) == 0; }, std::chrono::minutes(5));
    };
    return config;
  }
  void release() const { dir.write("release", ""); }

  TaskManager::Started start(uid_t uid, int scanType = kCustomScan) {
    TaskManager::StartRequest request;
    request.ctx = jsonOf(R"({"some":"context"})");
    request.params = jsonOf(R"({"fix_method":2})");
    request.params["scan_type"] = scanType;
    request.params["items"].append(file);
    for (const std::string& item : further) {
      request.params["items"].append(item);
    }
    request.source = 7;
    request.owner.guid = {1, 2, 3};
    request.owner.process.pid = 4711;
    request.owner.process.uid = uid;
    request.owner.process.startTicks = 99;
    request.caller = callerOf(uid);
    return tasks.start(request);
  }
  std::vector<std::string> seenBy(uid_t uid) const {
    std::vector<std::string> tokens;
    for (const Json::Value& task : tasks.list(callerOf(uid))) {
      tokens.push_back(task["token_id"].asString());
    }
    return tokens;
  }
  bool control(json::ControlAction action, const std::string& token, uid_t uid) {
    const auto done = tasks.control(json::toNumber(action), token, "", callerOf(uid));
    why = done ? "" : done.error();
    return done.has_value();
  }
  /// The states in the notifications of a task. Call when no task runs.
  std::vector<TaskState> notifiedStates(const std::string& token) {
    EXPECT_EQ(0U, tasks.count());
    // The record goes after the last notification.
    EXPECT_TRUE(waitFor([&] { return store->tasks().all().empty(); }));
    EXPECT_TRUE(notifications.drain(kLimit));
    std::vector<TaskState> states;
    for (const testsupport::FakeEndpoint::Sent& sent : endpoint.sent) {
      const Json::Value message = jsonOf(sent.text);
      if (message["method"] == "reportBusStatus" && message["params"]["token_id"] == token) {
        states.push_back(TaskState{message["params"]["state"].asInt()});
        last = message["params"];
        lastTo = sent.process;
        lastEndpoint = lunet::formatGuid(sent.target);
      }
    }
    return states;
  }

  testsupport::TempDir dir;
  Spawner spawner{config(dir)};
  std::unique_ptr<Store> store = Store::open(dir.at("state"));
  testsupport::FakeEndpoint endpoint;
  NotificationQueue notifications;
  TaskManager tasks{{*store, spawner, notifications, endpoint, {}}};
  std::string file, why;
  std::vector<std::string> further;  ///< items of a scan beside `file`
  Json::Value last;                  ///< the parameters of the last state
  lunet::PeerIdentity lastTo;        ///< the receiver of the last state
  std::string lastEndpoint;          ///< of that receiver
};

TEST_F(Tasks, AreSeenByTheirOwnUserAndByRootAndByNobodyElse) {
  const TaskManager::Started users = start(kUser);
  ASSERT_TRUE(users.outcome) << users.outcome.error();
  const TaskManager::Started roots = start(0, kFastScan);
  ASSERT_TRUE(roots.outcome) << roots.outcome.error();
  EXPECT_THAT(seenBy(kUser), ElementsAre(users.token));
  EXPECT_THAT(seenBy(0), UnorderedElementsAre(users.token, roots.token));
  EXPECT_THAT(seenBy(kThird), IsEmpty());
}

TEST_F(Tasks, AreListedWithWhatTheyDo) {
  ASSERT_TRUE(start(kUser, kStrongCustomScan).outcome);
  const Json::Value entry = tasks.list(callerOf(0))[0];
  for (const char* number : {"scan_type", "type", "state", "progress", "uid"}) {
    EXPECT_TRUE(entry[number].isIntegral()) << number;
  }
  EXPECT_EQ(kStrongCustomScan, entry["scan_type"].asInt());
  EXPECT_EQ(json::toNumber(json::BusinessType::kScan), entry["type"].asInt());
  EXPECT_EQ(json::toNumber(TaskState::kStarted), entry["state"].asInt());
  EXPECT_EQ(kUser, entry["uid"].asUInt());
}

class TasksOfAnother : public Tasks, public ::testing::WithParamInterface<std::pair<const char*, uid_t>> {};

TEST_P(TasksOfAnother, AreUnknownToAUserWhoWouldSteerThem) {
  const TaskManager::Started task = start(GetParam().second);
  ASSERT_TRUE(task.outcome) << task.outcome.error();
  for (const json::ControlAction action : {json::ControlAction::kPause, json::ControlAction::kStop}) {
    EXPECT_FALSE(control(action, task.token, kThird));
    EXPECT_EQ("no such task", why);
  }
  EXPECT_FALSE(tasks.list(callerOf(0)).empty());
  EXPECT_EQ(json::toNumber(TaskState::kStarted), tasks.list(callerOf(0))[0]["state"].asInt());
  ASSERT_TRUE(control(json::ControlAction::kPause, task.token, 0));
  EXPECT_FALSE(control(json::ControlAction::kResume, task.token, kThird));
  EXPECT_EQ("no such task", why);
  EXPECT_EQ(json::toNumber(TaskState::kPaused), tasks.list(callerOf(0))[0]["state"].asInt());
}

INSTANTIATE_TEST_SUITE_P(Of, TasksOfAnother,
                         ::testing::Values(std::pair("Root", uid_t{0}), std::pair("AUser", kUser)),
                         [](const auto& row) { return std::string(row.param.first); });

class SteeredBy : public Tasks, public ::testing::WithParamInterface<std::pair<const char*, uid_t>> {};

TEST_P(SteeredBy, ThoseWhoSeeATaskItIsPausedResumedAndStopped) {
  const TaskManager::Started task = start(kUser);
  ASSERT_TRUE(task.outcome) << task.outcome.error();
  const uid_t by = GetParam().second;
  EXPECT_FALSE(control(json::ControlAction::kResume, task.token, by));
  EXPECT_EQ("the task is not in a state for that", why);
  EXPECT_TRUE(control(json::ControlAction::kPause, task.token, by)) << why;
  EXPECT_FALSE(control(json::ControlAction::kPause, task.token, by));
  EXPECT_TRUE(control(json::ControlAction::kResume, task.token, by)) << why;
  EXPECT_EQ("", why);
  EXPECT_TRUE(control(json::ControlAction::kStop, task.token, by)) << why;
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
  EXPECT_EQ(TaskState::kAborted, notifiedStates(task.token).back());
  EXPECT_EQ("stopped", last["detail"].asString());
}

INSTANTIATE_TEST_SUITE_P(Callers, SteeredBy,
                         ::testing::Values(std::pair("Root", uid_t{0}), std::pair("TheirUser", kUser)),
                         [](const auto& row) { return std::string(row.param.first); });

TEST_F(Tasks, AnUnknownTokenAndAnUnknownActionAreRefused) {
  const TaskManager::Started task = start(0);
  EXPECT_FALSE(control(json::ControlAction::kStop, "none", 0));
  EXPECT_EQ("no such task", why);
  for (const int action : {0, 4}) {
    EXPECT_EQ("unknown action " + std::to_string(action),
              tasks.control(action, task.token, "", callerOf(0)).error());
  }
  EXPECT_EQ(1U, tasks.count());
}

TEST_F(Tasks, AReasonGivenWithAStopIsReported) {
  const TaskManager::Started task = start(0);
  EXPECT_TRUE(
      tasks.control(json::toNumber(json::ControlAction::kStop), task.token, "for a reason", callerOf(0)));
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
  EXPECT_EQ(TaskState::kAborted, notifiedStates(task.token).back());
  EXPECT_EQ("for a reason", last["detail"].asString());
}

struct SecondRow {
  const char* name;
  uid_t uid;
  int scanType;
  bool started;
};
class SecondScan : public Tasks, public ::testing::WithParamInterface<SecondRow> {};

TEST_P(SecondScan, OfAUserAndAModeThatIsRunningIsRefusedWithStateSixAndAnotherIsNot) {
  const TaskManager::Started first = start(kUser);
  ASSERT_TRUE(first.outcome) << first.outcome.error();
  const TaskManager::Started second = start(GetParam().uid, GetParam().scanType);
  EXPECT_EQ(GetParam().started, second.outcome.has_value());
  EXPECT_NE(first.token, second.token);
  const std::size_t expected = GetParam().started ? 2 : 1;
  EXPECT_EQ(expected, tasks.count());
  EXPECT_EQ(expected, store->tasks().all().size());
  EXPECT_TRUE(tasks.stopAll("enough", kLimit));
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
  EXPECT_THAT(notifiedStates(first.token),
              ElementsAre(TaskState::kCreated, TaskState::kStarted, TaskState::kAborted));
  if (!GetParam().started) {
    EXPECT_THAT(second.outcome.error(), HasSubstr("a custom scan is running already"));
    EXPECT_THAT(notifiedStates(second.token), ElementsAre(TaskState::kSameModeExists));
    EXPECT_EQ(second.outcome.error(), last["detail"].asString());
    EXPECT_EQ(GetParam().uid, lastTo.uid);
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, SecondScan,
                         ::testing::Values(SecondRow{"SameMode", kUser, kCustomScan, false},
                                           SecondRow{"SameModeStrong", kUser, kStrongCustomScan, false},
                                           SecondRow{"SameModeOfRoot", 0, kCustomScan, true},
                                           SecondRow{"FastMode", kUser, kFastScan, true},
                                           SecondRow{"FullModeStrong", 0,
                                                     json::toScanType(json::ScanMode::kFull, true), true}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Tasks, OfUsersHaveALimitThatDoesNotHoldForRoot) {
  constexpr int kMost = 32;
  for (uid_t user = kUser; user < kUser + kMost; ++user) {
    const TaskManager::Started started = start(user);
    ASSERT_TRUE(started.outcome) << started.outcome.error();
  }
  const TaskManager::Started refused = start(kUser + kMost);
  ASSERT_FALSE(refused.outcome);
  EXPECT_EQ(refused.outcome.error(), "32 scans of users are running already");
  const TaskManager::Started roots = start(0);
  EXPECT_TRUE(roots.outcome) << roots.outcome.error();
  EXPECT_TRUE(tasks.stopAll("enough", kLimit));
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
}

TEST_F(Tasks, AModeIsFreeWhenItsScanIsOver) {
  const TaskManager::Started first = start(kUser);
  ASSERT_TRUE(first.outcome) << first.outcome.error();
  release();
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
  const TaskManager::Started second = start(kUser);
  EXPECT_TRUE(second.outcome) << second.outcome.error();
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
  EXPECT_THAT(notifiedStates(first.token),
              ElementsAre(TaskState::kCreated, TaskState::kStarted, TaskState::kFinished));
  EXPECT_EQ("context", last["ctx"]["some"].asString());
  EXPECT_EQ(7, last["source"].asInt());
  EXPECT_EQ(lunet::formatGuid({1, 2, 3}), lastEndpoint);
  EXPECT_EQ(4711, lastTo.pid);
  EXPECT_EQ(99U, lastTo.startTicks);
}

TEST_F(Tasks, AScanThatCannotBeMadeIsReportedLeavesNoRecordAndItsModeFree) {
  file = dir.at("absent");
  const TaskManager::Started task = start(kUser);
  EXPECT_FALSE(task.outcome);
  EXPECT_THAT(task.outcome.error(), HasSubstr("No such file"));
  EXPECT_THAT(notifiedStates(task.token), ElementsAre(TaskState::kNotCreated));
  EXPECT_EQ(task.outcome.error(), last["detail"].asString());
  file = dir.at("file");
  EXPECT_TRUE(start(kUser).outcome);
}

TEST_F(Tasks, ARequestWithAnEmptyPathAmongOthersIsRefusedAndNotCarriedOutInPart) {
  further = {""};
  const TaskManager::Started task = start(kUser);
  ASSERT_FALSE(task.outcome);
  EXPECT_THAT(task.outcome.error(), HasSubstr("not an absolute path"));
  EXPECT_THAT(notifiedStates(task.token), ElementsAre(TaskState::kNotCreated));
}

TEST_F(Tasks, ThatEndedHoldNoFileOpenBeyondTheNextStart) {
  further = {dir.at("absent")};
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(start(kUser).outcome);  // the first item is open by then
    EXPECT_EQ(0U, tasks.count());
  }
  int open = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    open += std::filesystem::read_symlink(entry.path(), gone) == file ? 1 : 0;
  }
  EXPECT_LE(open, 1);
}

TEST_F(Tasks, ARequestThatIsRefusedIsReportedAndNotRecorded) {
  const TaskManager::Started task = start(kUser, kStrongCustomScan + 1);
  EXPECT_FALSE(task.outcome);
  EXPECT_THAT(task.outcome.error(), HasSubstr("scan type"));
  EXPECT_THAT(notifiedStates(task.token), ElementsAre(TaskState::kNotCreated));
  EXPECT_TRUE(store->tasks().all().empty());
}

TEST_F(Tasks, NoneIsStartedWhileTheAgentEnds) {
  EXPECT_TRUE(tasks.stopAll("the agent is ending", kLimit));
  const TaskManager::Started task = start(0);
  EXPECT_FALSE(task.outcome);
  EXPECT_THAT(task.outcome.error(), HasSubstr("the agent is ending"));
  EXPECT_THAT(notifiedStates(task.token), ElementsAre(TaskState::kNotCreated));
  EXPECT_TRUE(store->tasks().all().empty());
}

TEST_F(Tasks, AScanThatCannotBeRecordedRunsAllTheSame) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(dir.at("state/cache.db").c_str(), &db));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "ALTER TABLE tasks RENAME TO aside", nullptr, nullptr, nullptr))
      << sqlite3_errmsg(db);
  const TaskManager::Started task = start(kUser);
  EXPECT_TRUE(task.outcome) << task.outcome.error();
  EXPECT_EQ(1U, tasks.count());
  release();
  ASSERT_TRUE(waitFor([&] { return tasks.count() == 0; }));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "ALTER TABLE aside RENAME TO tasks", nullptr, nullptr, nullptr));
  sqlite3_close(db);
  EXPECT_THAT(notifiedStates(task.token),
              ElementsAre(TaskState::kCreated, TaskState::kStarted, TaskState::kFinished));
  EXPECT_TRUE(start(kUser).outcome);
}

/// While the object lives, this process can begin no thread: a thread's stack would need all addresses.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge;
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 47);
    EXPECT_EQ(0, pthread_setattr_default_np(&huge));
    pthread_attr_destroy(&huge);
  }
  ~NoMoreThreads() {
    EXPECT_EQ(0, pthread_setattr_default_np(&before_));
    pthread_attr_destroy(&before_);
  }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;

 private:
  pthread_attr_t before_;
};

TEST_F(Tasks, AScanForWhichThereIsNoThreadIsReportedLeavesNoRecordAndItsModeFree) {
  TaskManager::Started task;
  {
    const NoMoreThreads none;
    task = start(kUser);
  }
  ASSERT_FALSE(task.outcome);
  EXPECT_THAT(task.outcome.error(), HasSubstr("no thread for the scan"));
  ASSERT_EQ(0U, tasks.count());
  EXPECT_THAT(notifiedStates(task.token), ElementsAre(TaskState::kNotCreated));
  const TaskManager::Started next = start(kUser);
  EXPECT_TRUE(next.outcome) << next.outcome.error();
}

TEST_F(Tasks, ThatDoNotEndWithinTheLimitAreSaid) {
  ASSERT_TRUE(start(kUser).outcome);
  EXPECT_FALSE(tasks.stopAll("the agent is ending", std::chrono::milliseconds(0)));
  EXPECT_TRUE(tasks.stopAll("the agent is ending", kLimit));
}

TEST_F(Tasks, AreRecordedWithTheirOwnerWhileTheyRun) {
  const TaskManager::Started task = start(kUser, kStrongCustomScan);
  const std::vector<TaskRecord> records = store->tasks().all();
  ASSERT_EQ(1U, records.size());
  EXPECT_EQ(task.token, records[0].token);
  EXPECT_EQ(kStrongCustomScan, records[0].scanType);
  EXPECT_EQ(lunet::formatGuid({1, 2, 3}), records[0].ownerGuid);
  EXPECT_EQ(4711, records[0].ownerPid);
  EXPECT_EQ(kUser, records[0].ownerUid);
  EXPECT_EQ(99U, records[0].ownerStartTicks);
}

TEST_F(Tasks, ThatAnEarlierRunLeftBehindAreReportedToTheirOwnersAndForgotten) {
  store->tasks().put({"interrupted", 2, lunet::formatGuid({1, 2, 3}), 4711, kUser, 99});
  tasks.notifyInterruptedTasks();
  EXPECT_THAT(notifiedStates("interrupted"), ElementsAre(TaskState::kAborted));
  EXPECT_EQ(lunet::formatGuid({1, 2, 3}), lastEndpoint);
  EXPECT_EQ(4711, lastTo.pid);
  EXPECT_EQ(kUser, lastTo.uid);
  EXPECT_EQ(99U, lastTo.startTicks);
}

TEST_F(Tasks, ThatAnEarlierRunLeftBehindStayRecordedUntilTheirOwnersHaveTheNotice) {
  store->tasks().put({"interrupted", 2, lunet::formatGuid({1, 2, 3}), 4711, kUser, 99});
  {
    testsupport::FakeEndpoint busy;
    busy.onewayResult = lunet::kErrQueueFull;
    NotificationQueue undelivered;
    TaskManager ofAnAgentThatEnds({*store, spawner, undelivered, busy, {}});
    ofAnAgentThatEnds.notifyInterruptedTasks();
  }
  tasks.notifyInterruptedTasks();
  EXPECT_THAT(notifiedStates("interrupted"), ElementsAre(TaskState::kAborted));
  EXPECT_EQ(kUser, lastTo.uid);
}

TEST_F(Tasks, RefusedToAConsoleThatDoesNotReadLeaveABoundedNumberOfNotices) {
  testsupport::FakeEndpoint busy;
  busy.onewayResult = lunet::kErrQueueFull;
  {
    NotificationQueue unread;
    TaskManager refusing({*store, spawner, unread, busy, {}});
    for (int i = 0; i < 200; ++i) {
      TaskManager::StartRequest request;
      request.params = jsonOf(R"({"scan_type":-1})");
      request.owner.process = {4711, kUser, kUser, 99};
      request.caller = callerOf(kUser);
      EXPECT_FALSE(refusing.start(request).outcome);
    }
    EXPECT_FALSE(unread.hasRoomFor(std::make_shared<Receiver>("one more", kUser)));
    EXPECT_TRUE(unread.hasRoomFor(std::make_shared<Receiver>("another user's", kThird)));
    EXPECT_TRUE(unread.hasRoomFor(std::make_shared<Receiver>("root's")));
    std::atomic<bool> tried{false};  // sent when each of the waiting ones has been tried
    unread.post(std::make_shared<Receiver>("the last"), NotificationKind::kKept, 1, [&tried] {
      tried = true;
      return lunet::kOk;
    });
    EXPECT_TRUE(waitFor([&] { return tried.load(); }));
  }
  std::set<std::string> tokens;
  for (const testsupport::FakeEndpoint::Sent& sent : busy.sent) {
    tokens.insert(jsonOf(sent.text)["params"]["token_id"].asString());
  }
  EXPECT_EQ(tokens.size(), NotificationQueue::Limits{}.ofMember);
}

TEST(Administrator, IsRootAndTheAgentsOwnUserAndNobodyElse) {
  EXPECT_TRUE(isAdministrator(callerOf(0)));
  EXPECT_FALSE(isAdministrator(callerOf(kUser)));
  std::thread([] {
    // Of this thread alone; the process's other threads stay root.
    if (syscall(SYS_setresuid, kUser, kUser, kUser) == 0) {
      EXPECT_TRUE(isAdministrator(callerOf(kUser)));
      EXPECT_TRUE(isAdministrator(callerOf(0)));
      EXPECT_FALSE(isAdministrator(callerOf(kThird)));
    }
  }).join();
}

}  // namespace
}  // namespace agent
