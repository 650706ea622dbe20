#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AgentCommand.h"
#include "command/config/TavCliCmdConfigExec.h"
#include "command/config/comm/send/CliConfigCommunication.h"
#include "support/GrammarRows.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr int kNothingSent = -1;

/// A command line and the change that reaches the agent.
struct Change {
  const char* line;
  int configType;
  const char* text;
  const char* name = nullptr;  ///< what the line proves; null: the line names itself
};

void PrintTo(const Change& change, std::ostream* out) {
  *out << change.line;
}

const Change kLines[] = {
    {"CONFIG MODIFY COMMON RESMONITOR APP 50", kNothingSent, ""},
    {"CONFIG MODIFY COMMON RESMONITOR SYS 50", kNothingSent, ""},
    {"CONFIG MODIFY COMMON RESMONITOR MEM 50", kNothingSent, ""},
    {"CONFIG MODIFY SCAN HANDLING AUTO", 0, R"({"Common":{"FixMethod":0}})"},
    {"CONFIG MODIFY SCAN HANDLING UPLOAD", 0, R"({"Common":{"FixMethod":2}})"},
    {"CONFIG MODIFY SCAN INFECTION ON", 0, R"({"Common":{"AntiInfection":true}})"},
    {"CONFIG MODIFY SCAN INFECTION OFF", 0, R"({"Common":{"AntiInfection":false}})"},
    {"CONFIG MODIFY SCAN LIVESCANNIING ON", 0, R"({"Common":{"MemCheck":true}})"},
    {"CONFIG MODIFY SCAN LIVESCANNIING OFF", 0, R"({"Common":{"MemCheck":false}})"},
    {"CONFIG MODIFY SCAN PROCHANDLING KILL", 0, R"({"Common":{"FixMethod_MemRisk":1}})"},
    {"CONFIG MODIFY SCAN PROCHANDLING IGNORE", 0, R"({"Common":{"FixMethod_MemRisk":0}})"},
    {"CONFIG MODIFY SCAN SCANCACHE ON", 0, R"({"Common":{"ScanWithCache":true}})"},
    {"CONFIG MODIFY SCAN SCANCACHE OFF", 0, R"({"Common":{"ScanWithCache":false}})"},
    {"CONFIG MODIFY SCAN FILETYPE ALL", 0, R"({"Common":{"ScanFileType":1}})"},
    {"CONFIG MODIFY SCAN FILETYPE COMMON", 0, R"({"Common":{"ScanFileType":2}})"},
    {"CONFIG MODIFY SCAN SKIPSIZE SIZE 8", 0, R"({"Common":{"SkipSize":8}})"},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT 8", 0, R"({"Common":{"Parallelism":8}})"},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE ALL", 0, R"({"Common":{"CloudScanType":0}})"},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE ACTIVE", 0, R"({"Common":{"CloudScanType":1}})"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE ON", 0, R"({"Compressed":{"Flag":true}})"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE OFF", 0, R"({"Compressed":{"Flag":false}})"},
    {"CONFIG MODIFY COMPRESS_SCAN LAYER DATA 8", 0, R"({"Compressed":{"Layer":8}})"},
    {"CONFIG MODIFY COMPRESS_SCAN SIZE DATA 8", 0, R"({"Compressed":{"FileSize":8}})"},
    {"CONFIG MODIFY WATCHER HANDLING AUTO", 1, R"({"Common":{"FixMethod":0,"HandleAction":0}})"},
    {"CONFIG MODIFY WATCHER HANDLING UPLOAD", 1, R"({"Common":{"FixMethod":2,"HandleAction":3}})"},
    {"CONFIG MODIFY WATCHER LEVEL HIGH", 1, R"({"Common":{"ProtectLevel":0}})"},
    {"CONFIG MODIFY WATCHER LEVEL MIDDLE", 1, R"({"Common":{"ProtectLevel":1}})"},
    {"CONFIG MODIFY WATCHER LEVEL LOW", 1, R"({"Common":{"ProtectLevel":2}})"},
    {"CONFIG MODIFY WATCHER FILETYPE ALL", 1, R"({"Common":{"ScanFileType":1}})"},
    {"CONFIG MODIFY WATCHER FILETYPE COMMON", 1, R"({"Common":{"ScanFileType":2}})"},
    {"CONFIG MODIFY WATCHER SKIPSIZE SIZE 8", 1, R"({"Common":{"SkipSize":8}})"},
    {"CONFIG MODIFY WATCHER ACTIVE ON", 1, R"({"Common":{"Flag":true}})"},
    {"CONFIG MODIFY WATCHER ACTIVE OFF", 1, R"({"Common":{"Flag":false}})"},
    {"CONFIG MODIFY WATCHER SCANCACHE ON", 1, R"({"Common":{"ScanWithCache":true}})"},
    {"CONFIG MODIFY WATCHER SCANCACHE OFF", 1, R"({"Common":{"ScanWithCache":false}})"},
    {"CONFIG MODIFY WATCHER SKIPACTIVE ON", 1, R"({"Common":null})"},
    {"CONFIG MODIFY WATCHER SKIPACTIVE OFF", 1, R"({"Common":null})"},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE ALL", 1, R"({"Common":{"CloudScanType":0}})"},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE ACTIVE", 1, R"({"Common":{"CloudScanType":1}})"},
    {"CONFIG MODIFY WATCHER TRACESOURCE ON", 1, R"({"Common":{"FileTraceSourceType":1}})"},
    {"CONFIG MODIFY WATCHER TRACESOURCE OFF", 1, R"({"Common":{"FileTraceSourceType":0}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE ON", 1, R"({"Compressed":{"Flag":true}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE OFF", 1, R"({"Compressed":{"Flag":false}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER LAYER DATA 8", 1, R"({"Compressed":{"Layer":8}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER SIZE DATA 8", 1, R"({"Compressed":{"FileSize":8}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP ON", 1, R"({"Compressed":{"SkipPass":true}})"},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP OFF", 1, R"({"Compressed":{"SkipPass":false}})"},
    {"CONFIG MODIFY ENGINE IXO SCAN ON", 4, R"({"MultiEngines":{"IXOengine":true}})"},
    {"CONFIG MODIFY ENGINE IXO SCAN OFF", 4, R"({"MultiEngines":{"IXOengine":false}})"},
    {"CONFIG MODIFY ENGINE IXO RP ON", 4, R"({"MultiEngines":{"IXOengineRP":true}})"},
    {"CONFIG MODIFY ENGINE IXO RP OFF", 4, R"({"MultiEngines":{"IXOengineRP":false}})"},
    {"CONFIG MODIFY ENGINE UMB SCAN ON", 4, R"({"MultiEngines":{"UMBengine":true}})"},
    {"CONFIG MODIFY ENGINE UMB SCAN OFF", 4, R"({"MultiEngines":{"UMBengine":false}})"},
    {"CONFIG MODIFY ENGINE UMB RP ON", 4, R"({"MultiEngines":{"UMBengineRP":true}})"},
    {"CONFIG MODIFY ENGINE UMB RP OFF", 4, R"({"MultiEngines":{"UMBengineRP":false}})"},
    {"CONFIG MODIFY ENGINE HC SCAN ON", 4, R"({"MultiEngines":{"HCengine":true}})"},
    {"CONFIG MODIFY ENGINE HC SCAN OFF", 4, R"({"MultiEngines":{"HCengine":false}})"},
    {"CONFIG MODIFY ENGINE HC RP ON", 4, R"({"MultiEngines":{"HCengineRP":true}})"},
    {"CONFIG MODIFY ENGINE HC RP OFF", 4, R"({"MultiEngines":{"HCengineRP":false}})"},
    {"CONFIG MODIFY ENGINE RDA SCAN ON", 4, R"({"MultiEngines":{"RDAengine":true}})"},
    {"CONFIG MODIFY ENGINE RDA SCAN OFF", 4, R"({"MultiEngines":{"RDAengine":false}})"},
    {"CONFIG MODIFY ENGINE RDA RP ON", 4, R"({"MultiEngines":{"RDAengineRP":true}})"},
    {"CONFIG MODIFY ENGINE RDA RP OFF", 4, R"({"MultiEngines":{"RDAengineRP":false}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN ON", 4, R"({"MultiEngines":{"RDAOLDengine":true}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN OFF", 4, R"({"MultiEngines":{"RDAOLDengine":false}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD RP ON", 4, R"({"MultiEngines":{"RDAOLDengineRP":true}})"},
    {"CONFIG MODIFY ENGINE RDA_OLD RP OFF", 4, R"({"MultiEngines":{"RDAOLDengineRP":false}})"},
    {"CONFIG MODIFY ENGINE CLOUD ON", 4,
     R"({"Cloud":{"Type":0},"MultiEngines":{"CloudEngine":true,"CloudEngineRP":true}})"},
    {"CONFIG MODIFY ENGINE CLOUD OFF", 4, R"({"MultiEngines":{"CloudEngine":false,"CloudEngineRP":false}})"},
};

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

INSTANTIATE_TEST_SUITE_P(EndNodes, ConfigChangeLine, testing::ValuesIn(kLines),
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
