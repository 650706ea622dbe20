// The installed agent, called over the real bus by a console in a process of its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "e2e/AgentTree.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "support/Json.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace {

using json::TaskState;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testsupport::AgentTree;
using testsupport::eicar;
using testsupport::jsonOf;
using testsupport::PeerConsole;
using testsupport::waitFor;

class AgentScan : public ::testing::Test {
 protected:
  /// Scans and waits for the end. Returns the token.
  std::string scan(const std::vector<std::string>& items, const Json::Value& changes = {}) {
    const Json::Value answer = console.startScan(items, changes);
    EXPECT_TRUE(answer["status"].asBool()) << answer["detail"].asString();
    const std::string token = answer["token_id"].asString();
    EXPECT_TRUE(console.waitForState(TaskState::kFinished, token)) << tree.log();
    return token;
  }
  std::set<std::string> risks() const {
    std::set<std::string> paths;
    for (const auto& notice : console.messages("reportRiskFixInfo")) {
      paths.insert(json::decodePath(notice.params["risk_info"]["item"].asString()));
    }
    return paths;
  }
  int remembered() { return console.call("getScanCacheDetail", Json::Value()).asInt(); }
  /// Scans until the cache knows so many files: the cache does not remember files of the last moment.
  void scanUntilRemembered(int files) {
    EXPECT_TRUE(waitFor([&] {
      scan({tree.data()});
      return remembered() == files;
    }));
  }
  Json::Value overview() const { return console.last("reportScanBusOverView")["overview"]; }
  /// Changes settings of a section.
  void set(const std::string& section, const std::string& values,
           json::ConfigType type = json::ConfigType::kScan) {
    Json::Value request(Json::objectValue);
    request["config_str"] = "{\"" + section + "\":" + values + "}";
    request["config_type"] = json::toNumber(type);
    request["request_source"] = json::toNumber(json::RequestSource::kConsole);
    EXPECT_TRUE(console.call("setAVConfig", request).asBool()) << tree.log();
  }

  AgentTree tree{{.group = "", .start = true, .uid = {}, .dataOnDisk = true}};
  PeerConsole console{tree};
};

TEST_F(AgentScan, EveryDetectionIsToldWithItsPathAndTheCountsAgreeWithTheFolder) {
  const std::string one = tree.write("one/eicar.com", eicar());
  const std::string deep = tree.write("a/b/c/d/样本.txt", eicar());
  tree.write("clean.txt", "nothing");
  ASSERT_EQ(0, symlink("clean.txt", (tree.data() + "/link").c_str()));
  ASSERT_EQ(0, mkfifo((tree.data() + "/fifo").c_str(), 0600));
  const std::string token = scan({tree.data()});

  EXPECT_EQ((std::set<std::string>{one, deep}), risks());
  const Json::Value counts = overview();
  EXPECT_EQ(3, counts["checked_item_count"].asInt());
  EXPECT_EQ(2, counts["checkout_risk_count"].asInt());
  EXPECT_EQ(5, counts["total_item_count"].asInt());
  EXPECT_EQ(0, counts["failed_item_count"].asInt());
  EXPECT_EQ(2, counts["ignore_risk_count"].asInt());
  EXPECT_EQ(token, counts["token_id"].asString());
  EXPECT_THAT(console.states(token),
              ElementsAre(TaskState::kCreated, TaskState::kStarted, TaskState::kFinished));
}

TEST_F(AgentScan, EveryNotificationCarriesTheFreshTokenAndObjects) {
  tree.write("eicar.com", eicar());
  const std::string token = scan({tree.data()});
  ASSERT_FALSE(token.empty());
  for (const auto& notice : console.messages()) {
    EXPECT_EQ(token, notice.params["token_id"].asString()) << notice.method;
  }
  for (const auto& notice : console.messages("reportBusStatus")) {
    EXPECT_TRUE(notice.params["ctx"].isObject());
    EXPECT_TRUE(notice.params["params"].isObject());
    EXPECT_EQ(json::toNumber(json::BusinessType::kScan), notice.params["type"].asInt());
  }
  EXPECT_NE(token, scan({tree.data()}));
}

