#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "AgentCommand.h"
#include "command/isolation/TavCliCmdIsolation.h"
#include "command/isolation/TavCliCmdIsolationExec.h"
#include "command/isolation/comm/send/CliIsolationCommunication.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "support/BuiltGrammar.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testsupport::outputOf;
using testsupport::ScriptedAgent;

namespace {

class IsolationTask : public testsupport::GrammarTask<TavCliCmdIsolation, TavCliCmdIsolationExec> {};

class IsolationCommand : public AgentCommand {
 protected:
  IsolationCommand() {
    setenv("TZ", "Asia/Shanghai", 1);
    tzset();
  }
  std::string reportOf(const std::string& items) {
    agent_.answer("getIsolationInfo", jsonOf(items));
    const Executed executed = executeLine("ISOLATION REPORT");
    EXPECT_EQ(executed.result, 0);
    return executed.printed;
  }
};

/// A member of an item, and the line that shows the member.
struct Shown {
  const char* name;
  const char* item;
  const char* line;
};

void PrintTo(const Shown& shown, std::ostream* out) {
  *out << shown.item;
}

const Shown kShown[] = {
    {"UidAbsent", R"({})", "UID标识 : \n"},
    {"UidMistyped", R"({"uuid":7})", "UID标识 : \n"},
    {"UidAsText", R"({"uuid":"88f835e6-cacd-49d7-b235-9da3c39b888a"})",
     "UID标识 : 88f835e6-cacd-49d7-b235-9da3c39b888a\n"},
    {"UidWithControlCharacters", R"({"uuid":"a\u001b[2J\n"})", "UID标识 : a\\x1b[2J\\n\n"},
    {"TimeAbsent", R"({})", "隔离时间 : 1970-01-01 08:00:00\n"},
    {"TimeAsNumber", R"({"isolate_time":1700000000})", "隔离时间 : 2023-11-15 06:13:20\n"},
    {"TimeAsNumericText", R"({"isolate_time":"1700000000"})", "隔离时间 : 2023-11-15 06:13:20\n"},
    {"TimeMistyped", R"({"isolate_time":[1]})", "隔离时间 : 1970-01-01 08:00:00\n"},
    {"TimeBeyondThirtyTwoBitsIsShownFromItsLow32Bits", R"({"isolate_time":4296667296})",
     "隔离时间 : 1970-01-21 00:13:20\n"},
    {"TimeAsUnsignedThirtyTwoBits", R"({"isolate_time":4294967295})", "隔离时间 : 2106-02-07 14:28:15\n"},
    {"PathPlain", R"({"filepath_src":"/data/木马.exe"})", "文件路径 : /data/木马.exe\n"},
    {"PathWithALineEnd", R"({"filepath_src":"/a\n隔离区当前存在 0 项"})",
     "文件路径 : /a\\n隔离区当前存在 0 项\n"},
    {"PathWithBytesThatAreNotUtf8", "{\"filepath_src\":\"/a/\xef\x9f\xbf\"}", "文件路径 : /a/\\xff\n"},
    {"SizeAbsent", R"({})", "文件大小 : 0字节\n"},
    {"SizeAsNumber", R"({"size":68})", "文件大小 : 68字节\n"},
    {"SizeAsNumericText", R"({"size":"68"})", "文件大小 : 68字节\n"},
    {"SizeOverFourGigabytes", R"({"size":5000000000})", "文件大小 : 5000000000字节\n"},
    {"SizeOversized", R"({"size":1e30})", "文件大小 : 0字节\n"},
    {"NameShown", R"({"virus_name":"Eicar-Test"})", "风险项名称 : Eicar-Test\n"},
    {"NameMistyped", R"({"virus_name":{}})", "风险项名称 : \n"},
    {"EngineTenIsOther", R"({"engine_type":10})", "检出引擎 : 其他\n"},
    {"EngineNegativeIsOther", R"({"engine_type":-1})", "检出引擎 : 其他\n"},
    {"EngineOversizedKeepsZero", R"({"engine_type":99999999999})", "检出引擎 : @0\n"},
    {"EngineAsNumericText", R"({"engine_type":"2"})", "检出引擎 : @2\n"},
    {"RiskTypeShown", R"({"risk_type_name":"木马"})", "风险类型 : 木马\n"},
    {"RiskTypeAbsent", R"({})", "风险类型 : \n"},
};

class IsolationItemShown : public IsolationCommand, public testing::WithParamInterface<Shown> {};

std::string withEngineNames(std::string line) {
  const std::size_t mark = line.find('@');
  return mark == std::string::npos ? line : line.replace(mark, 2, json::engineAt(line[mark + 1] - '0').name);
}

}  // namespace

TEST_F(IsolationTask, StartsAsAReport) {
  const TavCliCmdIsolationExec& task = built("ISOLATION");
  EXPECT_EQ(task.action, TavCliCmdIsolationExec::kReport);
  EXPECT_EQ(task.notrust, 0);
  EXPECT_THAT(task.item_ids, IsEmpty());
}

TEST_F(IsolationTask, ReportAndRestoreSetTheAction) {
  EXPECT_EQ(built("ISOLATION REPORT").action, TavCliCmdIsolationExec::kReport);
  EXPECT_EQ(built("ISOLATION RESTORE").action, TavCliCmdIsolationExec::kRestore);
}

TEST_F(IsolationTask, TrustSetsWhetherToTrust) {
  EXPECT_EQ(built("ISOLATION RESTORE TRUST ON").notrust, 0);
  EXPECT_EQ(built("ISOLATION RESTORE TRUST OFF").notrust, 1);
}

TEST_F(IsolationTask, UidIsAppended) {
  EXPECT_THAT(built("ISOLATION RESTORE ITEMID UID u-1").item_ids, ElementsAre("u-1"));
  const CliNodeInfo* const node = row("ISOLATION RESTORE ITEMID UID");
  EXPECT_EQ(node->handler(*node, "u-2"), 1);
  EXPECT_THAT(pending()->item_ids, ElementsAre("u-1", "u-2"));
}

TEST_F(IsolationTask, HandlersGiveZeroAndDoNothingWithoutATask) {
  expectHandlersGiveZeroWithoutATask("x");
}

TEST_F(IsolationTask, AnUnknownActionPrintsAnErrorAndGivesMinusOne) {
  TavCliCmdIsolationExec task;
  task.action = 2;
  EXPECT_EQ(outputOf([&task] { EXPECT_EQ(task.execute(), -1); }), "debug:iso error\n");
}

TEST_F(IsolationTask, WithoutAnAgentLinkNothingIsPrintedAndNothingLogged) {
  const testsupport::DebugLogFile log(LogLevel::kError);
  EXPECT_EQ(outputOf([] {
              EXPECT_EQ(CliIsolationCommunication::action_isolationreport(), 0);
              EXPECT_EQ(CliIsolationCommunication::action_isolationrestore({"u"}, 0), 0);
            }),
            "");
  CLogDebug::LogPrintStr(LogLevel::kError, "", "", 0, "the log works");
  EXPECT_THAT(log.text(), AllOf(HasSubstr("the log works"), Not(HasSubstr("Caught"))));
}

TEST_F(IsolationCommand, AnEmptyQuarantinePrintsAnEmptyLineAndTheTotal) {
  EXPECT_EQ(reportOf("[]"), "\n隔离区当前存在 0 项\n");
}

TEST_F(IsolationCommand, AnItemIsPrintedOnSevenLinesAndARule) {
  EXPECT_EQ(reportOf(R"([{"uuid":"u-1","isolate_time":1700000000,"filepath_src":"/data/e","size":68,
                          "virus_name":"Eicar","engine_type":1,"risk_type_name":"测试"}])"),
            "UID标识 : u-1\n隔离时间 : 2023-11-15 06:13:20\n文件路径 : /data/e\n文件大小 : 68字节\n"
            "风险项名称 : Eicar\n检出引擎 : " +
                std::string(json::engineAt(1).name) + "\n风险类型 : 测试\n" + kItemRule +
                "\n隔离区当前存在 1 项\n");
}

