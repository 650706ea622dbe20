#include <array>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "StoreFixture.h"
#include "json/Values.h"
#include "store/SettingsTable.h"
#include "support/FileCalls.h"

namespace agent::store {
static void PrintTo(const Setting& setting, std::ostream* out) {
  *out << setting.section << "." << setting.key;
}
}  // namespace agent::store

namespace agent {
namespace {

using testing::HasSubstr;

using store::Setting;
using store::SettingKind;

class SettingsTest : public StoreTest {
 protected:
  Settings& settings() { return store().settings(); }
  Json::Value value(json::ConfigType type, const char* section, const char* key) {
    return settings().document(type)[section][key];
  }
  std::string refusal(json::ConfigType type, const std::string& change) {
    SCOPED_TRACE(change);
    return reasonOf(settings().change(type, change));
  }
  void accept(json::ConfigType type, const std::string& change) {
    const auto done = settings().change(type, change);
    EXPECT_TRUE(done) << change << ": " << done.error();
  }
};

std::string changeText(const Setting& setting, const Json::Value& value) {
  Json::Value change;
  change[setting.section][setting.key] = value;
  return testsupport::jsonText(change);
}

std::string nameOf(const testing::TestParamInfo<Setting>& info) {
  static const std::map<json::ConfigType, std::string> kTypes = {
      {json::ConfigType::kScan, "Scan"},
      {json::ConfigType::kRealTime, "RealTime"},
      {json::ConfigType::kQuarantine, "Quarantine"},
      {json::ConfigType::kEngines, "Engines"}};
  return kTypes.at(info.param.configType) + info.param.section + info.param.key;
}

/// An allowed value other than the default.
Json::Value otherValue(const Setting& setting) {
  switch (setting.kind) {
    case SettingKind::kSwitch:
      return !store::standardValue(setting).asBool();
    case SettingKind::kNumber:
      return Json::Int64(store::standardValue(setting).asInt64() == setting.largest ? setting.smallest
                                                                                    : setting.largest);
    case SettingKind::kText:
      return "https://cloud.example/a?b=c";
    case SettingKind::kWords:
      return Json::Value(Json::arrayValue);
  }
  return {};
}

class EverySettingTest : public SettingsTest, public testing::WithParamInterface<Setting> {};
INSTANTIATE_TEST_SUITE_P(Table, EverySettingTest,
                         testing::ValuesIn(store::settingsTable().begin(), store::settingsTable().end()),
                         nameOf);

TEST_P(EverySettingTest, StartsWithItsDefaultWhichTheTableAllows) {
  const Setting& setting = GetParam();
  EXPECT_EQ(value(setting.configType, setting.section, setting.key), store::standardValue(setting));
  EXPECT_TRUE(store::checkValue(setting, store::standardValue(setting)));
}

TEST_P(EverySettingTest, TakesAnAllowedValueAndKeepsItOverARestart) {
  const Setting& setting = GetParam();
  accept(setting.configType, changeText(setting, otherValue(setting)));
  EXPECT_EQ(value(setting.configType, setting.section, setting.key), otherValue(setting));
  reopen();
  EXPECT_EQ(value(setting.configType, setting.section, setting.key), otherValue(setting));
}

TEST_P(EverySettingTest, RefusesAValueOfEveryOtherKind) {
  const Setting& setting = GetParam();
  const std::vector<std::pair<SettingKind, Json::Value>> samples = {
      {SettingKind::kSwitch, Json::Value(true)},
      {SettingKind::kNumber, Json::Value(Json::Int64(setting.smallest))},
      {SettingKind::kNumber, Json::Value(8.0)},
      {SettingKind::kText, Json::Value("1")},
      {SettingKind::kWords, Json::Value(Json::arrayValue)}};
  for (const auto& [kind, sample] : samples) {
    if (kind != setting.kind || sample.type() == Json::realValue) {
      refusal(setting.configType, changeText(setting, sample));
    }
  }
  refusal(setting.configType, changeText(setting, Json::Value()));
  refusal(setting.configType, changeText(setting, Json::Value(Json::objectValue)));
  EXPECT_EQ(value(setting.configType, setting.section, setting.key), store::standardValue(setting));
}

TEST_P(EverySettingTest, RefusesANumberOutsideItsRange) {
  const Setting& setting = GetParam();
  if (setting.kind == SettingKind::kNumber) {
    refusal(setting.configType, changeText(setting, Json::Int64(setting.smallest - 1)));
    refusal(setting.configType, changeText(setting, Json::Int64(setting.largest + 1)));
    refusal(setting.configType, changeText(setting, Json::Value(Json::UInt64(UINT64_MAX))));
    accept(setting.configType, changeText(setting, Json::Int64(setting.smallest)));
    accept(setting.configType, changeText(setting, Json::Int64(setting.largest)));
  }
}

const char* kindName(SettingKind kind) {
  static constexpr std::array kNames = {"switch", "number", "text", "words"};
  return kNames.at(static_cast<std::size_t>(kind));
}

class EveryDocumentedSettingTest : public testing::TestWithParam<Setting> {};
INSTANTIATE_TEST_SUITE_P(Table, EveryDocumentedSettingTest,
                         testing::ValuesIn(store::settingsTable().begin(), store::settingsTable().end()),
                         nameOf);

TEST_P(EveryDocumentedSettingTest, StandsInTheOperatorsPageAsItIs) {
  const Setting& setting = GetParam();
  std::ostringstream row;
  row << "| " << setting.key << " | " << kindName(setting.kind) << " | ";
  if (setting.kind == SettingKind::kNumber) {
    row << setting.smallest << " to " << setting.largest;
  } else if (setting.kind == SettingKind::kText) {
    row << "at most " << setting.largest << " bytes";
  } else if (setting.kind == SettingKind::kWords) {
    row << "of: " << setting.words;
  }
  row << " | " << setting.zero << " | " << setting.standard << " |";
  std::ifstream page(TAV_SOURCE_DIR "/docs/settings.md");
  std::string line;
  std::string section;
  bool found = false;
  const std::string heading = "### Type " + std::to_string(json::toNumber(setting.configType)) +
                              ", section \"" + setting.section + "\"";
  while (std::getline(page, line)) {
    section = line.starts_with("### ") ? line : section;
    found = found || (section == heading && line.starts_with(row.str()));
  }
  EXPECT_TRUE(found) << heading << "\n" << row.str();
}

/// The documents that the operators' page describes: every setting with its default.
std::map<int, Json::Value> documentsOfThePage() {
  std::ifstream page(TAV_SOURCE_DIR "/docs/settings.md");
  std::map<int, Json::Value> documents;
  Json::Value* section = nullptr;
  const std::regex heading(R"re(### Type (\d+), section "(\w+)")re");
  const std::regex row(R"(\| (\w+) \| (?:switch|number|text|words) \|[^|]*\|[^|]*\| ([^|]*) \|.*)");
  std::smatch parts;
  for (std::string line; std::getline(page, line);) {
    if (std::regex_match(line, parts, heading)) {
      section = &documents[std::stoi(parts[1])][parts[2]];
    } else if (section != nullptr && std::regex_match(line, parts, row)) {
      (*section)[parts[1]] = testsupport::jsonOf(parts[2]);
    }
  }
  return documents;
}

TEST_F(SettingsTest, TheDocumentsOfANewStoreAreThoseOfTheOperatorsPage) {
  const std::map<int, Json::Value> documented = documentsOfThePage();
  std::map<int, Json::Value> started;
  for (const json::ConfigType type : json::kValuesOf<json::ConfigType>) {
    started[json::toNumber(type)] = settings().document(type);
  }
  EXPECT_EQ(started, documented);
}

TEST_F(SettingsTest, EveryTypeHasADocument) {
  for (const json::ConfigType type : json::kValuesOf<json::ConfigType>) {
    EXPECT_TRUE(settings().document(type).isObject()) << json::toNumber(type);
  }
}

TEST_F(SettingsTest, DocumentsHoldEverySectionAndKeyThatTheDisplayReads) {
  const std::map<json::ConfigType, std::map<std::string, std::vector<std::string>>> displayed = {
      {json::ConfigType::kScan,
       {{"Common",
         {"NetworkmapScan", "AntiInfection", "SkipSystemRepair", "ScanFileType", "FixMethod", "HandleAction",
          "ScanWithCache", "MemCheck", "FixMethod_MemRisk", "SkipSize", "Parallelism", "CloudScanType"}},
        {"Compressed", {"Flag", "Layer", "FileSize", "Format"}}}},
      {json::ConfigType::kRealTime,
       {{"Common",
         {"Flag", "AllowDelayStart", "ScanFileType", "FixMethod", "ProtectLevel", "SkipSize", "CloudScanType",
          "FileTraceSourceType"}},
        {"Compressed", {"Flag", "SkipPass", "Layer", "FileSize", "Format"}}}},
      {json::ConfigType::kQuarantine,
       {{"Common", {"SizeLimit"}},
        {"AutoClean", {"Flag", "CleanType", "CleanTime", "CleanUnit", "CleanRate"}}}},
      {json::ConfigType::kEngines,
       {{"MultiEngines",
         {"HCengine", "HCengineRP", "UMBengine", "UMBengineRP", "IXOengine", "IXOengineRP", "RDAengine",
          "RDAengineRP", "RDAOLDengine", "RDAOLDengineRP", "CloudEngine", "CloudEngineRP"}},
        {"Cloud",
         {"Type", "PublicCloudUrl", "PublicRdaCloudUrl", "PublicCloudProxyUrl", "PublicRdaCloudProxyUrl",
          "PrivateCloudUrl"}}}}};
  for (const auto& [type, sections] : displayed) {
    for (const auto& [section, keys] : sections) {
      for (const std::string& key : keys) {
        EXPECT_TRUE(settings().document(type)[section].isMember(key))
            << json::toNumber(type) << section << key;
      }
    }
  }
}

TEST_F(SettingsTest, ThreatsAreReportedOnlyUnlessSetOtherwise) {
  EXPECT_EQ(value(json::ConfigType::kScan, "Common", "FixMethod").asInt(), 2);
  EXPECT_EQ(value(json::ConfigType::kRealTime, "Common", "FixMethod").asInt(), 2);
}

TEST_F(SettingsTest, AChangeTouchesOnlyTheKeysItNames) {
  const Json::Value before = settings().document(json::ConfigType::kScan);
  accept(json::ConfigType::kScan, R"({"Common":{"Parallelism":8,"SkipSize":5}})");
  Json::Value expected = before;
  expected["Common"]["Parallelism"] = 8;
  expected["Common"]["SkipSize"] = 5;
  EXPECT_EQ(settings().document(json::ConfigType::kScan), expected);
}

TEST_F(SettingsTest, CommonNullIsAChangeOfNothingAndAnsweredTrue) {
  const Json::Value before = settings().document(json::ConfigType::kScan);
  const testsupport::FileCalls calls;
  accept(json::ConfigType::kScan, R"({"Common":null})");
  accept(json::ConfigType::kScan, "{}");
  EXPECT_THAT(calls.seen(), testing::IsEmpty()) << "there is nothing to store";
  EXPECT_EQ(settings().document(json::ConfigType::kScan), before);
}

TEST_F(SettingsTest, OneWrongValueRefusesTheWholeChange) {
  const Json::Value before = settings().document(json::ConfigType::kScan);
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Common":{"SkipSize":5,"Parallelism":100}})"),
            "Common.Parallelism must be 0 to 64, not 100");
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Common":{"Parallelism":8,"SkipSize":-5}})"),
            "Common.SkipSize must be 0 to 1048576, not -5");
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Common":{"SkipSize":3000000000}})"),
            "Common.SkipSize must be 0 to 1048576, not 3000000000");
  EXPECT_EQ(settings().document(json::ConfigType::kScan), before);
  reopen();
  EXPECT_EQ(settings().document(json::ConfigType::kScan), before);
}