TEST_F(AgentScan, TheLastOverviewAndProgressOneHundredComeBeforeTheEnd) {
  tree.write("file", "x");
  scan({tree.data()});
  std::vector<std::string> order;
  for (const auto& notice : console.messages()) {
    order.push_back(notice.method);
  }
  ASSERT_GE(order.size(), 3U);
  EXPECT_EQ("reportBusStatus", order.back());
  EXPECT_EQ("reportScanBusOverView", order[order.size() - 2]);
  EXPECT_EQ("reportBusProgress", order[order.size() - 3]);
  EXPECT_EQ(100, console.last("reportBusProgress")["progress"].asInt());
}

TEST_F(AgentScan, ARiskIsToldAndThenWhatBecameOfIt) {
  const std::string path = tree.write("eicar.com", eicar());
  scan({tree.data()});
  const auto risk = console.messages("reportRiskInfo");
  const auto fix = console.messages("reportRiskFixInfo");
  ASSERT_EQ(1U, risk.size());
  ASSERT_EQ(1U, fix.size());
  EXPECT_EQ(json::toNumber(json::RiskInfoType::kFile), risk[0].params["risk_info_type"].asInt());
  EXPECT_EQ(json::toNumber(json::BusinessType::kScan), risk[0].params["business_type"].asInt());
  EXPECT_EQ(path, risk[0].params["risk_info"]["item"].asString());
  EXPECT_EQ(68, risk[0].params["risk_info"]["filesize_src"].asInt());
  EXPECT_EQ("44d88612fea8a8f36de82e1278abb02f", risk[0].params["risk_info"]["filemd5_src"].asString());
  EXPECT_EQ(risk[0].params["risk_info"]["risk_id"], fix[0].params["risk_info"]["risk_id"]);
  EXPECT_EQ(json::toNumber(json::HandleResult::kReportedOnly),
            fix[0].params["risk_repair_result"]["handle_result"].asInt());
  EXPECT_EQ("仅上报", fix[0].params["risk_repair_result"]["handle_detail"].asString());
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(AgentScan, AutomaticHandlingQuarantinesWhatItFinds) {
  const std::string path = tree.write("eicar.com", eicar());
  scan({tree.data()}, jsonOf(R"({"fix_method":0})"));
  const Json::Value fix = console.last("reportRiskFixInfo");
  EXPECT_EQ(json::toNumber(json::HandleResult::kQuarantined),
            fix["risk_repair_result"]["handle_result"].asInt())
      << fix["risk_repair_result"]["handle_detail"].asString();
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(1, overview()["fixed_risk_count"].asInt());
  const Json::Value items = console.call("getIsolationInfo", Json::Value());
  ASSERT_EQ(1U, items.size());
  EXPECT_EQ(path, items[0]["filepath_src"].asString());
}

TEST_F(AgentScan, HandleActionDeleteRemovesForGoodAndNothingIsKept) {
  set("Common", R"({"FixMethod":0,"HandleAction":1})");
  const std::string path = tree.write("eicar.com", eicar());
  scan({tree.data()}, jsonOf(R"({"fix_method":0})"));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(0U, console.call("getIsolationInfo", Json::Value()).size());
  EXPECT_EQ(json::toNumber(json::HandleResult::kQuarantined),
            console.last("reportRiskFixInfo")["risk_repair_result"]["handle_result"].asInt());
}

TEST_F(AgentScan, PathsThatAreNoUtf8AreScannedAndToldInTheirWireForm) {
  const std::string path = tree.write("bad\xff\x80/eicar\xfe.com", eicar());
  scan({tree.data() + "/bad\xff\x80"});
  EXPECT_EQ((std::set<std::string>{path}), risks());
}

TEST_F(AgentScan, AnItemThatCannotBeOpenedIsStateMinusOneWithTheReasonAndAnsweredFalse) {
  const Json::Value answer = console.startScan({tree.data() + "/absent"});
  EXPECT_FALSE(answer["status"].asBool());
  const std::string token = answer["token_id"].asString();
  ASSERT_FALSE(token.empty());
  ASSERT_TRUE(console.waitForState(TaskState::kNotCreated, token));
  EXPECT_THAT(console.states(token), ElementsAre(TaskState::kNotCreated));
  EXPECT_THAT(console.last("reportBusStatus")["detail"].asString(), HasSubstr("No such file"));
}

TEST_F(AgentScan, AnItemThatIsNeverScannedIsStateMinusOneAndNoEmptySuccess) {
  const std::string fifo = tree.data() + "/fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  for (const auto& [item, reason] : std::map<std::string, std::string>{
           {fifo, "fifo"}, {"/proc", "pseudo file system proc"}, {tree.path() + "/state", "agent itself"}}) {
    const Json::Value answer = console.startScan({item});
    EXPECT_FALSE(answer["status"].asBool()) << item;
    EXPECT_THAT(answer["detail"].asString(), HasSubstr(reason));
    EXPECT_TRUE(console.waitForState(TaskState::kNotCreated, answer["token_id"].asString()));
  }
}

