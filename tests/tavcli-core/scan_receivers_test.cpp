#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "bin/BatchLoop.h"
#include "bin/BusState.h"
#include "bin/InstallDir.h"
#include "bin/Pause.h"
#include "command/scan/IBusinessCImpl.h"
#include "command/scan/IScanCImpl.h"
#include "command/scan/ScanDisplay.h"
#include "command/scan/ScanReceivers.h"
#include "command/scan/ScanRunState.h"
#include "json/Values.h"
#include "jsonrpchelper/Holders.h"
#include "support/Capture.h"
#include "support/ConsoleLink.h"
#include "support/Json.h"
#include "support/ScriptedAgent.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace {

using json::BusinessType;
using json::RiskInfoType;
using json::TaskState;
using testing::HasSubstr;
using testsupport::jsonOf;
using testsupport::outputOf;

class Receivers : public testing::Test {
 protected:
  Receivers() { reset(); }
  ~Receivers() override { reset(); }

  void unattended() {
    ScanRunState& state = ScanRunState::instance();
    state.set_batch_mode();
    state.set_log_path(report_);
    state.set_scan_path("/data");
    state.set_fix_handle(json::toFixHandle(json::Handling::kReportOnly));
  }
  std::string state(TaskState state, const std::string& token = "token",
                    BusinessType type = BusinessType::kScan) {
    return outputOf([&] {
      business_.reportBusStatus({.ctx = {},
                                 .detail = "detail",
                                 .params = {},
                                 .source = json::toNumber(json::RequestSource::kConsole),
                                 .state = json::toNumber(state),
                                 .token_id = token,
                                 .type = json::toNumber(type)});
    });
  }
  std::string risk(const Json::Value& info, BusinessType business = BusinessType::kScan,
                   RiskInfoType infoType = RiskInfoType::kFile) {
    return outputOf([&] {
      scan_.reportRiskInfo({.business_type = json::toNumber(business),
                            .fix_method = json::toFixMethod(json::Handling::kReportOnly),
                            .risk_info = info,
                            .risk_info_type = json::toNumber(infoType),
                            .token_id = "token"});
    });
  }
  std::string repair(const Json::Value& info, const Json::Value& result,
                     BusinessType business = BusinessType::kScan,
                     RiskInfoType infoType = RiskInfoType::kFile) {
    return outputOf([&] {
      scan_.reportRiskFixInfo({.business_type = json::toNumber(business),
                               .fix_method = json::toFixMethod(json::Handling::kReportOnly),
                               .risk_info = info,
                               .risk_info_type = json::toNumber(infoType),
                               .risk_repair_result = result,
                               .token_id = "token"});
    });
  }
  std::string overview(const std::string& counters) {
    return outputOf(
        [&] { scan_.reportScanBusOverView({.overview = jsonOf(counters), .token_id = "token"}); });
  }
  static Json::Value document() { return ScanRunState::instance().result(); }

  testsupport::TempDir dir_;
  std::string report_ = dir_.at("report");
  IJsonRpcServerHelper helper_;
  IScanCImpl scan_{helper_};
  IBusinessCImpl business_{helper_};

 private:
  static void reset() {
    ScanRunState::instance().reset();
    g_lastBusState = tavcli::kBusStateNone;
    tavcli::takeFinalState();
  }
};

const Json::Value kRisk =
    jsonOf(R"({"item":"/data/a","risk_name":"Eicar","filesize_src":68,"risk_type_name":"t"})");
const Json::Value kRepair = jsonOf(R"({"handle_result":1,"handle_detail":"moved","handle_time":1700000000})");
const Json::Value kProcess =
    jsonOf(R"({"process_info":{"exec_file_name":"/bin/x","proc_risks":[{"item":"/bin/x"}]}})");

// Accepted and ignored notifications.

