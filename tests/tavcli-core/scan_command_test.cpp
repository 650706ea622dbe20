#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "AgentCommand.h"
#include "bin/BusState.h"
#include "command/scan/IBusinessCImpl.h"
#include "command/scan/IScanCImpl.h"
#include "command/scan/ScanRunState.h"
#include "command/scan/TavCliCmdScan.h"
#include "command/scan/TavCliCmdScanExec.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "jsonrpchelper/Holders.h"
#include "support/BuiltGrammar.h"
#include "support/Wait.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testsupport::outputOf;

namespace {

class ScanTask : public testsupport::GrammarTask<TavCliCmdScan, TavCliCmdScanExec> {
 protected:
  ScanTask() { ScanRunState::instance().reset(); }
  ~ScanTask() override { ScanRunState::instance().reset(); }
};

class ScanCommand : public AgentCommand {
 protected:
  ScanCommand() {
    ScanRunState::instance().reset();
    agent_.answer("startScanTask", jsonOf(R"({"status":true})"));
    agent_.answer("ctlBus", true);
  }
  ~ScanCommand() override { ScanRunState::instance().reset(); }

  /// Executes the task. Returns its one call.
  testsupport::ScriptedAgent::Call callOf(TavCliCmdScanExec& task) {
    agent_.forgetCalls();
    EXPECT_EQ(task.execute(), 0);
    const auto calls = agent_.calls();
    EXPECT_EQ(calls.size(), 1u);
    return calls.empty() ? testsupport::ScriptedAgent::Call{} : calls[0];
  }
  Json::Value startOf(TavCliCmdScanExec& task) {
    const auto call = callOf(task);
    EXPECT_EQ(call.method, "startScanTask");
    return call.params["params"];
  }
  /// The request of an unattended start for these settings of the agent.
  Json::Value batchStart(const std::string& settings) {
    agent_.answer("getAVConfig", settings);
    ScanRunState::instance().set_batch_mode();
    TavCliCmdScanExec task;
    task.action = TavCliCmdScanExec::kStart;
    task.handle = TavCliCmdScanExec::kReportOnly;
    task.mode = TavCliCmdScanExec::kFull;
    task.paths = {"/data"};
    agent_.forgetCalls();
    printed_ = outputOf([&task] { EXPECT_EQ(task.execute(), 0); });
    const auto starts = agent_.calls("startScanTask");
    EXPECT_EQ(starts.size(), 1u);
    return starts.empty() ? Json::Value() : starts[0].params["params"];
  }
  std::string printed_;
};

/// Unattended starts one after the other, with the agent's notifications between them.
class BatchStarts : public ScanCommand {
 protected:
  BatchStarts() { ScanRunState::instance().set_log_path(report_); }
  ~BatchStarts() override { g_lastBusState = tavcli::kBusStateNone; }

  void start() { batchStart("{}"); }
  void detect(const char* path) {
    scan_.reportRiskFixInfo({.business_type = json::toNumber(json::BusinessType::kScan),
                             .fix_method = json::toFixMethod(json::Handling::kReportOnly),
                             .risk_info = jsonOf(R"({"item":")" + std::string(path) + R"("})"),
                             .risk_info_type = json::toNumber(json::RiskInfoType::kFile),
                             .risk_repair_result = jsonOf(R"({"handle_result":3})"),
                             .token_id = "t"});
    scan_.reportScanBusOverView(
        {.overview = jsonOf(R"({"checked_item_count":3,"failed_item_count":2})"), .token_id = "t"});
  }
  void state(json::TaskState state) {
    outputOf([&] {
      testing::internal::CaptureStderr();
      business_.reportBusStatus({.ctx = {},
                                 .detail = "",
                                 .params = {},
                                 .source = json::toNumber(json::RequestSource::kConsole),
                                 .state = json::toNumber(state),
                                 .token_id = "t",
                                 .type = json::toNumber(json::BusinessType::kScan)});
      testing::internal::GetCapturedStderr();
    });
  }
  static std::vector<std::string> paths() {
    std::vector<std::string> found;
    const Json::Value document = ScanRunState::instance().result();
    for (const Json::Value& detection : document["virus"]) {
      found.push_back(detection["path"].asString());
    }
    return found;
  }

