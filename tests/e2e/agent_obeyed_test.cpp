// Settings that the agent obeys: the same scan behaves differently after a change.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "e2e/AgentTree.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "support/ArchiveMaker.h"
#include "support/Json.h"
#include "support/Samples.h"

namespace {

using json::TaskState;
using ::testing::HasSubstr;
using testsupport::AgentTree;
using testsupport::eicar;
using testsupport::jsonOf;
using testsupport::PeerConsole;

constexpr int kStrongCustomScan = json::toScanType(json::ScanMode::kCustom, true);

class ObeyedSetting : public ::testing::Test {
 protected:
  void SetUp() override { startAgent(); }
  void startAgent() {
    tree.start();
    console = std::make_unique<PeerConsole>(tree);
  }
  void stopAgent() {
    console.reset();
    tree.kill(SIGTERM);
    EXPECT_EQ(0, tree.wait());
  }
  void set(json::ConfigType type, const std::string& change) {
    Json::Value request(Json::objectValue);
    request["config_str"] = change;
    request["config_type"] = json::toNumber(type);
    request["request_source"] = json::toNumber(json::RequestSource::kConsole);
    EXPECT_TRUE(console->call("setAVConfig", request).asBool()) << change << tree.log();
  }
  /// Scans all files. Returns the number of notified detections.
  std::size_t scan(const std::string& changes = "{}") {
    const std::size_t before = console->messages("reportRiskInfo").size();
    const Json::Value answer = console->startScan({tree.data()}, jsonOf(changes));
    EXPECT_TRUE(answer["status"].asBool()) << answer["detail"].asString();
    EXPECT_TRUE(console->waitForState(TaskState::kFinished, answer["token_id"].asString())) << tree.log();
    return console->messages("reportRiskInfo").size() - before;
  }
  /// Scans; the settings decide the handling.
  void scanAsSet() {
    Json::Value request = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":""})");
    request["params"] = jsonOf(R"({"scan_type":2})");
    request["params"]["items"].append(tree.data());
    const Json::Value answer = console->call("startScanTask", request);
    EXPECT_TRUE(console->waitForState(TaskState::kFinished, answer["token_id"].asString())) << tree.log();
  }
  Json::Value result() { return console->last("reportRiskFixInfo")["risk_repair_result"]; }
  std::size_t isolated() { return console->call("getIsolationInfo", Json::Value()).size(); }
  /// Changes the agent's store by SQL while the agent is not running.
  void pretend(const char* sql) {
    stopAgent();
    sqlite3* database = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(tree.at("state/agent.db").c_str(), &database));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(database, sql, nullptr, nullptr, nullptr)) << sqlite3_errmsg(database);
    sqlite3_close(database);
    startAgent();
  }

  AgentTree tree{{.group = "", .start = false, .uid = {}}};
  std::unique_ptr<PeerConsole> console;
};

// The handling of a detection.

struct HandlingRow {
  const char* name;
  int value;
  bool there;
  std::size_t isolated;
};
void PrintTo(const HandlingRow& row, std::ostream* out) {
  *out << row.name;
}

class FixMethodSetting : public ObeyedSetting, public ::testing::WithParamInterface<HandlingRow> {};
TEST_P(FixMethodSetting, IsWhatARequestWithoutItTakes) {
  const std::string path = tree.write("eicar.com", eicar());
  set(json::ConfigType::kScan, R"({"Common":{"FixMethod":)" + std::to_string(GetParam().value) + "}}");
  scanAsSet();
  EXPECT_EQ(GetParam().there, std::filesystem::exists(path));
  EXPECT_EQ(GetParam().isolated, isolated());
}
INSTANTIATE_TEST_SUITE_P(, FixMethodSetting,
                         ::testing::Values(HandlingRow{"Automatically", 0, false, 1},
                                           HandlingRow{"ByHand", 1, true, 0},
                                           HandlingRow{"ReportOnly", 2, true, 0}),
                         [](const auto& row) { return row.param.name; });