TEST_P(IsolationItemShown, OnItsLine) {
  const std::string report = reportOf("[" + std::string(GetParam().item) + "]");
  EXPECT_THAT("\n" + report, HasSubstr("\n" + withEngineNames(GetParam().line)));
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 10);
}

INSTANTIATE_TEST_SUITE_P(Members, IsolationItemShown, testing::ValuesIn(kShown),
                         [](const auto& shown) { return shown.param.name; });

TEST_F(IsolationCommand, EveryEngineIsShownByItsName) {
  for (int code = 0; code < json::kEngineCount; ++code) {
    EXPECT_THAT(reportOf("[{\"engine_type\":" + std::to_string(code) + "}]"),
                HasSubstr("检出引擎 : " + std::string(json::engineAt(code).name) + "\n"));
  }
}

TEST_F(IsolationCommand, AnElementThatIsNoObjectIsNotPrintedButCounted) {
  const std::string report = reportOf(R"([7,"text",null,[],true,{"uuid":"u"}])");
  EXPECT_THAT(report, HasSubstr("隔离区当前存在 6 项\n"));
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 10);
}

TEST_F(IsolationCommand, AListOfAHundredThousandItemsIsPrintedWhole) {
  std::string items = "[{}";
  for (int i = 1; i < 100000; ++i) {
    items += ",{}";
  }
  agent_.answerWith("getIsolationInfo", [items](const Json::Value&) -> Json::Value {
    throw ScriptedAgent::ResultText{items + "]"};
  });
  const Executed executed = executeLine("isolation report");
  EXPECT_EQ(std::count(executed.printed.begin(), executed.printed.end(), '\n'), 800002);
  EXPECT_TRUE(executed.printed.ends_with("\n隔离区当前存在 100000 项\n"));
}