  std::string report_ = tree_.at("report");
  IScanCImpl scan_{*jsonrpchelper::serverHelper()};
  IBusinessCImpl business_{*jsonrpchelper::serverHelper()};
};

}  // namespace

TEST_F(ScanTask, StartsAsAResumeOfNothing) {
  const TavCliCmdScanExec& task = built("SCAN");
  EXPECT_EQ(task.action, TavCliCmdScanExec::kResume);
  EXPECT_EQ(task.handle, TavCliCmdScanExec::kAutomatic);
  EXPECT_EQ(task.special, TavCliCmdScanExec::kStrongOff);
  EXPECT_EQ(task.mode, TavCliCmdScanExec::kFast);
  EXPECT_THAT(task.paths, IsEmpty());
  EXPECT_EQ(task.token_id, "");
  EXPECT_EQ(task.log_path, "");
}

TEST_F(ScanTask, StopParseAndRecoverdAloneLeaveItAResume) {
  for (const char* line : {"SCAN STOP", "SCAN PARSE", "SCAN RECOVERD"}) {
    EXPECT_EQ(built(line).action, TavCliCmdScanExec::kResume) << line;
    EXPECT_EQ(built(line).token_id, "") << line;
  }
}

TEST_F(ScanTask, TokenidSetsActionAndToken) {
  for (const auto& [word, action] :
       {std::pair{"STOP", TavCliCmdScanExec::kStop}, std::pair{"PARSE", TavCliCmdScanExec::kPause},
        std::pair{"RECOVERD", TavCliCmdScanExec::kResume}}) {
    const TavCliCmdScanExec& task = built(std::string("SCAN ") + word + " TOKENID Abc-1");
    EXPECT_EQ(task.action, action) << word;
    EXPECT_EQ(task.token_id, "Abc-1") << word;
  }
}

TEST_F(ScanTask, StartAndShowSetTheAction) {
  EXPECT_EQ(built("SCAN START").action, TavCliCmdScanExec::kStart);
  EXPECT_EQ(built("SCAN SHOW").action, TavCliCmdScanExec::kShow);
}

TEST_F(ScanTask, StartAloneIsAFastScanWithAutomaticHandlingAndStrongScanOff) {
  const TavCliCmdScanExec& task = built("SCAN START");
  EXPECT_EQ(task.mode, 0);
  EXPECT_EQ(task.handle, 0);
  EXPECT_EQ(task.special, 1);
}

TEST_F(ScanTask, HandleSetsTheHandling) {
  EXPECT_EQ(built("SCAN START HANDLE AUTO").handle, 0);
  EXPECT_EQ(built("SCAN START HANDLE UPLOAD").handle, 1);
}

TEST_F(ScanTask, SpecialconfigOnIsZeroAndOffIsOne) {
  EXPECT_EQ(built("SCAN START SPECIALCONFIG ON").special, 0);
  EXPECT_EQ(built("SCAN START SPECIALCONFIG OFF").special, 1);
}

TEST_F(ScanTask, ModeSetsTheMode) {
  EXPECT_EQ(built("SCAN START MODE FAST").mode, 0);
  EXPECT_EQ(built("SCAN START MODE FULL").mode, 1);
  EXPECT_EQ(built("SCAN START MODE CUSTOM").mode, 2);
}

TEST_F(ScanTask, PathIsAppendedAndBecomesTheRunsScanPath) {
  EXPECT_THAT(built("SCAN START MODE CUSTOM PATH /home").paths, ElementsAre("/home"));
  EXPECT_EQ(ScanRunState::instance().scan_path(), "/home");
}

TEST_F(ScanTask, PathMatchedTwiceAppendsBothAndTheRunKeepsTheLast) {
  built("SCAN START MODE CUSTOM PATH /one");
  const CliNodeInfo* const node = row("SCAN START MODE CUSTOM PATH");
  EXPECT_EQ(node->handler(*node, "/two"), 1);
  EXPECT_THAT(pending()->paths, ElementsAre("/one", "/two"));
  EXPECT_EQ(ScanRunState::instance().scan_path(), "/two");
}