TEST_F(Receivers, AStateWithAnEmptyTokenPrintsNothing) {
  EXPECT_EQ(state(TaskState::kStarted, ""), "");
}
TEST_F(Receivers, AStateOfAnotherTypePrintsNothing) {
  EXPECT_EQ(state(TaskState::kStarted, "token", BusinessType{1}), "");
}
TEST_F(Receivers, AState7PrintsNothing) {
  EXPECT_EQ(state(TaskState{7}), "");
}
TEST_F(Receivers, AStateMinus2PrintsNothing) {
  EXPECT_EQ(state(TaskState{-2}), "");
}
TEST_F(Receivers, AttributeInfoIsAcceptedAndIgnored) {
  EXPECT_EQ(
      outputOf([&] {
        scan_.reportScanAttributeInfo(
            {.payload = kRisk, .source = json::toNumber(json::RequestSource::kConsole), .token_id = "token"});
      }),
      "");
}
TEST_F(Receivers, ARiskOfAnotherBusinessPrintsNothing) {
  EXPECT_EQ(risk(kRisk, BusinessType{1}), "");
}
TEST_F(Receivers, ARiskOfAnotherKindPrintsNothing) {
  EXPECT_EQ(risk(kRisk, BusinessType::kScan, RiskInfoType::kProcess), "");
}
TEST_F(Receivers, ARiskThatIsNullPrintsNothing) {
  EXPECT_EQ(risk(Json::Value()), "");
}
TEST_F(Receivers, ARiskWithoutMembersIsPrintedWithInitialValues) {
  EXPECT_THAT(risk(Json::objectValue), HasSubstr("风险项名称 : \n"));
}
TEST_F(Receivers, ARepairOfAnotherBusinessPrintsNothing) {
  EXPECT_EQ(repair(kRisk, kRepair, BusinessType{1}), "");
}
TEST_F(Receivers, ARepairOfAnotherKindPrintsNothing) {
  EXPECT_EQ(repair(kRisk, kRepair, BusinessType::kScan, RiskInfoType{4}), "");
}
TEST_F(Receivers, ARepairWithoutRiskPrintsNothing) {
  EXPECT_EQ(repair(Json::Value(), kRepair), "");
  EXPECT_EQ(repair(Json::Value(), kRepair, BusinessType::kScan, RiskInfoType::kProcess), "");
}
TEST_F(Receivers, ARepairWithoutResultPrintsNothing) {
  EXPECT_EQ(repair(kRisk, Json::Value()), "");
  EXPECT_EQ(repair(kProcess, Json::Value(), BusinessType::kScan, RiskInfoType::kProcess), "");
}
TEST_F(Receivers, AnOverviewThatIsNullPrintsNothing) {
  EXPECT_EQ(overview("null"), "");
}
TEST_F(Receivers, AnOddMemberDoesNotCostTheRest) {
  EXPECT_THAT(risk(jsonOf(R"({"find_time":1e300,"engine_mark":[],"finder":{},"item":5,"risk_name":"kept"})")),
              HasSubstr("风险项名称 : kept\n"));
}

// At the prompt.

TEST_F(Receivers, AtThePromptAStatePrintsItsLinesOnly) {
  EXPECT_EQ(state(TaskState::kFinished), "\n扫描结束\n");
  EXPECT_EQ(g_lastBusState, tavcli::kBusStateNone);
}
TEST_F(Receivers, AtThePromptARiskIsPrinted) {
  JsonReflect::VirusInfo info;
  info.FromValue(kRisk);
  EXPECT_EQ(risk(kRisk), scandisplay::riskLines(info));
}
TEST_F(Receivers, AtThePromptAFileRepairIsPrinted) {
  EXPECT_THAT(repair(kRisk, kRepair),
              testing::StartsWith("风险项名称 : Eicar\n处理结果 : moved\n修复时间 : "));
}
TEST_F(Receivers, AtThePromptAProcessRepairIsPrinted) {
  EXPECT_THAT(repair(kProcess, kRepair, BusinessType::kScan, RiskInfoType::kProcess),
              testing::StartsWith("风险进程名称 : /bin/x\n风险子项 : /bin/x\n处理结果 : moved\n"));
}
TEST_F(Receivers, AtThePromptAnOverviewIsPrinted) {
  EXPECT_EQ(overview(R"({"cur_item":"/a","checked_item_count":2})"), "\n当前检测项: /a\n\n已检测项: 2\n");
  EXPECT_TRUE(document().empty());
}
TEST_F(Receivers, AtThePromptAStageIsPrinted) {
  EXPECT_EQ(outputOf([&] { scan_.reportScanBusStage({.datail = "", .stage = 4, .token_id = "token"}); }),
            scandisplay::stageLines(4));
}
TEST_F(Receivers, AtThePromptProgressIsPrinted) {
  EXPECT_EQ(outputOf([&] { business_.reportBusProgress({.progress = 7, .token_id = "token"}); }),
            "\n扫描进度: 7%\n");
}

// The unattended run.

