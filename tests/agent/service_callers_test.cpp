// The users who may call each of the agent's methods: real processes of several users call over a fake
// endpoint.

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <functional>

#include "json/CppJson.h"
#include "json/Values.h"
#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "platform/ProcessStat.h"
#include "service/AgentService.h"
#include "service/Callers.h"
#include "support/DebugLogFile.h"
#include "support/FakeEndpoint.h"
#include "support/Json.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/RunningPrograms.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using testsupport::jsonOf;
using testsupport::jsonText;
using testsupport::Process;
using testsupport::readFile;
using testsupport::waitFor;

constexpr uid_t kUser = 60100;
constexpr uid_t kOtherUser = 60101;
constexpr gid_t kOwnGroup = 60102;
constexpr gid_t kGroup = 60200;  ///< whose members may change what the agent keeps

/// A process of a user, which waits.
class CallingProcess {
 public:
  CallingProcess(uid_t uid, gid_t gid, std::vector<gid_t> groups)
      : process_({"/bin/sleep", "600"},
                 {.workingDir = "", .environment = {}, .uid = uid, .gid = gid, .groups = std::move(groups)}) {
    const std::string folder = "/proc/" + std::to_string(process_.pid());
    EXPECT_TRUE(waitFor([&] { return readFile(folder + "/comm") == "sleep\n"; }))
        << "it is that user's by now";
    identity_.pid = process_.pid();
    identity_.uid = uid;
    identity_.gid = gid;
    identity_.startTicks = platform::processStat(process_.pid())->startTicks;
  }
  /// As the bus knows it.
  const lunet::PeerIdentity& identity() const { return identity_; }
  void end() {
    process_.kill(SIGKILL);
    process_.wait();
  }

 private:
  Process process_;
  lunet::PeerIdentity identity_;
};

lunet::PeerIdentity changed(lunet::PeerIdentity identity,
                            const std::function<void(lunet::PeerIdentity&)>& change) {
  change(identity);
  return identity;
}

lunet::PeerIdentity rootsIdentity() {
  lunet::PeerIdentity own;
  own.pid = getpid();
  own.uid = 0;
  own.gid = 0;
  own.startTicks = platform::processStat(getpid())->startTicks;
  return own;
}

TEST(CallerIdOf, AMembersSupplementaryGroupsCountAsLongAsTheProcessIsTheOneThatCalled) {
  CallingProcess member(kUser, kOwnGroup, {kGroup, 7});
  const CallerId caller = callerIdOf(member.identity());
  EXPECT_EQ(caller.uid, kUser);
  EXPECT_EQ(caller.gid, kOwnGroup);
  EXPECT_EQ(caller.pid, member.identity().pid);
  EXPECT_THAT(caller.groups, ::testing::UnorderedElementsAre(kGroup, 7));
  EXPECT_THAT(callerIdOf(changed(member.identity(), [](auto& id) { ++id.startTicks; })).groups,
              ::testing::IsEmpty())
      << "the pid is another process's by now";
  EXPECT_THAT(callerIdOf(changed(member.identity(), [](auto& id) { id.uid = kOtherUser; })).groups,
              ::testing::IsEmpty())
      << "the process runs for another user by now";
  member.end();
  EXPECT_THAT(callerIdOf(member.identity()).groups, ::testing::IsEmpty());
}