TEST_F(ScanTask, OnePathALineIsTaken) {
  EXPECT_THAT(built("SCAN START MODE CUSTOM PATH /one PATH /two").paths, ElementsAre("/one"));
}

TEST_F(ScanTask, HandlersGiveZeroAndDoNothingWithoutATask) {
  expectHandlersGiveZeroWithoutATask("tav1/x");
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 0);
  EXPECT_EQ(ScanRunState::instance().log_path(), "");
  EXPECT_EQ(ScanRunState::instance().scan_path(), "");
}

TEST_F(ScanTask, HandlersGiveOneWithATask) {
  forEachHandler([this](const CliNodeInfo& node) {
    built("SCAN");
    EXPECT_EQ(node.handler(node, "/nowhere"), 1) << node.name;
  });
}

TEST_F(ScanTask, ALogpathThatDoesNotExistIsKeptInBoth) {
  EXPECT_EQ(built("SCAN START LOGPATH /nowhere/report").log_path, "/nowhere/report");
  EXPECT_EQ(ScanRunState::instance().log_path(), "/nowhere/report");
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 0);
}

TEST_F(ScanTask, ALogpathThatIsAFileIsKeptInBoth) {
  const testsupport::TempDir folder;
  const std::string file = folder.write("report", "");
  EXPECT_EQ(built("SCAN START LOGPATH " + file).log_path, file);
  EXPECT_EQ(ScanRunState::instance().log_path(), file);
}

TEST_F(ScanTask, ALogpathThatIsADirectoryIsKeptInTheTaskOnly) {
  const testsupport::TempDir folder;
  EXPECT_EQ(built("SCAN START LOGPATH " + folder.path()).log_path, folder.path());
  EXPECT_EQ(ScanRunState::instance().log_path(), "");
}

TEST_F(ScanTask, ALogpathThatIsNoRegularFileIsKeptInTheTaskOnly) {
  EXPECT_EQ(built("SCAN START LOGPATH /dev/null").log_path, "/dev/null");
  EXPECT_EQ(ScanRunState::instance().log_path(), "");
}

TEST_F(ScanTask, ALogpathWithTheMarkSetsBatchModeAndLosesTheMark) {
  EXPECT_EQ(built("SCAN START LOGPATH tav1/nowhere/report").log_path, "/nowhere/report");
  EXPECT_EQ(ScanRunState::instance().log_path(), "/nowhere/report");
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 1);
}

TEST_F(ScanTask, ALogpathOfTheMarkAloneIsEmptySetsBatchModeAndIsStored) {
  ScanRunState::instance().set_log_path("/before");
  EXPECT_EQ(built("SCAN START LOGPATH tav1").log_path, "");
  EXPECT_EQ(ScanRunState::instance().log_path(), "");
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 1);
}

TEST_F(ScanTask, AMarkedLogpathThatIsADirectorySetsBatchModeAllTheSame) {
  const testsupport::TempDir folder;
  EXPECT_EQ(built("SCAN START LOGPATH tav1" + folder.path()).log_path, folder.path());
  EXPECT_EQ(ScanRunState::instance().log_path(), "");
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 1);
}

TEST_F(ScanTask, TheMarkAnywhereButAtTheStartIsPartOfThePath) {
  EXPECT_EQ(built("SCAN START LOGPATH /nowhere/tav1").log_path, "/nowhere/tav1");
  EXPECT_EQ(built("SCAN START LOGPATH xtav1/report").log_path, "xtav1/report");
  EXPECT_EQ(built("SCAN START LOGPATH TAV1/report").log_path, "TAV1/report");
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 0);
}

TEST_F(ScanTask, AnEmptyLogpathDoesNothingAndIsASuccess) {
  built("SCAN START LOGPATH /nowhere/report");
  const CliNodeInfo* const node = row("SCAN START LOGPATH");
  EXPECT_EQ(node->handler(*node, ""), 1);
  EXPECT_EQ(pending()->log_path, "/nowhere/report");
}

