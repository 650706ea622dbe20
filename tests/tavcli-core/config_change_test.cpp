#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AgentCommand.h"
#include "command/config/TavCliCmdConfigExec.h"
#include "command/config/comm/send/CliConfigCommunication.h"
#include "json/Values.h"
#include "support/ConfigLines.h"
#include "support/TestNames.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using json::ConfigType;
using testsupport::Change;

constexpr std::nullopt_t kNothingSent = std::nullopt;

const Change kMoreLines[] = {
    {"CONFIG MODIFY SCAN", ConfigType::kScan, R"({"Common":null})", "ScanAloneSendsNull"},
    {"CONFIG MODIFY COMPRESS_SCAN", ConfigType::kScan, R"({"Compressed":null})",
     "CompressScanAloneSendsNull"},
    {"CONFIG MODIFY WATCHER", ConfigType::kRealTime, R"({"Common":null})", "WatcherAloneSendsNull"},
    {"CONFIG MODIFY COMPRESS_WATCHER", ConfigType::kRealTime, R"({"Compressed":null})",
     "CompressWatcherAloneSendsNull"},
    {"CONFIG MODIFY ENGINE", ConfigType::kEngines, R"({"MultiEngines":null})", "EngineAloneSendsNull"},
    {"CONFIG MODIFY ENGINE IXO", ConfigType::kEngines, R"({"MultiEngines":null})",
     "AnEngineWithoutASwitchSendsNull"},
    {"CONFIG MODIFY COMMON", kNothingSent, "", "CommonAloneSendsNothing"},
    {"CONFIG MODIFY COMMON RESMONITOR MEM 4096", kNothingSent, "", "ResourceLimitsAreNeverSent"},
    {"CONFIG MODIFY SCAN INFECTION ON SCANCACHE OFF", ConfigType::kScan,
     R"({"Common":{"AntiInfection":true,"ScanWithCache":false}})", "TwoOptionsGoInOneChange"},
    {"CONFIG MODIFY SCAN SCANCACHE OFF INFECTION ON", ConfigType::kScan,
     R"({"Common":{"AntiInfection":true,"ScanWithCache":false}})", "TheOrderOfOptionsDoesNotMatter"},
    {"config modify scan parallelism count 8 skipsize size 12 handling upload", ConfigType::kScan,
     R"({"Common":{"FixMethod":2,"Parallelism":8,"SkipSize":12}})", "LetterCaseDoesNotMatter"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT 100", ConfigType::kScan, R"({"Common":{"Parallelism":100}})",
     "ANumberOutsideTheRangeOfItsHintIsSent"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT -5", ConfigType::kScan, R"({"Common":{"Parallelism":-5}})",
     "ANegativeNumberIsSent"},
    {"CONFIG MODIFY SCAN SKIPSIZE SIZE 12abc", ConfigType::kScan, R"({"Common":{"SkipSize":12}})",
     "ANumberWithTrailingLettersIsSentAsItsLeadingDigits"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT many", ConfigType::kScan, R"({"Common":{"Parallelism":0}})",
     "ANumberWithoutALeadingDigitIsSentAsZero"},
    {"CONFIG MODIFY SCAN INFECTION ON LIVESCANNIING", ConfigType::kScan,
     R"({"Common":{"AntiInfection":true}})", "AnOptionWhoseChoicesAreSatisfiedByNameIsNotMissed"},
    {"CONFIG MODIFY SCAN INFECTION ON INFECTION OFF", ConfigType::kScan,
     R"({"Common":{"AntiInfection":true}})", "AnOptionCountsOnceALine"},
    {"CONFIG MODIFY SCAN INFECTION ON BOGUS", ConfigType::kScan, R"({"Common":{"AntiInfection":true}})",
     "AnUnknownWordIsPassedOver"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE ON LAYER DATA 3 SIZE DATA 100", ConfigType::kScan,
     R"({"Compressed":{"FileSize":100,"Flag":true,"Layer":3}})", "ThreeOptionsGoInOneChange"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON RP OFF", ConfigType::kEngines,
     R"({"MultiEngines":{"IXOengine":true,"IXOengineRP":false}})", "BothSwitchesOfAnEngineGoInOneChange"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON RP OFF UMB SCAN ON", ConfigType::kEngines,
     R"({"MultiEngines":{"IXOengine":true,"IXOengineRP":false,"UMBengine":true}})",
     "BehindBothSwitchesOfAnEngineAnotherMayFollow"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON UMB SCAN OFF", ConfigType::kEngines,
     R"({"MultiEngines":{"IXOengine":true}})", "TheWalkDoesNotLeaveAnEngineAfterOneOfItsTwoSwitches"},
    {"CONFIG MODIFY ENGINE CLOUD ON HC SCAN OFF", ConfigType::kEngines,
     R"({"Cloud":{"Type":0},"MultiEngines":{"CloudEngine":true,"CloudEngineRP":true,"HCengine":false}})",
     "BehindTheCloudAnEngineMayFollow"},
};