// The real and the effective user differ, as after the exec of a setuid program.
TEST(CallerIdOf, AProcessWithTwoUsersLendsNoGroups) {
  for (const bool realIsAnothers : {true, false}) {
    int ready[2];
    int end[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(end), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(end[1]);
      const gid_t group = kGroup;
      const bool set =
          setgroups(1, &group) == 0 &&
          setresuid(realIsAnothers ? kOtherUser : kUser, realIsAnothers ? kUser : kOtherUser, kUser) == 0;
      char byte = set ? 'y' : 'n';
      [[maybe_unused]] ssize_t count = write(ready[1], &byte, 1);
      count = read(end[0], &byte, 1);  // until the test closes its end
      _exit(0);
    }
    close(end[0]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    ASSERT_EQ(byte, 'y');
    lunet::PeerIdentity identity;
    identity.pid = child;
    identity.uid = kUser;
    identity.startTicks = platform::processStat(child)->startTicks;
    EXPECT_THAT(callerIdOf(identity).groups, ::testing::IsEmpty()) << realIsAnothers;
    close(end[1]);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
  }
}

/// The service on a fake endpoint; store and tasks are real.
class Service : public ::testing::Test {
 protected:
  Service() {
    chmod(dir_.path().c_str(), 0755);
    serve(kGroup);
  }
  ~Service() override {
    open();
    helper_.unregisterFrom(endpoint_);
    EXPECT_TRUE(notifications_.drain(std::chrono::seconds(20)));
  }
  void serve(std::optional<gid_t> group) {
    service_.reset();
    helper_.unregisterFrom(endpoint_);
    service_ = std::make_unique<AgentService>(helper_, *store_, tasks_, group);
    service_->StartListening();
    ASSERT_EQ(helper_.registerOn(endpoint_), lunet::kOk);
  }
  static Spawner::Config config(const testsupport::TempDir& dir) {
    Spawner::Config config;
    config.shippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";
    config.systemSignatures = dir.at("system");
    config.tempFolder = dir.path();
    config.beforeFile = [gate = dir.at("gate")](const std::string& name) {
      while (name.ends_with("held") && access(gate.c_str(), F_OK) != 0) {
        usleep(1000);
      }
    };
    return config;
  }
  /// Lets files go on that are held in a worker.
  void open() const { mkdir(dir_.at("gate").c_str(), 0700); }

  /// The whole answer to a call of that process.
  Json::Value answer(const lunet::PeerIdentity& caller, const std::string& method,
                     const Json::Value& params) {
    endpoint_.peerProcess = caller;
    endpoint_.peer = lunet::parseGuid(lunet::kConsoleGuid);
    Json::Value request(Json::objectValue);
    request["jsonrpc"] = "2.0";
    request["id"] = 1;
    request["method"] = method;
    if (!params.isNull()) {
      request["params"] = params;
    }
    return jsonOf(endpoint_.deliver(lunet::kRequestChannel, jsonText(request), true).reply);
  }
  Json::Value call(const lunet::PeerIdentity& caller, const std::string& method,
                   const Json::Value& params = {}) {
    const Json::Value whole = answer(caller, method, params);
    EXPECT_TRUE(whole.isMember("result")) << method << whole.toStyledString();
    return whole["result"];
  }

  Json::Value filesOn(json::Region region) const {
    return store_->regions().list(json::RegionDomain::kEvery, json::RegionItemType::kFile, region);
  }

  // The restricted changes. Each function returns whether the change was allowed, and checks that a refused
  // change has no effect.
  bool changesSettings(const lunet::PeerIdentity& caller) {
    const int before =
        store_->settings().document(json::ConfigType::kScan).get("Common", {})["SkipSize"].asInt();
    Json::Value params = jsonOf(R"({"config_type":0,"request_source":1})");
    params["config_str"] = R"({"Common":{"SkipSize":)" + std::to_string(before + 1) + "}}";
    const bool done = call(caller, "setAVConfig", params).asBool();
    EXPECT_EQ(store_->settings().document(json::ConfigType::kScan).get("Common", {})["SkipSize"].asInt(),
              before + (done ? 1 : 0));
    return done;
  }
  bool changesRegion(const lunet::PeerIdentity& caller) {
    Json::Value params = jsonOf(R"({"desc":"d","region_type":0,"source":1,
                                    "items":{"action":0,"type":0,"domain":0,"is_all":false}})");
    params["items"]["items"].append(json::encodePath("/trusted/" + std::to_string(++count_)));
    const auto before = filesOn(json::Region::kTrust).size();
    const bool done = call(caller, "ctlRegion", params).asBool();
    EXPECT_EQ(filesOn(json::Region::kTrust).size(), before + (done ? 1 : 0));
    return done;
  }
  bool emptiesCache(const lunet::PeerIdentity& caller) {
    const FileIdentity file{1, static_cast<std::uint64_t>(++count_), 3, 0, 0};
    store_->cache().remember(file, "key", std::time(nullptr) * 1'000'000'000LL);
    EXPECT_TRUE(store_->cache().isClean(file, "key"));
    endpoint_.peerProcess = caller;
    endpoint_.deliver(lunet::kOnewayChannel, R"({"jsonrpc":"2.0","method":"cleanScanCache"})", false);
    return !store_->cache().isClean(file, "key");
  }
  bool restores(const lunet::PeerIdentity& caller) {
    const Json::Value result = call(caller, "startDeIsolate", restoreOf("no-such-item"));
    EXPECT_FALSE(result["status"].asBool());
    EXPECT_NE(result["token_id"].asString(), "");
    EXPECT_EQ(result["detail"].size(), 1U);
    const Json::Value reason = result["detail"][0];
    const bool allowed = reason["reason"].asString().rfind("not allowed: ", 0) != 0;
    EXPECT_EQ(reason["uuid"].asString() == "no-such-item", allowed);
    return allowed;
  }
  static Json::Value restoreOf(const std::string& uuid) {
    Json::Value params = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":"",
        "params":{"action":1,"item_number":1,"is_all":false,"custom_path":"","items":[]}})");
    params["params"]["items"].append(uuid);
    return params;
  }
  void expectAll(bool expected, const lunet::PeerIdentity& caller, const char* who) {
    EXPECT_EQ(changesSettings(caller), expected) << who;
    EXPECT_EQ(changesRegion(caller), expected) << who;
    EXPECT_EQ(emptiesCache(caller), expected) << who;
    EXPECT_EQ(restores(caller), expected) << who;
  }
  /// Lines of the audit record that hold the text.
  int audited(const std::string& text) const {
    std::istringstream lines(readFile(dir_.at("state/audit.log")) +
                             readFile(dir_.at("state/audit-refusals.log")));
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
      count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
  }
  /// Quarantines a file of that user; its path.
  std::string quarantine(const std::string& name, uid_t owner) {
    const std::string path = dir_.write("files/" + name, "a file that was detected");
    EXPECT_EQ(chown(path.c_str(), owner, owner), 0);
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    QuarantineRequest request;
    request.path = path;
    request.identity = FileIdentity::of(status);
    request.detection.name = "Test";
    EXPECT_TRUE(store_->quarantine().add(request));
    return path;
  }
  Json::Value scanOf(const std::string& path) {
    Json::Value params = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":"","params":{
        "follow_link":false,"max_scan_sec":0,"uid":0,"custom_stop":true,"items":[],"force_scan":true,
        "handle_action":-1,"fix_method":2,"handle_filter_types":[],"parallelism":1,"proc_fix_method":0,
        "expire_time":0,"scan_type":2}})");
    params["params"]["items"].append(json::encodePath(path));
    return params;
  }
  static Json::Value orderTo(json::ControlAction action, const std::string& token) {
    Json::Value params = jsonOf(R"({"detail":"","mark":0,"payload":null,"source":1})");
    params["action"] = json::toNumber(action);
    params["token_id"] = token;
    return params;
  }

  testsupport::TempDir dir_;
  Spawner spawner_{config(dir_)};
  /// A quiet minute stands before each refusal: each one is a line of the audit record.
  std::chrono::steady_clock::time_point refusedAt_ = std::chrono::steady_clock::now();
  std::chrono::minutes betweenRefusals_{1};
  store::AuditOptions audit() {
    store::AuditOptions options;
    options.now = [this] { return refusedAt_ += betweenRefusals_; };
    return options;
  }
  std::unique_ptr<Store> store_ = Store::open(dir_.at("state"), std::chrono::seconds(60), audit());
  testsupport::FakeEndpoint endpoint_;
  testsupport::FakeEndpoint notified_;  ///< used on the queue's thread
  NotificationQueue notifications_;
  TaskManager tasks_{TaskManager::Parts{*store_, spawner_, notifications_, notified_, {}}};
  jsonrpchelper::IJsonRpcServerHelper helper_;
  std::unique_ptr<AgentService> service_;
  int count_ = 0;
};