TEST_F(ScanCommand, ABareTaskRunsAResumeWithAnEmptyToken) {
  TavCliCmdScanExec task;
  const auto call = callOf(task);
  EXPECT_EQ(call.method, "ctlBus");
  EXPECT_EQ(
      call.params,
      jsonOf(R"({"action":3,"detail":"终端恢复扫描","mark":0,"payload":null,"source":1,"token_id":""})"));
}

TEST_F(ScanCommand, AStartAloneSendsAFastScanWithAutomaticHandling) {
  TavCliCmdScanExec task;
  task.action = TavCliCmdScanExec::kStart;
  Json::Value expected = jsonOf(
      R"({"follow_link":false,"max_scan_sec":0,"custom_stop":true,"items":[],"force_scan":false,"handle_action":-1,
          "fix_method":0,"handle_filter_types":[],"parallelism":0,"proc_fix_method":0,"expire_time":0,"scan_type":0})");
  expected["uid"] = static_cast<int>(getuid());
  EXPECT_EQ(startOf(task), expected);
}

TEST_F(ScanCommand, ACustomStartWithoutPathSendsAnEmptyList) {
  TavCliCmdScanExec task;
  task.action = TavCliCmdScanExec::kStart;
  task.mode = TavCliCmdScanExec::kCustom;
  const Json::Value sent = startOf(task);
  EXPECT_EQ(sent["scan_type"], json::toNumber(json::ScanMode::kCustom));
  EXPECT_EQ(sent["items"], Json::Value(Json::arrayValue));
}

TEST_F(ScanCommand, AFullStartWithStrongScanSendsTypeFour) {
  TavCliCmdScanExec task;
  task.action = TavCliCmdScanExec::kStart;
  task.mode = TavCliCmdScanExec::kFull;
  task.special = TavCliCmdScanExec::kStrongOn;
  EXPECT_EQ(startOf(task)["scan_type"], json::toScanType(json::ScanMode::kFull, true));
}

TEST_F(ScanCommand, AnUnknownActionPrintsAnErrorAndGivesMinusOne) {
  for (const std::int32_t action : {5, -1, 99}) {
    TavCliCmdScanExec task;
    task.action = action;
    EXPECT_EQ(outputOf([&task] { EXPECT_EQ(task.execute(), -1); }), "debug:scan error\n");
  }
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(ScanCommand, TheResultIsZeroWhateverTheAgentAnswers) {
  for (const char* status : {"false", "null", "7"}) {
    agent_.answer("startScanTask", jsonOf(std::string(R"({"status":)") + status + "}"));
    EXPECT_EQ(executeLine("SCAN START HANDLE AUTO MODE FAST").result, 0);
  }
  agent_.answerError("startScanTask", -3, "no");
  EXPECT_EQ(executeLine("SCAN START HANDLE AUTO MODE FAST").result, 0);
  agent_.dieAt("startScanTask");
  EXPECT_EQ(executeLine("SCAN START HANDLE AUTO MODE FAST").result, 0);
}

TEST_F(ScanCommand, LinesThatLackARequiredWordAreRefusedAndSendNothing) {
  for (const char* line :
       {"SCAN", "SCAN START", "SCAN STOP", "SCAN PARSE", "SCAN RECOVERD", "SCAN START HANDLE AUTO",
        "SCAN START MODE FULL SPECIALCONFIG ON", "SCAN START HANDLE AUTO MODE CUSTOM", "SCAN START MODE FAST",
        "SCAN START HANDLE AUTO MODE FAST SPECIALCONFIG"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, -1) << line;
    EXPECT_THAT(executed.printed, StartsWith("缺少必要选项:")) << line;
  }
  for (const char* line : {"SCAN STOP TOKENID", "SCAN START HANDLE AUTO MODE CUSTOM PATH"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, -1) << line;
    EXPECT_EQ(executed.printed, "") << line;
  }
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(ScanCommand, ARefusedStartDoesNotRunOneLineLater) {
  executeLine("SCAN START HANDLE AUTO");
  for (const char* line : {"", "   ", "exit", "HELP APP", "SCAN SHOW NOW"}) {
    agent_.answer("getBusList", Json::Value(Json::arrayValue));
    EXPECT_EQ(executeLine(line).result, 0) << line;
  }
  EXPECT_THAT(agent_.calls("startScanTask"), IsEmpty());
}

TEST_F(ScanCommand, ScanAlonePrintsEveryKeywordUnderItInNameOrder) {
  EXPECT_EQ(executeLine("scan").printed,
            "缺少必要选项:"
            "PARSE                         暂停杀毒                  \n"
            "RECOVERD                      恢复杀毒                  \n"
            "SHOW                          查看正在进行的查杀任务\n"
            "START                         开始杀毒                  \n"
            "STOP                          停止杀毒                  \n");
}

TEST_F(ScanCommand, AWholeLineReachesTheAgentInAnyLetterCase) {
  executeLine("scan start handle upload specialconfig on mode custom path /Data/木 logpath /nowhere/x");
  const auto calls = agent_.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].params["params"]["fix_method"], json::toFixMethod(json::Handling::kReportOnly));
  EXPECT_EQ(calls[0].params["params"]["scan_type"], json::toScanType(json::ScanMode::kCustom, true));
  EXPECT_EQ(calls[0].params["params"]["items"], jsonOf(R"(["/Data/木"])"));
  EXPECT_EQ(calls[0].params["ctx"], Json::Value());
  EXPECT_EQ(calls[0].params["desc"], "");
  EXPECT_EQ(calls[0].params["source"], json::toNumber(json::RequestSource::kConsole));
  EXPECT_EQ(calls[0].params["token_id"], "");
}