class HandleActionSetting : public ObeyedSetting, public ::testing::WithParamInterface<HandlingRow> {};
TEST_P(HandleActionSetting, DecidesWhatAutomaticHandlingDoes) {
  const std::string path = tree.write("eicar.com", eicar());
  set(json::ConfigType::kScan, R"({"Common":{"HandleAction":)" + std::to_string(GetParam().value) + "}}");
  scan(R"({"fix_method":0})");
  EXPECT_EQ(GetParam().there, std::filesystem::exists(path));
  EXPECT_EQ(GetParam().isolated, isolated());
}
INSTANTIATE_TEST_SUITE_P(, HandleActionSetting,
                         ::testing::Values(HandlingRow{"Clean", 0, false, 1},
                                           HandlingRow{"Delete", 1, false, 0},
                                           HandlingRow{"Quarantine", 2, false, 1},
                                           HandlingRow{"Nothing", 3, true, 0}),
                         [](const auto& row) { return row.param.name; });

// Archives.

TEST_F(ObeyedSetting, CompressedFlagOffLeavesArchivesUnopened) {
  tree.write("a.zip", testsupport::makeZip({{"eicar.com", eicar()}}));
  EXPECT_EQ(1U, scan());
  set(json::ConfigType::kScan, R"({"Compressed":{"Flag":false}})");
  EXPECT_EQ(0U, scan());
}

TEST_F(ObeyedSetting, CompressedLayerLeavesDeeperArchivesUnopened) {
  tree.write("a.zip", testsupport::makeNestedZip(4, "eicar.com", eicar()));
  EXPECT_EQ(1U, scan());
  set(json::ConfigType::kScan, R"({"Compressed":{"Layer":3}})");
  EXPECT_EQ(0U, scan());
  set(json::ConfigType::kScan, R"({"Compressed":{"Layer":4}})");
  EXPECT_EQ(1U, scan());
}

TEST_F(ObeyedSetting, CompressedFileSizeLeavesLargerArchivesUnopened) {
  tree.write("a.zip",
             testsupport::makeZip(
                 {{.name = "eicar.com", .content = eicar()},
                  {.name = "padding", .content = std::string((1 << 20) + 1, 'x'), .deflate = false}}));
  EXPECT_EQ(1U, scan());
  set(json::ConfigType::kScan, R"({"Compressed":{"FileSize":1}})");
  EXPECT_EQ(0U, scan());
  set(json::ConfigType::kScan, R"({"Compressed":{"FileSize":2}})");
  EXPECT_EQ(1U, scan());
}

TEST_F(ObeyedSetting, CompressedFormatNamesTheArchivesThatAreOpened) {
  tree.write("a.zip", testsupport::makeZip({{"eicar.com", eicar()}}));
  tree.write("a.gz", testsupport::makeGzip(eicar()));
  EXPECT_EQ(2U, scan());
  set(json::ConfigType::kScan, R"({"Compressed":{"Format":["gz"]}})");
  EXPECT_EQ(1U, scan());
  EXPECT_THAT(console->last("reportRiskInfo")["risk_info"]["item"].asString(), HasSubstr("a.gz"));
}

// Engines: one detection of each engine that detects.