/// Calls through the stub, as a user who is neither root nor the agent's user, and in no group.
class ServiceAccess : public Service {
 protected:
  ServiceAccess() {
    endpoint_.peerProcess = {getpid(), kUser, kUser, 0};
    endpoint_.answer = [this](const std::string& request) {
      return endpoint_.deliver(lunet::kRequestChannel, request, true).reply;
    };
  }
  template <class... Methods>
  void checkEach(jsonrpchelper::MethodList<Methods...>) {
    (checkOne<Methods>(), ...);
  }

  jsonrpchelper::IJsonRpcClientHelper client_{&endpoint_, lunet::kAgentGuid, lunet::kRequestChannel,
                                              lunet::kOnewayChannel, 1000};
  jsonrpchelper::AgentStub stub_{client_};

 private:
  /// Calls with empty parameters. The call may fail.
  template <class Method>
  void checkOne() {
    const int before = audited("refused: not allowed");
    try {
      stub_.call(Method{});
    } catch (const jsonrpc::JsonRpcException&) {
    }
    if (endpoint_.last().operation == "OnewaySend") {
      endpoint_.deliver(lunet::kOnewayChannel, endpoint_.last().text, false);
    }
    EXPECT_EQ(audited("refused: not allowed") > before, Method::kAccess != jsonrpchelper::Access::kEverybody)
        << Method::kName;
  }
};