TEST(AgentScanByALink, OfTheTreesOwnFoldersIsRefusedByEitherNameAndAScanOfAllLeavesThemOut) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  const testsupport::TempDir elsewhere;
  const std::string link = elsewhere.at("tree");
  ASSERT_EQ(0, symlink(tree.path().c_str(), link.c_str()));
  testsupport::Process agent(
      {tree.program("tavagentd"), "--install-dir", link, "--system-signatures", tree.systemSignatures()});
  ASSERT_TRUE(agent.waitForErr("serving")) << agent.err();
  {
    PeerConsole console(tree);
    for (const std::string& name : {tree.path(), link}) {
      for (const char* own : {"/state", "/state/tmp"}) {
        const Json::Value answer = console.startScan({name + own});
        EXPECT_FALSE(answer["status"].asBool()) << name << own;
        EXPECT_THAT(answer["detail"].asString(), HasSubstr("agent itself")) << name << own;
      }
    }
    const std::string found = tree.write("eicar.com", eicar());
    std::filesystem::copy(found, tree.at("state/tmp/eicar.com"));
    for (const auto& [name, changes] :
         {std::pair(tree.path(), "{}"), std::pair(link, R"({"fix_method":0})")}) {
      const std::string token = console.startScan({name}, jsonOf(changes))["token_id"].asString();
      ASSERT_TRUE(console.waitForState(TaskState::kFinished, token)) << tree.log();
    }
    EXPECT_EQ(2U, console.messages("reportRiskFixInfo").size()) << "the file in data/, once a scan";
    EXPECT_FALSE(std::filesystem::exists(found));
    EXPECT_EQ(1U, console.call("getIsolationInfo", Json::Value()).size());
  }
  agent.kill(SIGTERM);
  EXPECT_EQ(0, agent.wait()) << agent.err();
}

TEST_F(AgentScan, TheEndTellsHowManyWereSkippedAndWhy) {
  ASSERT_EQ(0, symlink("x", (tree.data() + "/link").c_str()));
  scan({tree.data()});
  EXPECT_THAT(console.last("reportBusStatus")["detail"].asString(), HasSubstr("1 skipped (1 symbolic link)"));
}

TEST_F(AgentScan, ACustomScanWithoutAPathIsStateMinusOne) {
  const Json::Value answer = console.startScan({});
  EXPECT_FALSE(answer["status"].asBool());
  EXPECT_TRUE(console.waitForState(TaskState::kNotCreated, answer["token_id"].asString()));
}

TEST_F(AgentScan, ANamedLinkIsFollowedAndOneBelowIsNot) {
  const std::string file = tree.write("real/eicar.com", eicar());
  ASSERT_EQ(0, symlink("real", (tree.data() + "/named").c_str()));
  scan({tree.data() + "/named"});
  EXPECT_EQ((std::set<std::string>{tree.data() + "/named/eicar.com"}), risks());
}

TEST_F(AgentScan, SpecialFilesAreSkippedAndCounted) {
  ASSERT_EQ(0, mkfifo((tree.data() + "/fifo").c_str(), 0600));
  ASSERT_EQ(0, mknod((tree.data() + "/device").c_str(), S_IFCHR | 0600, 0x0103));
  scan({tree.data()});
  EXPECT_EQ(2, overview()["total_item_count"].asInt());
  EXPECT_EQ(0, overview()["checked_item_count"].asInt());
  EXPECT_EQ(0, overview()["failed_item_count"].asInt());
}