TEST_F(IsolationCommand, AnAnswerThatIsNoListPrintsNothingAndIsLogged) {
  for (const char* answer : {"{}", "\"text\"", "7", "true", "null"}) {
    EXPECT_EQ(reportOf(answer), "") << answer;
  }
  EXPECT_THAT(
      debugLog(),
      HasSubstr("ERROR command/isolation/comm/send/CliIsolationCommunication:action_isolationreport:"));
  EXPECT_THAT(debugLog(), HasSubstr("Caught exception:\\n "));
}

TEST_F(IsolationCommand, AnErrorASilenceAndADeathPrintNothingAndAreLogged) {
  agent_.answerError("getIsolationInfo", -32099, "not today");
  EXPECT_EQ(executeLine("ISOLATION REPORT").printed, "");
  EXPECT_THAT(debugLog(), HasSubstr("not today"));
  keepSilentAt("getIsolationInfo");
  EXPECT_EQ(executeLine("ISOLATION REPORT").printed, "");
  agent_.answerText("getIsolationInfo", "{\"half");
  EXPECT_EQ(executeLine("ISOLATION REPORT").printed, "");
  agent_.dieAt("getIsolationInfo");
  const Executed executed = executeLine("ISOLATION REPORT");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
  EXPECT_THAT(debugLog(), HasSubstr("lunet SyncSend error ret["));
}

TEST_F(IsolationCommand, RestoreWithTrustSendsActionTwoAndWithoutActionOne) {
  agent_.answer("startDeIsolate", jsonOf(R"({"status":true})"));
  for (const auto& [word, action] : {std::pair{"ON", 2}, std::pair{"OFF", 1}}) {
    agent_.forgetCalls();
    const Executed executed = executeLine("ISOLATION RESTORE TRUST " + std::string(word) +
                                          " ITEMID UID 88f835e6-cacd-49d7-b235-9da3c39b888a");
    EXPECT_EQ(executed.result, 0);
    EXPECT_EQ(executed.printed, "");
    const auto calls = agent_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].method, "startDeIsolate");
    Json::Value expected = jsonOf(
        R"({"ctx":null,"desc":"","source":1,"token_id":"","params":{"item_number":0,"is_all":false,
            "custom_path":"","items":["88f835e6-cacd-49d7-b235-9da3c39b888a"]}})");
    expected["params"]["action"] = action;
    EXPECT_EQ(calls[0].params, expected) << word;
  }
}

TEST_F(IsolationCommand, RestoreTakesTrustAndItemInEitherOrder) {
  agent_.answer("startDeIsolate", jsonOf(R"({"status":true})"));
  executeLine("isolation restore itemid uid u-7 trust off");
  ASSERT_EQ(agent_.calls().size(), 1u);
  EXPECT_EQ(agent_.calls()[0].params["params"]["action"], json::toNumber(json::RestoreAction::kRestore));
  EXPECT_EQ(agent_.calls()[0].params["params"]["items"], jsonOf(R"(["u-7"])"));
}

TEST_F(IsolationCommand, RestoreGivesOneOnlyForAStatusOfTrue) {
  for (const auto& [answer, result] :
       {std::pair{R"({"status":true})", 1}, std::pair{R"({"status":false})", 0}, std::pair{"{}", 0},
        std::pair{R"({"status":"true"})", 0}, std::pair{R"({"status":1})", 0}, std::pair{"[]", 0},
        std::pair{"true", 0}}) {
    agent_.answer("startDeIsolate", jsonOf(answer));
    EXPECT_EQ(CliIsolationCommunication::action_isolationrestore({"u"}, 1), result) << answer;
  }
}

TEST_F(IsolationCommand, ARestoreThatFailsPrintsNothingGivesZeroAndIsLogged) {
  agent_.answerError("startDeIsolate", -32099, "no such item");
  const Executed executed = executeLine("ISOLATION RESTORE TRUST ON ITEMID UID u");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
  EXPECT_THAT(debugLog(), HasSubstr(":action_isolationrestore:"));
  EXPECT_THAT(debugLog(), HasSubstr("no such item"));
}

TEST_F(IsolationCommand, LinesThatLackARequiredWordAreRefusedAndSendNothing) {
  for (const char* line :
       {"ISOLATION", "ISOLATION RESTORE", "ISOLATION RESTORE TRUST ON", "ISOLATION RESTORE ITEMID UID u",
        "ISOLATION RESTORE TRUST ITEMID UID u", "ISOLATION RESTORE TRUST OFF ITEMID"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, -1) << line;
    EXPECT_THAT(executed.printed, StartsWith("缺少必要选项:")) << line;
  }
  const Executed executed = executeLine("ISOLATION RESTORE TRUST OFF ITEMID UID");
  EXPECT_EQ(executed.result, -1);
  EXPECT_EQ(executed.printed, "");
  EXPECT_THAT(agent_.calls(), IsEmpty());
}

TEST_F(IsolationCommand, IsolationAloneNamesReportAndRestore) {
  EXPECT_EQ(executeLine("ISOLATION").printed,
            "缺少必要选项:"
            "REPORT                        获取隔离区信息         \n"
            "RESTORE                       恢复隔离数据            \n");
}