TEST_F(ServiceAccess, IsWhatTheTableOfMethodsSays) {
  checkEach(jsonrpchelper::AgentMethods());
}

TEST_F(ServiceAccess, ACallerWhoMayChangeNothingGetsTheAnswerOfEachMethodsKind) {
  EXPECT_FALSE(stub_.call(
      jsonrpchelper::SetAVConfig{.config_str = "{}",
                                 .config_type = json::toNumber(json::ConfigType::kScan),
                                 .request_source = json::toNumber(json::RequestSource::kConsole)}));
  EXPECT_FALSE(stub_.call(jsonrpchelper::CtlRegion{.desc = "",
                                                   .items = {},
                                                   .region_type = json::toNumber(json::Region::kTrust),
                                                   .source = json::toNumber(json::RequestSource::kConsole)}));
  const Json::Value answer =
      stub_.call(jsonrpchelper::StartDeIsolate{.ctx = {},
                                               .desc = "",
                                               .params = {},
                                               .source = json::toNumber(json::RequestSource::kConsole),
                                               .token_id = ""});
  EXPECT_EQ(answer["status"], false);
  EXPECT_NE(answer["token_id"].asString(), "");
  ASSERT_EQ(answer["detail"].size(), 1u);
  EXPECT_EQ(answer["detail"][0]["uuid"], "");
  EXPECT_EQ(answer["detail"][0]["reason"],
            "not allowed: only root, the agent's user and members of the group may restore");
}

TEST_F(Service, LetsRootChangeWhatItKeeps) {
  expectAll(true, rootsIdentity(), "root");
  EXPECT_EQ(audited("refused: not allowed"), 0);
}

TEST_F(Service, LetsMembersOfTheGroupRestoreAndChangeNothing) {
  const CallingProcess byItsGroup(kUser, kGroup, {});
  const CallingProcess bySupplementary(kUser, kOwnGroup, {7, kGroup});
  for (const CallingProcess* member : {&byItsGroup, &bySupplementary}) {
    EXPECT_TRUE(restores(member->identity()));
    EXPECT_FALSE(changesSettings(member->identity()));
    EXPECT_FALSE(changesRegion(member->identity()));
    EXPECT_FALSE(emptiesCache(member->identity()));
  }
}

// It would change the trust list.
TEST_F(Service, RefusesARestoreWithTrustOfAMemberWithTheReason) {
  const std::string path = quarantine("a", kUser);
  const std::string uuid = store_->quarantine().list(std::nullopt)[0]["uuid"].asString();
  Json::Value params = restoreOf(uuid);
  params["params"]["action"] = json::toNumber(json::RestoreAction::kRestoreAndTrust);
  const CallingProcess member(kUser, kGroup, {});
  const Json::Value answer = call(member.identity(), "startDeIsolate", params);
  EXPECT_FALSE(answer["status"].asBool());
  ASSERT_EQ(answer["detail"].size(), 1U);
  EXPECT_EQ(answer["detail"][0]["reason"],
            "not allowed: only root and the agent's user may add to the trust list");
  EXPECT_EQ(filesOn(json::Region::kTrust).size(), 0U);
  EXPECT_EQ(audited("object=\"with trust\" outcome=\"refused: not allowed: only root"), 1);
  EXPECT_EQ(store_->quarantine().list(std::nullopt).size(), 1U);
}