TEST_F(AgentScan, TheAgentsOwnStoreIsNotScanned) {
  tree.write("eicar.com", eicar());
  scan({tree.data()}, jsonOf(R"({"fix_method":0})"));
  const std::size_t before = risks().size();
  scan({tree.path()});
  EXPECT_EQ(before, risks().size());
}

TEST_F(AgentScan, AnEmptyFolderIsFinishedWithNothing) {
  scan({tree.data()});
  EXPECT_EQ(0, overview()["total_item_count"].asInt());
}

TEST_F(AgentScan, TheContextGivenAlongComesBackWithEveryState) {
  Json::Value request = jsonOf(R"({"ctx":{"mine":7},"desc":"","source":1,"token_id":""})");
  request["params"] = jsonOf(R"({"scan_type":2,"fix_method":2})");
  request["params"]["items"].append(tree.data());
  const std::string token = console.call("startScanTask", request)["token_id"].asString();
  ASSERT_TRUE(console.waitForState(TaskState::kFinished, token));
  for (const auto& notice : console.messages("reportBusStatus")) {
    EXPECT_EQ(7, notice.params["ctx"]["mine"].asInt());
  }
}

// Settings that change the same scan.

TEST_F(AgentScan, SkipSizeLeavesLargerFilesOut) {
  tree.write("small", eicar());
  tree.write("large", eicar() + std::string(2 << 20, ' '));
  set("Common", R"({"SkipSize":1})");
  scan({tree.data()});
  EXPECT_EQ(1, overview()["checked_item_count"].asInt());
  EXPECT_EQ(2, overview()["total_item_count"].asInt());
}

TEST_F(AgentScan, ScanFileTypeTwoScansProgramsAndDocumentsOnly) {
  tree.write("picture.jpg", eicar());
  const std::string program = tree.write("program.exe", eicar());
  set("Common", R"({"ScanFileType":2})");
  scan({tree.data()});
  EXPECT_EQ((std::set<std::string>{program}), risks());
}

TEST_F(AgentScan, ParallelismDecidesTheNumberOfWorkers) {
  set("Common", R"({"Parallelism":3})");
  scan({tree.data()});
  EXPECT_EQ(3, console.last("reportScanAttributeInfo")["payload"]["parallelism"].asInt());
}

TEST_F(AgentScan, TheCacheGrowsIsUsedAndEmpties) {
  tree.write("a", "one");
  tree.write("b", "two");
  scanUntilRemembered(2);
  scan({tree.data()});
  EXPECT_EQ(2, overview()["checked_item_count"].asInt());
  console.process().write(
      R"({"send":"FBE54D8E-D8E6-41F8-BE05-A94CE5469587","channel":20991,"data":"{\"jsonrpc\":\"2.0\",\"method\":\"cleanScanCache\"}"})"
      "\n");
  EXPECT_TRUE(waitFor([&] { return remembered() == 0; }));
}

TEST_F(AgentScan, WithoutScanCacheNothingMoreIsRemembered) {
  tree.write("a", "one");
  scanUntilRemembered(1);
  tree.write("b", "two");
  set("Common", R"({"ScanWithCache":false})");
  for (int round = 0; round < 5; ++round) {
    scan({tree.data()});
  }
  EXPECT_EQ(1, remembered());
}

TEST_F(AgentScan, AnEngineThatIsSwitchedOffFindsNothing) {
  tree.write("eicar.com", eicar());
  scan({tree.data()});
  ASSERT_EQ(1U, risks().size());
  const int mark = console.last("reportRiskInfo")["risk_info"]["engine_mark"].asInt();
  set("MultiEngines",
      std::string("{\"") + (mark == json::kEngineRda ? "RDAengine" : "RDAOLDengine") + "\":false}",
      json::ConfigType::kEngines);
  const std::size_t before = console.messages("reportRiskInfo").size();
  scan({tree.data()});
  EXPECT_EQ(before, console.messages("reportRiskInfo").size());
}

// Trust and reject.

Json::Value region(json::RegionAction action, json::RegionItemType type, const std::string& item) {
  Json::Value request = jsonOf(R"({"desc":"","region_type":0,"source":1})");
  request["items"] = jsonOf(R"({"domain":0,"is_all":false})");
  request["items"]["action"] = json::toNumber(action);
  request["items"]["type"] = json::toNumber(type);
  request["items"]["items"].append(item);
  return request;
}