std::string hex(const std::string& text) {
  std::string digits;
  for (const char c : text) {
    static constexpr const char* kDigits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    digits += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return digits;
}

struct EngineRow {
  const char* name;
  int code;
  const char* setting;
  const char* signature;  ///< of the system's database; null: shipped or built in
};
void PrintTo(const EngineRow& row, std::ostream* out) {
  *out << row.name;
}

const EngineRow kEngineRows[] = {
    {"TheSystemsDatabase", json::kEngineHc, "HCengine", "Unix.Trojan.Check"},
    {"Heuristics", json::kEngineUmb, "UMBengine", nullptr},
    {"Scripts", json::kEngineIxo, "IXOengine", "Js.Downloader.Check"},
    {"OwnPatterns", json::kEngineRda, "RDAengine", nullptr},
    {"OwnHashes", json::kEngineRdaOld, "RDAOLDengine", nullptr},
    {"Documents", json::kEngineDocument, "IXOengine", "Doc.Macro.Check"},
    {"Bytecode", json::kEngineBytecode, "UMBengine", "BC.Unix.Check"},
    {"UnwantedPrograms", json::kEngineUnwanted, "HCengine", "PUA.Unix.Tool.Check"},
};

/// A program whose header names missing parts.
std::string brokenProgram() {
  return std::string(
             "\x7F"
             "ELF\x02\x01\x01",
             7) +
         std::string(9, '\0') + std::string("\x02\x00\x3E\x00\x01\x00\x00\x00", 8) + std::string(40, '\x7E') +
         std::string(200, '\x11');
}

std::string contentFor(const EngineRow& row) {
  switch (row.code) {
    case json::kEngineUmb:
      return brokenProgram();
    case json::kEngineRda:
      return testsupport::genericSample();
    case json::kEngineRdaOld:
      return testsupport::hashSample();
    default:
      return std::string("sample of ") + row.signature;
  }
}

class EngineSwitch : public ObeyedSetting, public ::testing::WithParamInterface<EngineRow> {
 protected:
  void SetUp() override {
    std::string signatures;
    for (const EngineRow& row : kEngineRows) {
      if (row.signature != nullptr) {
        signatures += std::string(row.signature) + ":0:*:" + hex(contentFor(row)) + "\n";
      }
    }
    std::filesystem::create_directories(tree.systemSignatures());
    std::ofstream(tree.systemSignatures() + "/checks.ndb") << signatures;
    startAgent();
  }
  std::set<int> engines() {
    std::set<int> codes;
    const std::size_t before = console->messages("reportRiskInfo").size();
    scan(R"({"scan_type":)" + std::to_string(kStrongCustomScan) + "}");
    const auto risks = console->messages("reportRiskInfo");
    for (std::size_t i = before; i < risks.size(); ++i) {
      codes.insert(risks[i].params["risk_info"]["engine_mark"].asInt());
    }
    return codes;
  }
};

TEST_P(EngineSwitch, OffItsDetectionsAreNotFoundAndOthersAre) {
  std::set<int> all;
  std::set<int> others;
  for (const EngineRow& row : kEngineRows) {
    tree.write(row.name, contentFor(row));
    all.insert(row.code);
    if (std::string(row.setting) != GetParam().setting) {
      others.insert(row.code);
    }
  }
  EXPECT_EQ(all, engines()) << tree.log();
  const std::string key = std::string(R"({"MultiEngines":{")") + GetParam().setting + "\":";
  set(json::ConfigType::kEngines, key + "false}}");
  EXPECT_EQ(others, engines()) << tree.log();
  set(json::ConfigType::kEngines, key + "true}}");
  EXPECT_EQ(all, engines());
}
INSTANTIATE_TEST_SUITE_P(, EngineSwitch, ::testing::ValuesIn(kEngineRows),
                         [](const auto& row) { return row.param.name; });

// The quarantine's size.

constexpr const char* kNearlyAGigabyteEach =
    "UPDATE items SET stored_bytes=1073741824-100,isolate_time=isolate_time-31*86400";

TEST_F(ObeyedSetting, SizeLimitLeavesWhatDoesNotFitWhereItIsAndSaysWhy) {
  tree.write("first", eicar());
  set(json::ConfigType::kQuarantine, R"({"Common":{"SizeLimit":1}})");
  scan(R"({"fix_method":0})");
  ASSERT_EQ(1U, isolated());
  pretend(kNearlyAGigabyteEach);
  const std::string path = tree.write("second", eicar());
  scan(R"({"fix_method":0})");
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(json::toNumber(json::HandleResult::kFailed), result()["handle_result"].asInt());
  EXPECT_THAT(result()["handle_detail"].asString(), HasSubstr("quarantine is full"));
  set(json::ConfigType::kQuarantine, R"({"Common":{"SizeLimit":2}})");
  scan(R"({"fix_method":0})");
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(2U, isolated());
}

TEST_F(ObeyedSetting, AutoCleanMakesRoomByAge) {
  tree.write("old", eicar());
  set(json::ConfigType::kQuarantine,
      R"({"Common":{"SizeLimit":1},"AutoClean":{"CleanType":0,"CleanTime":30,"CleanUnit":2}})");
  scan(R"({"fix_method":0})");
  ASSERT_EQ(1U, isolated());
  pretend(kNearlyAGigabyteEach);
  const std::string path = tree.write("new", eicar());
  scan(R"({"fix_method":0})");
  EXPECT_TRUE(std::filesystem::exists(path)) << "off, nothing is cleaned";
  set(json::ConfigType::kQuarantine, R"({"AutoClean":{"Flag":true}})");
  scan(R"({"fix_method":0})");
  EXPECT_FALSE(std::filesystem::exists(path));
  const Json::Value items = console->call("getIsolationInfo", Json::Value());
  ASSERT_EQ(1U, items.size());
  EXPECT_EQ(path, items[0]["filepath_src"].asString());
}

}  // namespace