TEST_F(Service, LetsNobodyElseChangeAnythingAndRecordsWhoTried) {
  const CallingProcess stranger(kUser, kOwnGroup, {7});
  expectAll(false, stranger.identity(), "a stranger");
  const std::string who = "uid=60100 gid=60102 pid=" + std::to_string(stranger.identity().pid);
  for (const char* action : {"change settings", "change region", "clean scan cache", "restore"}) {
    EXPECT_EQ(audited(who + " action=\"" + action + "\" object=\"\" outcome=\"refused: not allowed\""), 1)
        << action;
  }
  CallingProcess member(kUser, kOwnGroup, {kGroup});
  expectAll(false, changed(member.identity(), [](auto& id) { --id.startTicks; }), "another's pid by now");
  expectAll(false, changed(member.identity(), [](auto& id) { id.uid = kOtherUser; }), "another's by now");
  member.end();
  expectAll(false, member.identity(), "a member that is gone");
  expectAll(false, lunet::PeerIdentity{}, "a caller whom the kernel does not know");
}

TEST_F(Service, TenThousandRefusedCallsAreTwoLinesOfTheAuditRecordAndFewOfTheLog) {
  const testsupport::DebugLogFile log;
  ASSERT_TRUE(changesSettings(rootsIdentity()));
  betweenRefusals_ = std::chrono::minutes(0);
  constexpr const char* kAnyChange = R"({"config_str":"{}","config_type":0,"request_source":1})";
  const CallingProcess stranger(kUser, kOwnGroup, {});
  for (int i = 0; i < 10000; ++i) {
    call(stranger.identity(), "setAVConfig", jsonOf(kAnyChange));
  }
  refusedAt_ += std::chrono::minutes(1);
  store_->settleAudit();
  EXPECT_EQ(audited("refused"), 2);
  EXPECT_EQ(audited("outcome=\"9999 more: change settings 9999\""), 1);
  EXPECT_EQ(audited("outcome=\"done\""), 1);
  const std::string lines = log.text();
  EXPECT_LT(std::count(lines.begin(), lines.end(), '\n'), 100);
}

TEST_F(Service, WithoutAGroupLetsRootAloneChangeWhatItKeeps) {
  serve(std::nullopt);
  expectAll(true, rootsIdentity(), "root");
  const CallingProcess member(kUser, kGroup, {kGroup});
  expectAll(false, member.identity(), "a member of what is no group of the agent's");
}

TEST_F(Service, RecordsAChangeWithWhoMadeItAndWhatCameOfIt) {
  ASSERT_TRUE(changesSettings(rootsIdentity()));
  EXPECT_EQ(audited("uid=0 gid=0 pid=" + std::to_string(rootsIdentity().pid) +
                    " action=\"change settings\" object=\"type 0 {"),
            1);
  EXPECT_EQ(audited("outcome=\"done\""), 1);
  Json::Value wrong = jsonOf(R"({"config_str":"{\"NoSuchSection\":{}}","config_type":0,"request_source":1})");
  EXPECT_FALSE(call(rootsIdentity(), "setAVConfig", wrong).asBool());
  EXPECT_EQ(audited("outcome=\"refused: "), 1);
  ASSERT_TRUE(emptiesCache(rootsIdentity()));
  EXPECT_EQ(audited("pid=" + std::to_string(rootsIdentity().pid) +
                    " action=\"clean scan cache\" object=\"\" outcome=\"done\""),
            1);
}

TEST_F(Service, AnswersEverybodyWhatItKeeps) {
  const CallingProcess stranger(kUser, kOwnGroup, {});
  const std::string settings =
      call(stranger.identity(), "getAVConfig", jsonOf(R"({"config_type":0,"request_source":1})")).asString();
  EXPECT_THAT(settings, HasSubstr("SkipSize"));
  EXPECT_EQ(settings.back(), '}');
  EXPECT_TRUE(
      call(stranger.identity(), "getRegionInfo", jsonOf(R"({"domain":4,"item_type":0,"region_type":0})"))
          .isArray());
  EXPECT_EQ(call(stranger.identity(), "getScanCacheDetail").asInt(), 0);
}