TEST_F(Receivers, UnattendedProgressIsPrintedToo) {
  unattended();
  EXPECT_EQ(outputOf([&] { business_.reportBusProgress({.progress = 7, .token_id = "token"}); }),
            "\n扫描进度: 7%\n");
}
TEST_F(Receivers, UnattendedRiskStageAndRepairsPrintNothing) {
  unattended();
  EXPECT_EQ(risk(kRisk), "");
  EXPECT_EQ(outputOf([&] { scan_.reportScanBusStage({.datail = "", .stage = 4, .token_id = "token"}); }), "");
  EXPECT_EQ(repair(kRisk, kRepair), "");
  EXPECT_EQ(repair(kProcess, kRepair, BusinessType::kScan, RiskInfoType::kProcess), "");
}
TEST_F(Receivers, UnattendedAFileRepairEntersTheReport) {
  unattended();
  repair(kRisk, kRepair);
  EXPECT_EQ(document()["virus"],
            jsonOf(R"([{"path":"/data/a","name":"Eicar","type":"t","size":68,"handle":1}])"));
}
TEST_F(Receivers, UnattendedAProcessRepairAddsNothingToTheReport) {
  unattended();
  repair(kProcess, kRepair, BusinessType::kScan, RiskInfoType::kProcess);
  EXPECT_TRUE(document()["virus"].empty());
}
TEST_F(Receivers, UnattendedAnOverviewSetsTheCountersAndPrintsNothing) {
  unattended();
  EXPECT_EQ(overview(R"({"checked_item_count":5,"checkout_risk_count":2})"), "");
  EXPECT_EQ(document()["totalnum"].asInt64(), 5);
  EXPECT_EQ(document()["virusnum"].asInt64(), 2);
  EXPECT_EQ(document()["begintime"].asString().size(), 19U);
}
TEST_F(Receivers, UnattendedTheBeginningIsSetOnce) {
  unattended();
  ScanRunState::instance().updateResult([](Json::Value& result) { result["begintime"] = "before"; });
  overview("{}");
  EXPECT_EQ(document()["begintime"].asString(), "before");
  EXPECT_NE(document()["endtime"].asString(), "before");
}

struct EffectRow {
  TaskState state;
  std::uint32_t clean;     ///< g_lastBusState when nothing was found
  std::uint32_t infected;  ///< and when something was
  bool report;             ///< whether the report is written
};

class StateEffect : public Receivers, public testing::WithParamInterface<EffectRow> {
 protected:
  void found() {
    repair(kRisk, kRepair);
    overview(R"({"checked_item_count":5,"checkout_risk_count":1})");
  }
};

TEST_P(StateEffect, WithoutDetectionsIsAsItsRowSays) {
  unattended();
  state(GetParam().state);
  EXPECT_EQ(g_lastBusState, GetParam().clean);
  EXPECT_EQ(std::filesystem::exists(report_), GetParam().report);
  EXPECT_EQ(tavcli::takeFinalState(), GetParam().report) << "only a final state wakes the loop";
}

TEST_P(StateEffect, WithDetectionsIsAsItsRowSays) {
  unattended();
  found();
  state(GetParam().state);
  EXPECT_EQ(g_lastBusState, GetParam().infected);
  EXPECT_EQ(std::filesystem::exists(report_), GetParam().report);
}

TEST_P(StateEffect, AtThePromptIsNone) {
  state(GetParam().state);
  EXPECT_EQ(g_lastBusState, tavcli::kBusStateNone);
  EXPECT_FALSE(tavcli::takeFinalState());
}

const EffectRow kEffects[] = {
    {TaskState::kNotCreated, tavcli::kBusStateClean, tavcli::kBusStateInfected, true},
    {TaskState::kCreated, tavcli::kBusStateNone, tavcli::kBusStateNone, false},
    {TaskState::kStarted, tavcli::kBusStateNone, tavcli::kBusStateNone, false},
    {TaskState::kFinished, tavcli::kBusStateClean, tavcli::kBusStateInfected, true},
    {TaskState::kPaused, tavcli::kBusStateClean, tavcli::kBusStateInfected, true},
    {TaskState::kResumed, tavcli::kBusStateNone, tavcli::kBusStateNone, false},
    {TaskState::kAborted, tavcli::kBusStateClean, tavcli::kBusStateInfected, true},
    {TaskState::kSameModeExists, tavcli::kBusStateBusy, tavcli::kBusStateBusy, false},
};
INSTANTIATE_TEST_SUITE_P(Receivers, StateEffect, testing::ValuesIn(kEffects), [](const auto& row) {
  return row.param.state == TaskState::kNotCreated
             ? std::string("Minus1")
             : "State" + std::to_string(json::toNumber(row.param.state));
});

TEST_F(Receivers, UnattendedTheEndPrintsTheStateBeforeAndBehindIt) {
  unattended();
  EXPECT_EQ(state(TaskState::kFinished), "\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010000\n");
}

TEST_F(Receivers, UnattendedASecondEndDoesNotRewriteTheReportAndPrintsTheSameValueTwice) {
  unattended();
  state(TaskState::kFinished);
  dir_.write("report", "kept");
  EXPECT_EQ(state(TaskState::kFinished), "\n扫描结束\nexitvalue1 = 0x20010000\nexitvalue2 = 0x20010000\n");
  EXPECT_EQ(testsupport::readFile(report_), "kept");
}