TEST_F(ScanCommand, APathThatIsNotUtf8ReachesTheAgentByteForByte) {
  executeLine("SCAN START HANDLE AUTO MODE CUSTOM PATH /data/\xff\xfe");
  ASSERT_EQ(agent_.calls().size(), 1u);
  EXPECT_EQ(json::decodePath(agent_.calls()[0].params["params"]["items"][0].asString()), "/data/\xff\xfe");
}

TEST_F(ScanCommand, StopParseAndRecoverdSendTheirControls) {
  executeLine("SCAN STOP TOKENID t1");
  executeLine("SCAN PARSE TOKENID t2");
  executeLine("SCAN RECOVERD TOKENID t3");
  const auto calls = agent_.calls("ctlBus");
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(
      calls[0].params,
      jsonOf(R"({"action":1,"detail":"终端停止扫描","mark":8,"payload":null,"source":1,"token_id":"t1"})"));
  EXPECT_EQ(
      calls[1].params,
      jsonOf(R"({"action":2,"detail":"终端暂停扫描","mark":2,"payload":null,"source":1,"token_id":"t2"})"));
  EXPECT_EQ(
      calls[2].params,
      jsonOf(R"({"action":3,"detail":"终端恢复扫描","mark":0,"payload":null,"source":1,"token_id":"t3"})"));
}

TEST_F(ScanCommand, ShowListsTheRunningScans) {
  agent_.answer("getBusList", jsonOf(R"([{"token_id":"a","type":0},{"token_id":"b","type":1}])"));
  EXPECT_EQ(executeLine("SCAN SHOW").printed, "Task: a is running\n");
}