TEST_F(Service, ListsTheWholeQuarantineToRootAndToOthersWhatWasTheirs) {
  quarantine("roots", 0);
  quarantine("users", kUser);
  quarantine("others", kOtherUser);
  EXPECT_EQ(call(rootsIdentity(), "getIsolationInfo").size(), 3U);
  const CallingProcess member(kUser, kGroup, {});
  const Json::Value own = call(member.identity(), "getIsolationInfo");
  ASSERT_EQ(own.size(), 1U) << own.toStyledString();
  EXPECT_EQ(json::decodePath(own[0]["filepath_src"].asString()), dir_.at("files/users"));
  EXPECT_EQ(call(lunet::PeerIdentity{}, "getIsolationInfo").size(), 0U);
}

TEST_F(Service, RestoresForTheCallerAndSaysWhatItCouldNot) {
  const std::string path = quarantine("roots", 0);
  const std::string uuid = call(rootsIdentity(), "getIsolationInfo")[0]["uuid"].asString();
  const CallingProcess member(kUser, kGroup, {});
  const Json::Value refused = call(member.identity(), "startDeIsolate", restoreOf(uuid));
  EXPECT_FALSE(refused["status"].asBool()) << "what is root's comes back for root";
  EXPECT_EQ(refused["detail"][0]["uuid"].asString(), uuid);
  EXPECT_FALSE(std::filesystem::exists(path));
  Json::Value both = restoreOf(uuid);
  both["params"]["items"].append("no-such-item");
  const Json::Value half = call(rootsIdentity(), "startDeIsolate", both);
  EXPECT_FALSE(half["status"].asBool()) << "one of two is not all";
  ASSERT_EQ(half["detail"].size(), 1U);
  EXPECT_EQ(half["detail"][0]["uuid"].asString(), "no-such-item");
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(audited("action=\"restore\" object=\"" + uuid + "\" outcome=\"done\""), 1);
  EXPECT_EQ(filesOn(json::Region::kTrust).size(), 0U) << "action 1 trusts nothing";

  const std::string second = quarantine("second", 0);
  Json::Value trusting = restoreOf(call(rootsIdentity(), "getIsolationInfo")[0]["uuid"].asString());
  trusting["params"]["action"] = json::toNumber(json::RestoreAction::kRestoreAndTrust);
  const Json::Value whole = call(rootsIdentity(), "startDeIsolate", trusting);
  EXPECT_TRUE(whole["status"].asBool());
  EXPECT_EQ(whole["detail"], Json::Value(Json::arrayValue));
  EXPECT_TRUE(std::filesystem::exists(second));
  EXPECT_EQ(filesOn(json::Region::kTrust).size(), 1U);
}