TEST_F(AgentScan, ATrustedFileIsSkippedAndCountedUntilItIsTrustedNoMore) {
  const std::string path = tree.write("eicar.com", eicar());
  ASSERT_TRUE(console.call("ctlRegion", region(json::RegionAction::kAdd, json::RegionItemType::kFile, path))
                  .asBool());
  scan({tree.data()});
  EXPECT_THAT(risks(), IsEmpty());
  EXPECT_EQ(1, overview()["trusted_risk_count"].asInt());
  ASSERT_TRUE(
      console.call("ctlRegion", region(json::RegionAction::kDelete, json::RegionItemType::kFile, path))
          .asBool());
  scan({tree.data()});
  EXPECT_EQ((std::set<std::string>{path}), risks());
}

TEST_F(AgentScan, ATrustedHashIsToldAsTrustedAndLeftAlone) {
  const std::string path = tree.write("eicar.com", eicar());
  ASSERT_TRUE(console
                  .call("ctlRegion", region(json::RegionAction::kAdd, json::RegionItemType::kMd5,
                                            "44d88612fea8a8f36de82e1278abb02f"))
                  .asBool());
  scan({tree.data()}, jsonOf(R"({"fix_method":0})"));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_THAT(console.messages("reportRiskInfo"), IsEmpty());
  EXPECT_EQ(json::toNumber(json::HandleResult::kTrusted),
            console.last("reportRiskFixInfo")["risk_repair_result"]["handle_result"].asInt());
  EXPECT_EQ(0, overview()["checkout_risk_count"].asInt());
  EXPECT_EQ(1, overview()["trusted_risk_count"].asInt());
}

TEST_F(AgentScan, ARejectedFileIsADetectionOfTheRejectListAlsoWhenItWasKnownClean) {
  const std::string path = tree.write("clean.txt", "harmless");
  scanUntilRemembered(1);
  Json::Value request = region(json::RegionAction::kAdd, json::RegionItemType::kFile, path);
  request["region_type"] = json::toNumber(json::Region::kReject);
  ASSERT_TRUE(console.call("ctlRegion", request).asBool());
  scan({tree.data()});
  EXPECT_EQ((std::set<std::string>{path}), risks());
  EXPECT_EQ(json::kEngineRejectList, console.last("reportRiskInfo")["risk_info"]["engine_mark"].asInt());
}

TEST_F(AgentScan, ARejectedHashIsADetectionAlsoWhenTheFileWasKnownClean) {
  const std::string path = tree.write("clean.txt", "harmless");
  scanUntilRemembered(1);
  testsupport::Process md5({"md5sum", path});
  ASSERT_EQ(0, md5.wait());
  Json::Value request = region(json::RegionAction::kAdd, json::RegionItemType::kMd5, md5.out().substr(0, 32));
  request["region_type"] = json::toNumber(json::Region::kReject);
  ASSERT_TRUE(console.call("ctlRegion", request).asBool());
  scan({tree.data()});
  EXPECT_EQ((std::set<std::string>{path}), risks());
}

// Running programs.