TEST_F(ScanCommand, ABatchStartTakesItsHandlingFromTheAgentAndScansCustomPaths) {
  struct Case {
    int fixMethodOfAgent;
    json::Handling handling;
  };
  for (const Case& row : {Case{1, json::Handling::kReportOnly}, Case{2, json::Handling::kReportOnly},
                          Case{3, json::Handling::kAutomatic}, Case{0, json::Handling::kAutomatic}}) {
    const Json::Value sent =
        batchStart(R"({"Common":{"FixMethod":)" + std::to_string(row.fixMethodOfAgent) + "}}");
    EXPECT_EQ(sent["fix_method"], json::toFixMethod(row.handling)) << row.fixMethodOfAgent;
    EXPECT_EQ(sent["scan_type"], json::toNumber(json::ScanMode::kCustom)) << row.fixMethodOfAgent;
    EXPECT_EQ(sent["items"], jsonOf(R"(["/data"])"));
    EXPECT_EQ(ScanRunState::instance().fix_handle(), json::toFixHandle(row.handling));
    EXPECT_EQ(printed_, "FixMethod is " + std::to_string(row.fixMethodOfAgent) + ", handle is " +
                            std::to_string(json::toFixHandle(row.handling)) + "\n");
  }
}

TEST_F(ScanCommand, ABatchStartWithoutUsableSettingsOnlyReports) {
  for (const char* settings : {"", "no json", "{}", R"({"Common":7})"}) {
    const Json::Value sent = batchStart(settings);
    EXPECT_EQ(sent["fix_method"], json::toFixMethod(json::Handling::kReportOnly)) << settings;
    EXPECT_EQ(sent["scan_type"], json::toNumber(json::ScanMode::kCustom)) << settings;
    EXPECT_EQ(ScanRunState::instance().fix_handle(), json::toFixHandle(json::Handling::kReportOnly))
        << settings;
    EXPECT_EQ(printed_, "") << settings;
  }
}

TEST_F(ScanCommand, TheBatchLineScansItsPathAndSetsTheRunState) {
  agent_.answer("getAVConfig", R"({"Common":{"FixMethod":2}})");
  executeLine(
      "SCAN START HANDLE UPLOAD SPECIALCONFIG OFF MODE CUSTOM PATH /data LOGPATH tav1/nowhere/report");
  ASSERT_EQ(agent_.calls("startScanTask").size(), 1u);
  EXPECT_EQ(agent_.calls("startScanTask")[0].params["params"]["items"], jsonOf(R"(["/data"])"));
  EXPECT_EQ(ScanRunState::instance().batch_mode(), 1);
  EXPECT_EQ(ScanRunState::instance().scan_path(), "/data");
  EXPECT_EQ(ScanRunState::instance().log_path(), "/nowhere/report");
}

TEST_F(ScanCommand, AfterOneBatchLogpathEveryLaterStartIsABatchStart) {
  agent_.answer("getAVConfig", R"({"Common":{"FixMethod":3}})");
  executeLine("SCAN START HANDLE UPLOAD MODE FAST LOGPATH tav1/nowhere/report");
  agent_.forgetCalls();
  executeLine("SCAN START HANDLE UPLOAD MODE FULL");
  ASSERT_EQ(agent_.calls("startScanTask").size(), 1u);
  EXPECT_EQ(agent_.calls("startScanTask")[0].params["params"]["scan_type"],
            json::toNumber(json::ScanMode::kCustom));
  EXPECT_EQ(agent_.calls("startScanTask")[0].params["params"]["fix_method"],
            json::toFixMethod(json::Handling::kAutomatic));
}

TEST_F(BatchStarts, AnAcceptedOneBeginsAReportOfItsOwn) {
  start();
  detect("/data/first");
  state(json::TaskState::kAborted);
  EXPECT_THAT(testsupport::readFile(report_), HasSubstr("/data/first\n"));
  start();
  EXPECT_EQ(ScanRunState::instance().result(), Json::Value(Json::objectValue));
  EXPECT_EQ(ScanRunState::instance().failed_items(), 0);
  detect("/data/second");
  state(json::TaskState::kAborted);
  EXPECT_THAT(testsupport::readFile(report_), HasSubstr("/data/second\n"));
  EXPECT_THAT(testsupport::readFile(report_), Not(HasSubstr("/data/first\n")));
}

TEST_F(BatchStarts, OneThatTheAgentDoesNotAcceptLeavesTheRunningScansResult) {
  start();
  detect("/data/first");
  agent_.answer("startScanTask", jsonOf(R"({"status":false})"));
  start();
  EXPECT_THAT(paths(), ElementsAre("/data/first"));
  agent_.answerError("startScanTask", -3, "no");
  start();
  EXPECT_THAT(paths(), ElementsAre("/data/first"));
}