TEST_F(Service, RefusesARestoreThatNamesNoActionOrNoItem) {
  const std::string path = quarantine("kept", 0);
  const std::string uuid = call(rootsIdentity(), "getIsolationInfo")[0]["uuid"].asString();
  for (const auto& [change, what] : std::vector<std::pair<std::function<void(Json::Value&)>, const char*>>{
           {[](auto& params) { params["action"] = 0; }, "action 0"},
           {[](auto& params) { params["action"] = 3; }, "action 3"},
           {[](auto& params) { params["items"] = Json::Value(Json::arrayValue); }, "no item"},
           {[](auto& params) { params["items"] = "text"; }, "items that are none"},
           {[](auto& params) { params = Json::Value(Json::arrayValue); }, "no record"}}) {
    Json::Value request = restoreOf(uuid);
    change(request["params"]);
    const Json::Value result = call(rootsIdentity(), "startDeIsolate", request);
    EXPECT_FALSE(result["status"].asBool()) << what;
    ASSERT_EQ(result["detail"].size(), 1U) << what;
    EXPECT_THAT(result["detail"][0]["reason"].asString(), HasSubstr("names no action")) << what;
    EXPECT_FALSE(std::filesystem::exists(path)) << what;
  }
  Json::Value all = restoreOf(uuid);
  all["params"]["items"] = Json::Value(Json::arrayValue);
  all["params"]["is_all"] = true;
  EXPECT_TRUE(call(rootsIdentity(), "startDeIsolate", all)["status"].asBool());
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(Service, ARefusedRestoreOrScanShowsTheControlCharactersOfAName) {
  const std::string odd = "of\xff\n\x1b[2Jfice";
  const char* const shown = "of\\xff\\n\\x1b[2Jfice";
  const std::string path = quarantine(odd, 0);
  dir_.write("files/" + odd, "a newer file");
  const std::string uuid = call(rootsIdentity(), "getIsolationInfo")[0]["uuid"].asString();
  const Json::Value inPlace = call(rootsIdentity(), "startDeIsolate", restoreOf(uuid));
  EXPECT_EQ(inPlace["detail"][0]["reason"].asString(),
            "'" + dir_.at("files/") + shown + "' exists already: it is not overwritten");
  Json::Value elsewhere = restoreOf(uuid);
  elsewhere["params"]["custom_path"] = json::encodePath(dir_.at("absent" + odd));
  EXPECT_THAT(call(rootsIdentity(), "startDeIsolate", elsewhere)["detail"][0]["reason"].asString(),
              HasSubstr("absent" + std::string(shown) + "' is not there"));
  elsewhere["params"]["custom_path"] = json::encodePath(odd);
  EXPECT_EQ(call(rootsIdentity(), "startDeIsolate", elsewhere)["detail"][0]["reason"].asString(),
            "'" + std::string(shown) + "' is not an absolute path");
  EXPECT_EQ(readFile(path), "a newer file");
  EXPECT_THAT(call(rootsIdentity(), "startScanTask", scanOf(dir_.at("absent" + odd)))["detail"].asString(),
              HasSubstr("absent" + std::string(shown) + ": "));
}

TEST_F(Service, ShowsAndObeysAsToATaskItsStarterAndRootAlone) {
  const std::string path = dir_.write("files/held", "some text");
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  ASSERT_EQ(chmod(dir_.at("files").c_str(), 0755), 0);
  const CallingProcess starter(kUser, kOwnGroup, {});
  const CallingProcess other(kOtherUser, kGroup, {kGroup});
  const Json::Value started = call(starter.identity(), "startScanTask", scanOf(path));
  ASSERT_TRUE(started["status"].asBool()) << started.toStyledString();
  const std::string token = started["token_id"].asString();
  EXPECT_EQ(call(other.identity(), "getBusList").size(), 0U);
  const Json::Value own = call(starter.identity(), "getBusList");
  ASSERT_EQ(own.size(), 1U);
  EXPECT_EQ(own[0]["uid"].asUInt(), kUser) << "on the kernel's word, not on the request's";
  EXPECT_EQ(call(rootsIdentity(), "getBusList").size(), 1U);

  EXPECT_FALSE(call(other.identity(), "ctlBus", orderTo(json::ControlAction::kStop, token)).asBool());
  EXPECT_EQ(call(rootsIdentity(), "getBusList").size(), 1U);
  EXPECT_EQ(
      audited("uid=60101 gid=60200 pid=" + std::to_string(other.identity().pid) +
              " action=\"control scan\" object=\"" + token + " action 1\" outcome=\"refused: no such task\""),
      1);
  EXPECT_TRUE(call(starter.identity(), "ctlBus", orderTo(json::ControlAction::kStop, token)).asBool());
  open();
  EXPECT_TRUE(waitFor([&] { return call(rootsIdentity(), "getBusList").empty(); }));
}

TEST_F(Service, NotifiesTheProcessThatStartedATaskAndNoOther) {
  const CallingProcess starter(kUser, kOwnGroup, {});
  const std::string path = dir_.write("files/file", "some text");
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  ASSERT_EQ(chmod(dir_.at("files").c_str(), 0755), 0);
  ASSERT_TRUE(call(starter.identity(), "startScanTask", scanOf(path))["status"].asBool());
  EXPECT_TRUE(waitFor([&] { return tasks_.count() == 0; }));
  ASSERT_TRUE(notifications_.drain(std::chrono::seconds(20)));
  ASSERT_FALSE(notified_.sent.empty());
  for (const auto& notification : notified_.sent) {
    EXPECT_EQ(notification.operation, "SendToProcess");
    EXPECT_EQ(notification.process, starter.identity());
    EXPECT_EQ(lunet::formatGuid(notification.target),
              lunet::formatGuid(lunet::parseGuid(lunet::kConsoleGuid)));
  }
}

TEST_F(Service, DescribesTheFilesOfAListToAdministratorsOnly) {
  const std::string path = dir_.write("files/listed", "content");
  Json::Value change = jsonOf(R"({"desc":"d","region_type":1,"source":1,
                                  "items":{"action":0,"type":0,"domain":0,"is_all":false}})");
  change["items"]["items"].append(json::encodePath(path));
  ASSERT_TRUE(call(rootsIdentity(), "ctlRegion", change).asBool());
  const CallingProcess member(kUser, kGroup, {});
  const Json::Value request = jsonOf(R"({"domain":4,"item_type":0,"region_type":1})");
  for (const auto& [caller, described] :
       {std::pair{rootsIdentity(), true}, std::pair{member.identity(), false}}) {
    const Json::Value listed = call(caller, "getRegionInfo", request);
    ASSERT_EQ(listed.size(), 1U);
    EXPECT_EQ(json::decodePath(listed[0]["item"].asString()), path);
    EXPECT_EQ(listed[0]["md5"].asString() != "", described);
    EXPECT_EQ(listed[0]["file_size"].asInt() != 0, described);
    EXPECT_EQ(listed[0]["exist_state"].asInt() != 0, described);
  }
}