TEST_F(SettingsTest, AnUnknownKeySectionOrTypeIsRefused) {
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Common":{"Colour":1}})"),
            "there is no setting Common.Colour");
  EXPECT_EQ(refusal(json::ConfigType::kRealTime, R"({"Common":{"Parallelism":1}})"),
            "there is no setting Common.Parallelism")
      << "a setting of another type";
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Compressed":{"ScanFileType":1}})"),
            "there is no setting Compressed.ScanFileType")
      << "a setting of another section";
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Watcher":{"Flag":true}})"),
            "there is no section Watcher in settings of type 0");
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"MultiEngines":null})"),
            "there is no section MultiEngines in settings of type 0");
}

TEST_F(SettingsTest, ATextThatIsNoChangeIsRefused) {
  for (const char* text : {"", "null", "[]", "3", "\"x\"", "{", R"({"Common":[]})", R"({"Common":3})"}) {
    refusal(json::ConfigType::kScan, text);
  }
  refusal(json::ConfigType::kScan, std::string(100000, '['));
  refusal(json::ConfigType::kScan, R"({"Common":{"SkipSize":)" + std::string(2 << 20, '1') + "}}");
}

TEST_F(SettingsTest, AChangeOfMoreThanAMebibyteIsRefused) {
  const std::string change = R"({"Common":{"SkipSize":5}})";
  EXPECT_EQ(refusal(json::ConfigType::kScan, change + std::string((1 << 20) + 1 - change.size(), ' ')),
            "the change is longer than 1048576 bytes");
  accept(json::ConfigType::kScan, change + std::string((1 << 20) - change.size(), ' '));
}