TEST_F(BatchStarts, WhatTheAgentTellsBeforeItAnswersIsInTheReport) {
  scan_.StartListening();
  start();
  detect("/data/first");
  Json::Value notice = jsonOf(
      R"({"business_type":0,"fix_method":2,"risk_info_type":5,"token_id":"t","risk_info":{"item":"/data/second"},
          "risk_repair_result":{"handle_result":3}})");
  agent_.answerWith("startScanTask", [&](const Json::Value&) {
    EXPECT_EQ(agent_.notify("reportRiskFixInfo", notice), lunet::kOk);
    return jsonOf(R"({"status":true})");
  });
  start();
  EXPECT_TRUE(testsupport::waitFor([] { return !paths().empty(); }));
  EXPECT_THAT(paths(), ElementsAre("/data/second"));
  scan_.StopListening();
}

TEST_F(BatchStarts, OneThatIsIssuedAgainAfterABusyAgentGoesOnWithItsResult) {
  start();
  detect("/data/first");
  state(json::TaskState::kSameModeExists);
  start();
  EXPECT_THAT(paths(), ElementsAre("/data/first"));
  start();
  EXPECT_THAT(paths(), IsEmpty()) << "the agent was not busy in between";
}

TEST_F(BatchStarts, OneThatIsAcceptedAfterARefusalAsBusyDoesNotListTheScanBeforeIt) {
  start();
  detect("/data/first");
  agent_.answer("startScanTask", jsonOf(R"({"status":false})"));
  start();
  state(json::TaskState::kSameModeExists);
  detect("/data/late");
  EXPECT_THAT(paths(), ElementsAre("/data/first", "/data/late"));
  agent_.answer("startScanTask", jsonOf(R"({"status":true})"));
  start();
  EXPECT_THAT(paths(), IsEmpty());
}

TEST(ScanRunStateRecord, StartsEmptyAndKeepsWhatItIsTold) {
  ScanRunState state;
  EXPECT_EQ(state.log_path(), "");
  EXPECT_EQ(state.scan_path(), "");
  EXPECT_EQ(state.batch_mode(), 0);
  EXPECT_EQ(state.fix_handle(), 0);
  EXPECT_EQ(state.result(), Json::Value(Json::objectValue));
  state.set_log_path("l");
  state.set_scan_path("s");
  state.set_batch_mode();
  state.set_fix_handle(json::toFixHandle(json::Handling::kAutomatic));
  state.updateResult([](Json::Value& result) { result["virusnum"] = 3; });
  EXPECT_EQ(state.log_path(), "l");
  EXPECT_EQ(state.scan_path(), "s");
  EXPECT_EQ(state.batch_mode(), 1);
  EXPECT_EQ(state.fix_handle(), json::toFixHandle(json::Handling::kAutomatic));
  EXPECT_EQ(state.result()["virusnum"], 3);
}

TEST(ScanRunStateRecord, WhatIsToldBeforeTheAnswerToAStartBelongsToThatScan) {
  ScanRunState state;
  state.updateResult([](Json::Value& result) { result["old"] = 1; });
  std::atomic<bool> begun = false;
  std::atomic<bool> done = false;
  std::thread bus;
  state.start([&] {
    bus = std::thread([&] {
      begun = true;
      state.updateResult([](Json::Value& result) { result["new"] = 1; });
      done = true;
    });
    EXPECT_TRUE(testsupport::waitFor([&] { return begun.load(); }));
    EXPECT_FALSE(testsupport::waitFor([&] { return done.load(); }, std::chrono::milliseconds(50)));
    return true;
  });
  bus.join();
  EXPECT_EQ(state.result(), jsonOf(R"({"new":1})"));
}

TEST(ScanRunStateRecord, IsOneForTheProcess) {
  EXPECT_EQ(&ScanRunState::instance(), &ScanRunState::instance());
}