TEST_F(Service, AnUnknownKindOfSettingsIsAnErrorAnswer) {
  const Json::Value whole =
      answer(rootsIdentity(), "getAVConfig", jsonOf(R"({"config_type":3,"request_source":1})"));
  EXPECT_THAT(whole["error"]["message"].asString() + whole["error"]["data"].asString(),
              HasSubstr("no settings of type 3"));
}

TEST_F(Service, AChangeOfAnUnknownKindIsRefusedAndRecordedWithItsNumber) {
  EXPECT_FALSE(
      call(rootsIdentity(), "setAVConfig",
           jsonOf(R"({"config_str":"{\"Common\":{\"Flag\":true}}","config_type":3,"request_source":1})"))
          .asBool());
  EXPECT_EQ(audited("there are no settings of type 3"), 1);
  Json::Value change = jsonOf(R"({"desc":"","region_type":2,"source":1})");
  change["items"] = jsonOf(R"({"action":0,"type":0,"domain":0,"is_all":false,"items":["/a"]})");
  EXPECT_FALSE(call(rootsIdentity(), "ctlRegion", change).asBool());
  EXPECT_EQ(audited("there is no region 2"), 1);
  change["region_type"] = -1;
  EXPECT_FALSE(call(rootsIdentity(), "ctlRegion", change).asBool());
  EXPECT_EQ(audited("there is no region -1"), 1);
}

TEST_F(Service, AListOfAnUnknownKindIsEmpty) {
  Json::Value change = jsonOf(R"({"desc":"","region_type":0,"source":1})");
  change["items"] = jsonOf(R"({"action":0,"type":0,"domain":0,"is_all":false,"items":["/a"]})");
  ASSERT_TRUE(call(rootsIdentity(), "ctlRegion", change).asBool());
  for (const char* query :
       {R"({"domain":4,"item_type":7,"region_type":0})", R"({"domain":4,"item_type":-1,"region_type":0})",
        R"({"domain":4,"item_type":0,"region_type":2})", R"({"domain":3,"item_type":0,"region_type":0})"}) {
    EXPECT_TRUE(call(rootsIdentity(), "getRegionInfo", jsonOf(query)).empty()) << query;
  }
  EXPECT_EQ(
      call(rootsIdentity(), "getRegionInfo", jsonOf(R"({"domain":4,"item_type":0,"region_type":0})")).size(),
      1U);
}

}  // namespace
}  // namespace agent