TEST_F(AgentScan, AProcessThatRunsADetectionIsToldAndEndedWhenSoSet) {
  const std::string program = tree.data() + "/running";
  std::filesystem::create_directories(tree.data());
  std::filesystem::copy_file("/bin/sleep", program);
  {
    // The program carries a detection behind its own bytes and still runs.
    const int fd = open(program.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const std::string sample = testsupport::genericSample();
    ASSERT_EQ(static_cast<ssize_t>(sample.size()), write(fd, sample.data(), sample.size()));
    close(fd);
  }
  testsupport::Process victim({program, "60"});
  ASSERT_TRUE(waitFor([&] {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/" + std::to_string(victim.pid()) + "/exe", error) == program;
  }));

  set("Common", R"({"MemCheck":true})");
  scan({tree.data()}, jsonOf(R"({"fix_method":0,"handle_action":3})"));
  Json::Value repair;
  for (const auto& notice : console.messages("reportRiskFixInfo")) {
    if (notice.params["risk_info_type"].asInt() == json::toNumber(json::RiskInfoType::kProcess)) {
      repair = notice.params;
    }
  }
  ASSERT_TRUE(repair.isObject()) << tree.log();
  EXPECT_EQ(victim.pid(), repair["risk_info"]["process_info"]["pid"].asInt());
  EXPECT_EQ(json::toNumber(json::HandleResult::kReportedOnly),
            repair["risk_repair_result"]["handle_result"].asInt());
  EXPECT_TRUE(victim.running());

  set("Common", R"({"FixMethod_MemRisk":1})");
  scan({tree.data()}, jsonOf(R"({"fix_method":0})"));
  EXPECT_EQ(128 + SIGKILL, victim.wait());
  bool ended = false;
  for (const auto& notice : console.messages("reportRiskFixInfo")) {
    ended =
        ended || (notice.params["risk_info_type"].asInt() == json::toNumber(json::RiskInfoType::kProcess) &&
                  notice.params["risk_repair_result"]["handle_result"].asInt() ==
                      json::toNumber(json::HandleResult::kProcessEnded));
  }
  EXPECT_TRUE(ended);
  EXPECT_FALSE(std::filesystem::exists(program));
}

// Settings documents.

class ConfigTypes : public AgentScan, public ::testing::WithParamInterface<json::ConfigType> {};
TEST_P(ConfigTypes, AreAnsweredAsTheTextOfADocument) {
  Json::Value request(Json::objectValue);
  request["config_type"] = json::toNumber(GetParam());
  request["request_source"] = json::toNumber(json::RequestSource::kConsole);
  const Json::Value answer = console.call("getAVConfig", request);
  ASSERT_TRUE(answer.isString());
  EXPECT_TRUE(jsonOf(answer.asString()).isObject());
}
INSTANTIATE_TEST_SUITE_P(Types, ConfigTypes, ::testing::ValuesIn(json::kValuesOf<json::ConfigType>),
                         [](const auto& row) { return "Type" + std::to_string(json::toNumber(row.param)); });

TEST_F(AgentScan, AnUnknownConfigTypeIsAnErrorAnswer) {
  EXPECT_THROW(console.call("getAVConfig", jsonOf(R"({"config_type":9,"request_source":1})")),
               std::runtime_error);
}

TEST_F(AgentScan, AWrongSettingIsAnsweredFalseAndChangesNothing) {
  const Json::Value before = console.call("getAVConfig", jsonOf(R"({"config_type":0,"request_source":1})"));
  Json::Value request = jsonOf(R"({"config_type":0,"request_source":1})");
  request["config_str"] = R"({"Common":{"Parallelism":100000}})";
  EXPECT_FALSE(console.call("setAVConfig", request).asBool());
  EXPECT_EQ(before, console.call("getAVConfig", jsonOf(R"({"config_type":0,"request_source":1})")));
}

// Restore.

TEST_F(AgentScan, ARestoreOfAnUnknownItemIsStatusFalseWithItsReason) {
  Json::Value request = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":""})");
  request["params"] =
      jsonOf(R"({"action":1,"item_number":0,"is_all":false,"custom_path":"","items":["no-such"]})");
  const Json::Value answer = console.call("startDeIsolate", request);
  EXPECT_FALSE(answer["status"].asBool());
  ASSERT_EQ(1U, answer["detail"].size());
  EXPECT_EQ("no-such", answer["detail"][0]["uuid"].asString());
  EXPECT_FALSE(answer["detail"][0]["reason"].asString().empty());
}

TEST_F(AgentScan, ARestoredItemIsBackAndWithTrustItIsNotFoundAgain) {
  const std::string path = tree.write("eicar.com", eicar());
  scan({tree.data()}, jsonOf(R"({"fix_method":0})"));
  const std::string uuid = console.call("getIsolationInfo", Json::Value())[0]["uuid"].asString();
  Json::Value request = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":""})");
  request["params"] = jsonOf(R"({"action":2,"item_number":0,"is_all":false,"custom_path":"","items":[]})");
  request["params"]["items"].append(uuid);
  const Json::Value answer = console.call("startDeIsolate", request);
  EXPECT_TRUE(answer["status"].asBool()) << answer["detail"].toStyledString();
  EXPECT_EQ(eicar(), testsupport::readFile(path));
  const std::size_t before = console.messages("reportRiskInfo").size();
  scan({tree.data()});
  EXPECT_EQ(before, console.messages("reportRiskInfo").size());
}

}  // namespace
