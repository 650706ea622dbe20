#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AgentCommand.h"
#include "command/config/TavCliCmdConfigExec.h"
#include "command/config/comm/send/CliConfigCommunication.h"
#include "support/ConfigLines.h"
#include "support/TestNames.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using testsupport::Change;
using testsupport::kNothingSent;

const Change kMoreLines[] = {
    {"CONFIG MODIFY SCAN", 0, R"({"Common":null})", "ScanAloneSendsNull"},
    {"CONFIG MODIFY COMPRESS_SCAN", 0, R"({"Compressed":null})", "CompressScanAloneSendsNull"},
    {"CONFIG MODIFY WATCHER", 1, R"({"Common":null})", "WatcherAloneSendsNull"},
    {"CONFIG MODIFY COMPRESS_WATCHER", 1, R"({"Compressed":null})", "CompressWatcherAloneSendsNull"},
    {"CONFIG MODIFY ENGINE", 4, R"({"MultiEngines":null})", "EngineAloneSendsNull"},
    {"CONFIG MODIFY ENGINE IXO", 4, R"({"MultiEngines":null})", "AnEngineWithoutASwitchSendsNull"},
    {"CONFIG MODIFY COMMON", kNothingSent, "", "CommonAloneSendsNothing"},
    {"CONFIG MODIFY COMMON RESMONITOR MEM 4096", kNothingSent, "", "ResourceLimitsAreNeverSent"},
    {"CONFIG MODIFY SCAN INFECTION ON SCANCACHE OFF", 0,
     R"({"Common":{"AntiInfection":true,"ScanWithCache":false}})", "TwoOptionsGoInOneChange"},
    {"CONFIG MODIFY SCAN SCANCACHE OFF INFECTION ON", 0,
     R"({"Common":{"AntiInfection":true,"ScanWithCache":false}})", "TheOrderOfOptionsDoesNotMatter"},
    {"config modify scan parallelism count 8 skipsize size 12 handling upload", 0,
     R"({"Common":{"FixMethod":2,"Parallelism":8,"SkipSize":12}})", "LetterCaseDoesNotMatter"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT 100", 0, R"({"Common":{"Parallelism":100}})",
     "ANumberOutsideTheRangeOfItsHintIsSent"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT -5", 0, R"({"Common":{"Parallelism":-5}})",
     "ANegativeNumberIsSent"},
    {"CONFIG MODIFY SCAN SKIPSIZE SIZE 12abc", 0, R"({"Common":{"SkipSize":12}})",
     "ANumberWithTrailingLettersIsSentAsItsLeadingDigits"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT many", 0, R"({"Common":{"Parallelism":0}})",
     "ANumberWithoutALeadingDigitIsSentAsZero"},
    {"CONFIG MODIFY SCAN INFECTION ON LIVESCANNIING", 0, R"({"Common":{"AntiInfection":true}})",
     "AnOptionWhoseChoicesAreSatisfiedByNameIsNotMissed"},
    {"CONFIG MODIFY SCAN INFECTION ON INFECTION OFF", 0, R"({"Common":{"AntiInfection":true}})",
     "AnOptionCountsOnceALine"},
    {"CONFIG MODIFY SCAN INFECTION ON BOGUS", 0, R"({"Common":{"AntiInfection":true}})",
     "AnUnknownWordIsPassedOver"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE ON LAYER DATA 3 SIZE DATA 100", 0,
     R"({"Compressed":{"FileSize":100,"Flag":true,"Layer":3}})", "ThreeOptionsGoInOneChange"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON RP OFF", 4,
     R"({"MultiEngines":{"IXOengine":true,"IXOengineRP":false}})", "BothSwitchesOfAnEngineGoInOneChange"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON RP OFF UMB SCAN ON", 4,
     R"({"MultiEngines":{"IXOengine":true,"IXOengineRP":false,"UMBengine":true}})",
     "BehindBothSwitchesOfAnEngineAnotherMayFollow"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON UMB SCAN OFF", 4, R"({"MultiEngines":{"IXOengine":true}})",
     "TheWalkDoesNotLeaveAnEngineAfterOneOfItsTwoSwitches"},
    {"CONFIG MODIFY ENGINE CLOUD ON HC SCAN OFF", 4,
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

}  // namespace

TEST_P(ConfigChangeLine, SendsExactlyThis) {
  const Change& change = GetParam();
  const Executed executed = executeLine(change.line);
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
  const auto calls = agent_.calls();
  if (change.configType == kNothingSent) {
    EXPECT_THAT(calls, IsEmpty());
    return;
  }
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].method, "setAVConfig");
  EXPECT_EQ(calls[0].params["config_type"], change.configType);
  EXPECT_EQ(calls[0].params["request_source"], 1);
  EXPECT_EQ(calls[0].params["config_str"], std::string(change.text) + "\n");
  EXPECT_EQ(calls[0].params.size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(EndNodes, ConfigChangeLine, testing::ValuesIn(testsupport::kConfigLines),
                         [](const auto& row) { return testsupport::testNameOf(row.param.line); });
INSTANTIATE_TEST_SUITE_P(Lines, ConfigChangeLine, testing::ValuesIn(kMoreLines),
                         [](const auto& row) { return row.param.name; });

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