class ConfigChangeLine : public AgentCommand, public testing::WithParamInterface<Change> {
 protected:
  ConfigChangeLine() { agent_.answer("setAVConfig", true); }
};

class ConfigChange : public AgentCommand {
 protected:
  ConfigChange() { agent_.answer("setAVConfig", true); }
};

/// The command lines that lead to an end of the grammar below CONFIG MODIFY, with 8 where a number is typed.
std::vector<std::string> endsOfModify() {
  std::vector<std::string> lines;
  const auto rows = testsupport::goldenFields("tavcli-core/data/grammar.txt");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const std::string& path = rows[i][0];
    const bool isEnd = i + 1 == rows.size() || !rows[i + 1][0].starts_with(path + " ");
    if (isEnd && path.starts_with("CONFIG MODIFY ")) {
      lines.push_back(path + (rows[i][2] == "int" ? " 8" : ""));
    }
  }
  return lines;
}

}  // namespace

TEST_P(ConfigChangeLine, SendsExactlyThis) {
  const Change& change = GetParam();
  const Executed executed = executeLine(change.line);
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
  const auto calls = agent_.calls();
  if (!change.document) {
    EXPECT_THAT(calls, IsEmpty());
    return;
  }
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].method, "setAVConfig");
  EXPECT_EQ(calls[0].params["config_type"], json::toNumber(*change.document));
  EXPECT_EQ(calls[0].params["request_source"], json::toNumber(json::RequestSource::kConsole));
  EXPECT_EQ(calls[0].params["config_str"], change.text + "\n");
  EXPECT_EQ(calls[0].params.size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(EndNodes, ConfigChangeLine, testing::ValuesIn(testsupport::configLines()),
                         [](const auto& row) { return testsupport::testNameOf(row.param.line); });
INSTANTIATE_TEST_SUITE_P(Lines, ConfigChangeLine, testing::ValuesIn(kMoreLines),
                         [](const auto& row) { return row.param.name; });

TEST_F(ConfigChange, EveryEndOfTheGrammarSendsItsLineOfTheGoldenFile) {
  std::string sent;
  for (const std::string& line : endsOfModify()) {
    agent_.forgetCalls();
    executeLine(line);
    const auto calls = agent_.calls();
    sent += line + " | ";
    if (calls.empty()) {
      sent += std::string(testsupport::nameOf(kNothingSent)) + "\n";
      continue;
    }
    const Json::Value& params = calls[0].params;
    sent += std::string(testsupport::nameOf(json::fromNumber<ConfigType>(params["config_type"].asInt()))) +
            " | " + params["config_str"].asString();
  }
  testsupport::expectGolden(testsupport::kConfigChanges, sent);
}

TEST_F(ConfigChange, ConfigAloneAndModifyAloneAreRefusedAndSendNothing) {
  EXPECT_EQ(executeLine("CONFIG").printed,
            "缺少必要选项:"
            "MODIFY                        修改配置                  \n"
            "SHOW                          显示配置信息            \n");
  const Executed modify = executeLine("CONFIG MODIFY");
  EXPECT_EQ(modify.result, -1);
  // SCAN is a command's name, too, and that group was satisfied by CONFIG.
  EXPECT_EQ(modify.printed,
            "缺少必要选项:"
            "COMMON                        基础设置                  \n"
            "COMPRESS_SCAN                 压缩包扫描设置         \n"
            "COMPRESS_WATCHER              压缩包监控设置         \n"
            "ENGINE                        多引擎设置               \n"
            "WATCHER                       基础防护设置            \n");
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(ConfigChange, ATaskWithoutSectionDoesNothingAndGivesZero) {
  for (const std::int32_t section : {-1, 7, 99}) {
    TavCliCmdConfigExec task;
    task.section = section;
    EXPECT_EQ(testsupport::outputOf([&task] { EXPECT_EQ(task.execute(), 0); }), "");
  }
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(ConfigChange, AnOptionWithoutItsChoiceIsRefusedAndSendsNothing) {
  for (const char* line :
       {"CONFIG MODIFY SCAN HANDLING", "CONFIG MODIFY SCAN SKIPSIZE", "CONFIG MODIFY COMMON RESMONITOR",
        "CONFIG MODIFY WATCHER SKIPACTIVE", "CONFIG MODIFY ENGINE CLOUD", "CONFIG MODIFY ENGINE IXO SCAN"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, -1) << line;
    EXPECT_THAT(executed.printed, StartsWith("缺少必要选项:")) << line;
  }
  for (const char* line : {"CONFIG MODIFY SCAN SKIPSIZE SIZE", "CONFIG MODIFY COMMON RESMONITOR APP"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, -1) << line;
    EXPECT_EQ(executed.printed, "") << line;
  }
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(ConfigChange, AChangeGivesWhatTheAgentAnswersAndTheLineGivesZero) {
  using Set = int (*)(const std::string&);
  for (const Set set : {Set{CliConfigCommunication::action_avconfig_scan_set},
                        Set{CliConfigCommunication::action_avconfig_realprotect_set},
                        Set{CliConfigCommunication::action_avconfig_engines_set}}) {
    agent_.answer("setAVConfig", true);
    EXPECT_EQ(set("{}"), 1);
    agent_.answer("setAVConfig", false);
    EXPECT_EQ(set("{}"), 0);
    agent_.answer("setAVConfig", 1);
    EXPECT_EQ(set("{}"), 0);
    agent_.answerError("setAVConfig", -32099, "not allowed");
    EXPECT_EQ(set("{}"), 0);
  }
  EXPECT_EQ(executeLine("CONFIG MODIFY SCAN INFECTION ON").result, 0);
  EXPECT_THAT(debugLog(),
              HasSubstr("ERROR command/config/comm/send/CliConfigCommunication:action_avconfig_scan_set:"));
  EXPECT_THAT(debugLog(), HasSubstr(":action_avconfig_realprotect_set:"));
  EXPECT_THAT(debugLog(), HasSubstr(":action_avconfig_engines_set:"));
  EXPECT_THAT(debugLog(), HasSubstr("not allowed"));
}

TEST_F(ConfigChange, AnAgentThatIsSilentOrDiesPrintsNothing) {
  keepSilentAt("setAVConfig");
  EXPECT_EQ(executeLine("CONFIG MODIFY SCAN INFECTION ON").printed, "");
  agent_.dieAt("setAVConfig");
  EXPECT_EQ(executeLine("CONFIG MODIFY SCAN INFECTION ON").printed, "");
  EXPECT_EQ(executeLine("CONFIG MODIFY SCAN INFECTION ON").result, 0);
}

TEST_F(ConfigChange, ScanAndCompressScanDifferInTheWrappingNameOnly) {
  executeLine("CONFIG MODIFY SCAN SKIPSIZE SIZE 1");
  executeLine("CONFIG MODIFY COMPRESS_SCAN LAYER DATA 1");
  const auto calls = agent_.calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].params["config_type"], calls[1].params["config_type"]);
  EXPECT_THAT(calls[0].params["config_str"].asString(), StartsWith(R"({"Common":)"));
  EXPECT_THAT(calls[1].params["config_str"].asString(), StartsWith(R"({"Compressed":)"));
}

TEST_F(ConfigChange, TheCommonChangeReportsSuccessWithoutTraffic) {
  EXPECT_EQ(CliConfigCommunication::action_avconfig_common_set(R"({"PerformanceLocal":50.0})"), 1);
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST(ConfigWithoutAgentLink, EveryRequestGivesZeroAndPrintsNothing) {
  EXPECT_EQ(testsupport::outputOf([] {
              EXPECT_EQ(CliConfigCommunication::action_avconfig_scan_set("{}"), 0);
              EXPECT_EQ(CliConfigCommunication::action_avconfig_realprotect_set("{}"), 0);
              EXPECT_EQ(CliConfigCommunication::action_avconfig_engines_set("{}"), 0);
              EXPECT_EQ(CliConfigCommunication::action_scanconfig_show(), 0);
              EXPECT_EQ(CliConfigCommunication::action_isolationconfig_show(), 0);
              EXPECT_EQ(CliConfigCommunication::action_engineconfig_show(), 0);
              EXPECT_EQ(CliConfigCommunication::action_realprotectconfig_show(), 0);
            }),
            "");
}