TEST_F(Receivers, UnattendedAnEndWhileTheAgentCountsAsBusyChangesNothingAndWakesNobody) {
  unattended();
  state(TaskState::kSameModeExists);
  EXPECT_EQ(state(TaskState::kFinished), "\n扫描结束\nexitvalue1 = 0x20010002\nexitvalue2 = 0x20010002\n");
  EXPECT_FALSE(std::filesystem::exists(report_));
  EXPECT_FALSE(tavcli::takeFinalState());
}

TEST_F(Receivers, UnattendedAnUnfinishedTaskTellsWhyOnStandardError) {
  unattended();
  testing::internal::CaptureStderr();
  state(TaskState::kAborted);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "tavcli: 扫描任务已中止: detail\n");
}

TEST_F(Receivers, UnattendedAStartWithLessThanTheSystemsSignaturesSaysSoOnStandardErrorAlone) {
  unattended();
  testing::internal::CaptureStderr();
  EXPECT_EQ(state(TaskState::kStarted), "\n扫描任务开始: \n");
  state(TaskState::kCreated);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "tavcli: detail\n");
}

TEST_F(Receivers, AtThePromptAStartWithLessThanTheSystemsSignaturesPrintsItsTextAlone) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(state(TaskState::kStarted), "\n扫描任务开始: \n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Receivers, UnattendedEntriesThatCouldNotBeScannedAreCountedOnStandardErrorOnceAtTheEnd) {
  unattended();
  overview(R"({"checked_item_count":5,"failed_item_count":7})");
  overview(R"({"checked_item_count":6,"failed_item_count":2})");
  testing::internal::CaptureStderr();
  EXPECT_EQ(state(TaskState::kFinished), "\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010000\n");
  state(TaskState::kFinished);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "tavcli: entries that could not be scanned: 2; see " +
                                                        tavcli::installDirectory() + "log/tavagentd.log\n");
}

TEST_F(Receivers, UnattendedAScanOfEveryEntryLeavesStandardErrorEmpty) {
  unattended();
  overview(R"({"checked_item_count":5,"failed_item_count":0})");
  testing::internal::CaptureStderr();
  state(TaskState::kFinished);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Receivers, AtThePromptEntriesThatCouldNotBeScannedAddNothingToTheEnd) {
  overview(R"({"failed_item_count":2})");
  testing::internal::CaptureStderr();
  EXPECT_EQ(state(TaskState::kFinished), "\n扫描结束\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// Over the bus.

Json::Value status(TaskState state) {
  Json::Value params = jsonOf(R"({"ctx":{},"detail":"","params":{},"source":1,"token_id":"t","type":0})");
  params["state"] = json::toNumber(state);
  return params;
}

/// Returns the exit code. Writes the report and standard output, in angle brackets, to standard error.
int wholeUnattendedRun() {
  const testsupport::TempDir dir;
  testsupport::ScriptedAgent agent{dir.path()};
  const testsupport::ConsoleLink link{dir.path()};
  createScanReceivers();
  ScanRunState& state = ScanRunState::instance();
  state.set_batch_mode();
  state.set_log_path(dir.at("report"));
  state.set_scan_path("/data");
  Json::Value repair = jsonOf(R"({"business_type":0,"fix_method":2,"risk_info_type":5,"token_id":"t"})");
  repair["risk_info"] = kRisk;
  repair["risk_repair_result"] = kRepair;
  const Json::Value overview =
      jsonOf(R"({"overview":{"checked_item_count":200,"checkout_risk_count":200},"token_id":"t"})");

  tavcli::SignalAwarePause pause;
  const tavcli::BatchHost host{[&](const char*) {
                                 for (int i = 0; i < 200; ++i) {
                                   agent.notify("reportRiskFixInfo", repair);
                                 }
                                 agent.notify("reportScanBusOverView", overview);
                                 agent.notify("reportBusStatus", status(TaskState::kFinished));
                               },
                               [](const std::string&) {}, [] { return 200; }};
  testing::internal::CaptureStdout();
  const tavcli::BatchEnd end = tavcli::runBatch({"/data", dir.at("report"), 100}, host, pause);
  const std::string report = testsupport::readFile(dir.at("report"));
  jsonrpchelper::stopJsonRpc();
  std::fprintf(stderr, "<%s><%s>", report.c_str(), testing::internal::GetCapturedStdout().c_str());
  return end.exitCode;
}

TEST(ReceiversOnTheBus, TakeAWholeUnattendedRunWithTheReportInPlaceBeforeTheLoopIsWoken) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the receivers are made once a process: in one of its own
  EXPECT_EXIT(_exit(wholeUnattendedRun()), testing::ExitedWithCode(1),
              testing::AllOf(HasSubstr("染毒文件数量：200\n"),
                             HasSubstr("<\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010001\n>")));
}

TEST(ScanReceivers, WithoutAServerAreNotMade) {
  jsonrpchelper::stopJsonRpc();
  createScanReceivers();
}

}  // namespace