TEST_F(SettingsTest, ATextLongerThanItMayBeIsRefused) {
  const auto change = [](std::size_t size) {
    return R"({"Cloud":{"PublicCloudUrl":")" + std::string(size, 'x') + R"("}})";
  };
  accept(json::ConfigType::kEngines, change(2048));
  EXPECT_EQ(refusal(json::ConfigType::kEngines, change(2049)),
            "Cloud.PublicCloudUrl must be at most 2048 bytes long");
}

TEST_F(SettingsTest, AChangeThatCannotBeStoredIsNone) {
  store::Database(stateDir() + "/agent.db", store::Durability::kFull)
      .run("CREATE TRIGGER refuse BEFORE INSERT ON settings BEGIN SELECT RAISE(ABORT,'refused'); END");
  EXPECT_THAT(refusal(json::ConfigType::kScan, R"({"Common":{"SkipSize":5}})"),
              testing::StartsWith("cannot be stored: "));
  EXPECT_EQ(value(json::ConfigType::kScan, "Common", "SkipSize").asInt(), 0);
}

TEST_F(SettingsTest, ReasonsShowControlCharacters) {
  EXPECT_EQ(refusal(json::ConfigType::kScan, R"({"Common":{"a\u001b[2J\nb":1}})"),
            "there is no setting Common.a\\x1b[2J\\nb");
  EXPECT_EQ(refusal(json::ConfigType::kEngines, R"({"Cloud":{"PublicCloudUrl":"a\nb"}})"),
            "Cloud.PublicCloudUrl must be one line of plain text");
}

TEST_F(SettingsTest, ArchiveFormatsAreOfTheKnownOnesEachOnce) {
  accept(json::ConfigType::kScan, R"({"Compressed":{"Format":["zip","rar"]}})");
  EXPECT_EQ(value(json::ConfigType::kScan, "Compressed", "Format"), testsupport::jsonOf(R"(["zip","rar"])"));
  refusal(json::ConfigType::kScan, R"({"Compressed":{"Format":["zip","zip"]}})");
  refusal(json::ConfigType::kScan, R"({"Compressed":{"Format":["ZIP"]}})");
  refusal(json::ConfigType::kScan, R"({"Compressed":{"Format":["zip rar"]}})");
  refusal(json::ConfigType::kScan, R"({"Compressed":{"Format":[""]}})");
  refusal(json::ConfigType::kScan, R"({"Compressed":{"Format":[7]}})");
  refusal(json::ConfigType::kScan, R"({"Compressed":{"Format":[{}]}})");
}

TEST_F(SettingsTest, EveryLineOfTheConsolesGrammarIsAcceptedWithValuesInRange) {
  const std::vector<std::pair<json::ConfigType, std::string>> changes = {
      {json::ConfigType::kScan, R"({"Common":{"FixMethod":0}})"},
      {json::ConfigType::kScan, R"({"Common":{"FixMethod":2}})"},
      {json::ConfigType::kScan, R"({"Common":{"AntiInfection":true}})"},
      {json::ConfigType::kScan, R"({"Common":{"MemCheck":true}})"},
      {json::ConfigType::kScan, R"({"Common":{"FixMethod_MemRisk":1}})"},
      {json::ConfigType::kScan, R"({"Common":{"ScanWithCache":false}})"},
      {json::ConfigType::kScan, R"({"Common":{"ScanFileType":2}})"},
      {json::ConfigType::kScan, R"({"Common":{"SkipSize":10}})"},
      {json::ConfigType::kScan, R"({"Common":{"Parallelism":8}})"},
      {json::ConfigType::kScan, R"({"Common":{"CloudScanType":1}})"},
      {json::ConfigType::kScan, R"({"Compressed":{"Flag":true,"Layer":3,"FileSize":20}})"},
      {json::ConfigType::kRealTime, R"({"Common":{"FixMethod":0,"HandleAction":0}})"},
      {json::ConfigType::kRealTime, R"({"Common":{"FixMethod":2,"HandleAction":3}})"},
      {json::ConfigType::kRealTime, R"({"Common":{"ProtectLevel":2}})"},
      {json::ConfigType::kRealTime,
       R"({"Common":{"ScanFileType":1,"SkipSize":1,"Flag":true,"ScanWithCache":true}})"},
      {json::ConfigType::kRealTime, R"({"Common":null})"},
      {json::ConfigType::kRealTime, R"({"Common":{"CloudScanType":0,"FileTraceSourceType":1}})"},
      {json::ConfigType::kRealTime, R"({"Compressed":{"Flag":true,"Layer":2,"FileSize":3,"SkipPass":true}})"},
      {json::ConfigType::kEngines, R"({"MultiEngines":{"IXOengine":false,"IXOengineRP":false}})"},
      {json::ConfigType::kEngines,
       R"({"MultiEngines":{"CloudEngine":true,"CloudEngineRP":true},"Cloud":{"Type":0}})"},
      {json::ConfigType::kEngines, R"({"MultiEngines":{"CloudEngine":false,"CloudEngineRP":false}})"}};
  for (const auto& [type, change] : changes) {
    accept(type, change);
  }
}

TEST_F(SettingsTest, AStoredValueThatIsNotAllowedGivesWayToItsDefaultAndIsSaid) {
  accept(json::ConfigType::kScan, R"({"Common":{"SkipSize":5,"Parallelism":8}})");
  store_.reset();
  store::Database(stateDir() + "/agent.db", store::Durability::kFull)
      .run(
          R"(UPDATE settings SET document='{"Common":{"SkipSize":-7,"Parallelism":8,"ProtectLevel":1,"Old":1}}';)"
          R"(INSERT INTO settings VALUES (1,'{"Common":3}'),(2,'garbage'),(4,'[1]'),(99,'garbage'))");
  reopen();
  EXPECT_EQ(value(json::ConfigType::kScan, "Common", "SkipSize").asInt(), 0);
  EXPECT_EQ(value(json::ConfigType::kScan, "Common", "Parallelism").asInt(), 8);
  EXPECT_FALSE(settings().document(json::ConfigType::kScan)["Common"].isMember("Old"));
  EXPECT_FALSE(settings().document(json::ConfigType::kScan)["Common"].isMember("ProtectLevel"));
  EXPECT_THAT(store().notices(), testing::ElementsAre(HasSubstr("Common.SkipSize must be 0 to 1048576"),
                                                      HasSubstr("type 2: not a JSON object"),
                                                      HasSubstr("type 4: not a JSON object")));
}

TEST_F(SettingsTest, ChangesFromSeveralThreadsAllHold) {
  std::vector<std::thread> threads;
  const std::vector<std::string> keys = {"NetworkmapScan", "AntiInfection", "MemCheck"};
  for (const std::string& key : keys) {
    threads.emplace_back([&, key] {
      for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(settings().change(json::ConfigType::kScan, R"({"Common":{")" + key + R"(":)" +
                                                                   (i % 2 == 0 ? "false" : "true") + "}}"));
        EXPECT_TRUE(settings().document(json::ConfigType::kScan).isObject());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const std::string& key : keys) {
    EXPECT_TRUE(value(json::ConfigType::kScan, "Common", key.c_str()).asBool()) << key;
  }
}

}  // namespace
}  // namespace agent
