#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "AgentCommand.h"
#include "command/trustregion/TavCliCmdtrustregion.h"
#include "command/trustregion/TavCliCmdtrustregionExec.h"
#include "command/trustregion/comm/send/CliTrustRegionCommunication.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "support/BuiltGrammar.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testsupport::outputOf;
using testsupport::ScriptedAgent;

namespace {

class TrustregionTask : public testsupport::GrammarTask<TavCliCmdtrustregion, TavCliCmdtrustregionExec> {};

constexpr const char* kNoTotals = "\n信任区当前存在 0 项\n\n否决区当前存在 0 项\n";

class TrustregionCommand : public AgentCommand {
 protected:
  TrustregionCommand() {
    setenv("TZ", "Asia/Shanghai", 1);
    tzset();
    agent_.answer("ctlRegion", true);
  }
  /// The report when the query of that region and type gives these items, and every other query no item.
  std::string reportOf(const std::string& items, json::Region region = json::Region::kTrust,
                       json::RegionItemType type = json::RegionItemType::kFile) {
    const Json::Value list = jsonOf(items);
    agent_.answerWith("getRegionInfo", [=](const Json::Value& params) {
      return params["region_type"] == json::toNumber(region) && params["item_type"] == json::toNumber(type)
                 ? list
                 : Json::Value(Json::arrayValue);
    });
    const Executed executed = executeLine("TRUSTREGION REPORT");
    EXPECT_EQ(executed.result, 0);
    return executed.printed;
  }
  Json::Value changeOf(const std::string& line) {
    agent_.forgetCalls();
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, 0) << line;
    EXPECT_EQ(executed.printed, "") << line;
    const auto calls = agent_.calls();
    EXPECT_EQ(calls.size(), 1u) << line;
    return calls.empty() ? Json::Value() : calls[0].params;
  }
};

struct Shown {
  const char* name;
  const char* item;
  const char* line;
};

void PrintTo(const Shown& shown, std::ostream* out) {
  *out << shown.item;
}

const Shown kShown[] = {
    {"TimeAbsent", R"({})", "时间 : 1970-01-01 08:00:00\n"},
    {"TimeAsNumber", R"({"add_time":1700000000})", "时间 : 2023-11-15 06:13:20\n"},
    {"TimeAsNumericText", R"({"add_time":"1700000000"})", "时间 : 2023-11-15 06:13:20\n"},
    {"TimeBeyondThirtyTwoBits", R"({"add_time":4296667296})", "时间 : 1970-01-21 00:13:20\n"},
    {"ItemShown", R"({"item":"/data/木"})", "项 : /data/木\n"},
    {"ItemMistyped", R"({"item":7})", "项 : \n"},
    {"ItemWithControlCharacters", R"({"item":"/a\u001b]0;x\u0007\n"})", "项 : /a\\x1b]0;x\\x07\\n\n"},
    {"ItemWithBytesThatAreNotUtf8", "{\"item\":\"/a/\xef\x9f\xbf\"}", "项 : /a/\\xff\n"},
    {"SizeAbsent", R"({})", "项大小 : 0字节\n"},
    {"SizeOverFourGigabytes", R"({"file_size":5000000000})", "项大小 : 5000000000字节\n"},
    {"SizeAsNumericText", R"({"file_size":"12"})", "项大小 : 12字节\n"},
    {"SizeOversized", R"({"file_size":1e30})", "项大小 : 0字节\n"},
    {"StateValid", R"({"valid_statue":0})", "状态 : 有效\n"},
    {"StateValidForEver", R"({"valid_statue":1})", "状态 : 永久有效\n"},
    {"StateTwoIsInvalid", R"({"valid_statue":2})", "状态 : 无效\n"},
    {"StateNegativeIsInvalid", R"({"valid_statue":-1})", "状态 : 无效\n"},
    {"StateAsNumericText", R"({"valid_statue":"1"})", "状态 : 永久有效\n"},
    {"StateMistypedKeepsZero", R"({"valid_statue":true})", "状态 : 有效\n"},
    {"StateOversizedKeepsZero", R"({"valid_statue":99999999999})", "状态 : 有效\n"},
    {"DomainPersonal", R"({"domain":0})", "属性 : 个人\n"},
    {"DomainGlobal", R"({"domain":1})", "属性 : 全局\n"},
    {"DomainUnknown", R"({"domain":4})", "属性 : 未知\n"},
    {"DomainNegative", R"({"domain":-1})", "属性 : 未知\n"},
    {"TypePath", R"({"item_type":0})", "类型 : 文件路径\n"},
    {"TypeFolder", R"({"item_type":1})", "类型 : 文件夹\n"},
    {"TypeExtension", R"({"item_type":2})", "类型 : 后缀名\n"},
    {"TypeMd5", R"({"item_type":3})", "类型 : 文件MD5\n"},
    {"TypeName", R"({"item_type":4})", "类型 : 文件名\n"},
    {"TypeSha1", R"({"item_type":5})", "类型 : 文件SHA1\n"},
    {"TypeSha256", R"({"item_type":6})", "类型 : 文件SHA256\n"},
    {"TypeUnknown", R"({"item_type":7})", "类型 : 未知\n"},
    {"TypeNegative", R"({"item_type":-1})", "类型 : 未知\n"},
};

class TrustregionItemShown : public TrustregionCommand, public testing::WithParamInterface<Shown> {};

}  // namespace

TEST_F(TrustregionTask, TypeMd5IsBuiltButCannotBeTyped) {
  const CliNodeInfo* const node = row("TRUSTREGION MODIFY TYPE MD5");
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->help, "文件指纹");
  EXPECT_EQ(node->alternative, 1);
  EXPECT_EQ(node->required, 1);
  EXPECT_EQ(node->valueKind, 0);
  EXPECT_EQ(tree_.find(node), nullptr);
  EXPECT_EQ(built("TRUSTREGION MODIFY TYPE MD5").item_type, TavCliCmdtrustregionExec::kFile);
  EXPECT_EQ(node->handler(*node, ""), 1);
  EXPECT_EQ(pending()->item_type, TavCliCmdtrustregionExec::kMd5);
}

TEST_F(TrustregionTask, StartsAsAReport) {
  const TavCliCmdtrustregionExec& task = built("TRUSTREGION");
  EXPECT_EQ(task.action, TavCliCmdtrustregionExec::kReport);
  EXPECT_EQ(task.item_type, TavCliCmdtrustregionExec::kFile);
  EXPECT_THAT(task.items, IsEmpty());
}

TEST_F(TrustregionTask, ReportAndActionSetTheAction) {
  EXPECT_EQ(built("TRUSTREGION REPORT").action, TavCliCmdtrustregionExec::kReport);
  EXPECT_EQ(built("TRUSTREGION MODIFY ACTION ADD").action, TavCliCmdtrustregionExec::kAdd);
  EXPECT_EQ(built("TRUSTREGION MODIFY ACTION DEL").action, TavCliCmdtrustregionExec::kDelete);
}

TEST_F(TrustregionTask, TypeSetsTheItemType) {
  EXPECT_EQ(built("TRUSTREGION MODIFY TYPE EXT").item_type, TavCliCmdtrustregionExec::kExtension);
  EXPECT_EQ(built("TRUSTREGION MODIFY TYPE FILE").item_type, TavCliCmdtrustregionExec::kFile);
  EXPECT_EQ(built("TRUSTREGION MODIFY TYPE DIR").item_type, TavCliCmdtrustregionExec::kFolder);
}

TEST_F(TrustregionTask, NameIsAppended) {
  EXPECT_THAT(built("TRUSTREGION MODIFY ITEM NAME /one").items, ElementsAre("/one"));
  EXPECT_THAT(built("TRUSTREGION MODIFY ITEM NAME /one NAME /two").items, ElementsAre("/one"));
}

TEST_F(TrustregionTask, HandlersGiveZeroAndDoNothingWithoutATask) {
  expectHandlersGiveZeroWithoutATask("x");
}

TEST_F(TrustregionTask, AnUnknownActionPrintsAnErrorAndGivesMinusOne) {
  TavCliCmdtrustregionExec task;
  task.action = 3;
  EXPECT_EQ(outputOf([&task] { EXPECT_EQ(task.execute(), -1); }), "debug:trustregion error\n");
}

TEST_F(TrustregionTask, WithoutAnAgentLinkNothingIsPrinted) {
  EXPECT_EQ(outputOf([] {
              EXPECT_EQ(CliTrustRegionCommunication::action_trustregionreport(), 0);
              EXPECT_EQ(CliTrustRegionCommunication::action_trustregionmodify(
                            TavCliCmdtrustregionExec::kAdd, TavCliCmdtrustregionExec::kFile, {"x"}),
                        0);
            }),
            "");
}

TEST_F(TrustregionCommand, EmptyListsPrintTheTwoTotalsEachAfterAnEmptyLine) {
  EXPECT_EQ(reportOf("[]"), kNoTotals);
}

TEST_F(TrustregionCommand, TheQueriesGoOutInTheirOrderForEveryDomain) {
  reportOf("[]");
  std::vector<std::pair<json::Region, json::RegionItemType>> queries;
  for (const ScriptedAgent::Call& call : agent_.calls("getRegionInfo")) {
    EXPECT_EQ(call.params["domain"], json::toNumber(json::RegionDomain::kEvery));
    queries.emplace_back(json::Region{call.params["region_type"].asInt()},
                         json::RegionItemType{call.params["item_type"].asInt()});
  }
  using enum json::Region;
  using enum json::RegionItemType;
  const decltype(queries) expected = {{kTrust, kFile},    {kTrust, kFolder}, {kTrust, kExtension},
                                      {kTrust, kMd5},     {kTrust, kSha256}, {kTrust, kName},
                                      {kTrust, kSha1},    {kReject, kMd5},   {kReject, kSha1},
                                      {kReject, kSha256}, {kReject, kName}};
  EXPECT_EQ(queries, expected);
}

TEST_F(TrustregionCommand, AnItemIsPrintedOnSevenLinesAndARule) {
  EXPECT_EQ(reportOf(R"([{"add_time":1700000000,"item":"/data","file_size":12,"valid_statue":1,"domain":1,
                          "item_type":1}])",
                     json::Region::kTrust, json::RegionItemType::kFolder),
            "时间 : 2023-11-15 06:13:20\n项 : /data\n项大小 : 12字节\n状态 : 永久有效\n属性 : 全局\n"
            "类型 : 文件夹\n行为 : 信任\n" +
                kItemRule + "\n信任区当前存在 1 项\n\n否决区当前存在 0 项\n");
}

TEST_F(TrustregionCommand, AnItemOfTheRejectRegionIsPrintedAsRejected) {
  const std::string report =
      reportOf(R"([{"item":"abc","item_type":3}])", json::Region::kReject, json::RegionItemType::kMd5);
  EXPECT_THAT(report, HasSubstr("行为 : 否决\n"));
  EXPECT_THAT(report, Not(HasSubstr("行为 : 信任")));
  EXPECT_THAT(report, HasSubstr("\n信任区当前存在 0 项\n\n否决区当前存在 1 项\n"));
}

TEST_P(TrustregionItemShown, OnItsLine) {
  const std::string report = reportOf("[" + std::string(GetParam().item) + "]");
  EXPECT_THAT("\n" + report, HasSubstr("\n" + std::string(GetParam().line)));
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 12);
}

INSTANTIATE_TEST_SUITE_P(Members, TrustregionItemShown, testing::ValuesIn(kShown),
                         [](const auto& shown) { return shown.param.name; });

TEST_F(TrustregionCommand, ElementsThatAreNoObjectsAreNotPrintedButCounted) {
  EXPECT_EQ(reportOf(R"([7,null,"text",[]])"), "\n信任区当前存在 4 项\n\n否决区当前存在 0 项\n");
}

TEST_F(TrustregionCommand, TheItemsOfAllQueriesAddUpInTheTotals) {
  agent_.answer("getRegionInfo", jsonOf(R"([1,2])"));
  EXPECT_EQ(executeLine("TRUSTREGION REPORT").printed, "\n信任区当前存在 14 项\n\n否决区当前存在 8 项\n");
}

TEST_F(TrustregionCommand, AListOfAHundredThousandItemsIsPrintedWhole) {
  std::string items = "[{}";
  for (int i = 1; i < 100000; ++i) {
    items += ",{}";
  }
  agent_.answerWith("getRegionInfo", [items](const Json::Value& params) -> Json::Value {
    throw ScriptedAgent::ResultText{
        params["item_type"] == json::toNumber(json::RegionItemType::kExtension) ? items + "]" : "[]"};
  });
  const std::string report = executeLine("TRUSTREGION REPORT").printed;
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 800004);
  EXPECT_TRUE(report.ends_with("\n信任区当前存在 100000 项\n\n否决区当前存在 0 项\n"));
}

TEST_F(TrustregionCommand, AnAnswerThatIsNoListIsLoggedAndSkipped) {
  agent_.answerWith("getRegionInfo", [](const Json::Value& params) {
    return params["item_type"] == json::toNumber(json::RegionItemType::kFolder) ? Json::Value("no list")
                                                                                : jsonOf(R"([{"item":"x"}])");
  });
  const Executed executed = executeLine("TRUSTREGION REPORT");
  EXPECT_EQ(agent_.calls("getRegionInfo").size(), 11u);
  EXPECT_TRUE(executed.printed.ends_with("\n信任区当前存在 6 项\n\n否决区当前存在 4 项\n"));
  EXPECT_THAT(
      debugLog(),
      HasSubstr("ERROR command/trustregion/comm/send/CliTrustRegionCommunication:action_trustregionreport:"));
}

TEST_F(TrustregionCommand, AnErrorStopsTheReportWhereItHappenedWithoutTotals) {
  agent_.answerWith("getRegionInfo", [](const Json::Value& params) -> Json::Value {
    if (params["item_type"] == json::toNumber(json::RegionItemType::kExtension)) {
      throw ScriptedAgent::Error{-32099, "store is gone"};
    }
    return jsonOf(R"([{"item":"x"}])");
  });
  const Executed executed = executeLine("TRUSTREGION REPORT");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(agent_.calls("getRegionInfo").size(), 3u);
  EXPECT_EQ(std::count(executed.printed.begin(), executed.printed.end(), '\n'), 16);
  EXPECT_THAT(executed.printed, Not(HasSubstr("当前存在")));
  EXPECT_THAT(debugLog(), HasSubstr("store is gone"));
}

TEST_F(TrustregionCommand, AnErrorWithTheNumberOfAnInvalidResponseStopsTheReportTooWithoutTotals) {
  agent_.answerError("getRegionInfo", jsonrpc::Errors::ERROR_CLIENT_INVALID_RESPONSE, "refused");
  EXPECT_EQ(executeLine("TRUSTREGION REPORT").printed, "");
  EXPECT_EQ(agent_.calls("getRegionInfo").size(), 1u);
  EXPECT_THAT(debugLog(), HasSubstr("refused"));
}

TEST_F(TrustregionCommand, AGarbledAnswerStopsTheReportWithoutTotals) {
  agent_.answerText("getRegionInfo", "[[[");
  EXPECT_EQ(executeLine("TRUSTREGION REPORT").printed, "");
  EXPECT_EQ(agent_.calls("getRegionInfo").size(), 1u);
  EXPECT_THAT(debugLog(), HasSubstr("the answer is no JSON"));
}

TEST_F(TrustregionCommand, AnAgentThatDiesHalfWayStopsTheReport) {
  agent_.answerWith("getRegionInfo", [](const Json::Value& params) -> Json::Value {
    if (params["region_type"] == json::toNumber(json::Region::kReject)) {
      throw ScriptedAgent::Death{};
    }
    return Json::Value(Json::arrayValue);
  });
  EXPECT_EQ(executeLine("TRUSTREGION REPORT").printed, "");
  EXPECT_THAT(debugLog(), HasSubstr("lunet SyncSend error ret["));
}

TEST_F(TrustregionCommand, AnAgentThatNeverAnswersStopsTheReport) {
  keepSilentAt("getRegionInfo");
  EXPECT_EQ(executeLine("TRUSTREGION REPORT").printed, "");
  EXPECT_EQ(agent_.calls("getRegionInfo").size(), 1u);
}

TEST_F(TrustregionCommand, AChangeSendsItsItemToTheTrustRegion) {
  const struct {
    const char* words;
    int action;
    int type;
  } cases[] = {{"ACTION ADD TYPE FILE", 0, 0}, {"ACTION ADD TYPE DIR", 0, 1}, {"ACTION ADD TYPE EXT", 0, 2},
               {"ACTION DEL TYPE FILE", 1, 0}, {"ACTION DEL TYPE DIR", 1, 1}, {"ACTION DEL TYPE EXT", 1, 2}};
  for (const auto& row : cases) {
    Json::Value expected = jsonOf(
        R"({"desc":"命令行修改了本地信任区","region_type":0,"source":1,
            "items":{"domain":0,"is_all":false,"items":["/data/木"]}})");
    expected["items"]["action"] = row.action;
    expected["items"]["type"] = row.type;
    EXPECT_EQ(changeOf("TRUSTREGION MODIFY " + std::string(row.words) + " ITEM NAME /data/木"), expected)
        << row.words;
  }
}

TEST_F(TrustregionCommand, TheWordsOfAChangeMayComeInAnyOrderAndLetterCase) {
  const Json::Value sent = changeOf("trustregion modify item name txt type ext action del");
  EXPECT_EQ(sent["items"], jsonOf(R"({"action":1,"type":2,"domain":0,"is_all":false,"items":["txt"]})"));
}

TEST_F(TrustregionCommand, APathThatIsNotUtf8ReachesTheAgentByteForByte) {
  const Json::Value sent = changeOf("TRUSTREGION MODIFY ACTION ADD TYPE FILE ITEM NAME /a/\xff");
  EXPECT_EQ(json::decodePath(sent["items"]["items"][0].asString()), "/a/\xff");
}

TEST_F(TrustregionCommand, AnActionOrTypeOutsideTheirRangesIsLeftOut) {
  CliTrustRegionCommunication::action_trustregionmodify(2, 7, {});
  CliTrustRegionCommunication::action_trustregionmodify(-1, -1, {});
  CliTrustRegionCommunication::action_trustregionmodify(
      json::toNumber(json::RegionAction::kDelete), json::toNumber(json::RegionItemType::kSha256), {"a", "b"});
  const auto calls = agent_.calls("ctlRegion");
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].params["items"], jsonOf(R"({"domain":0,"is_all":false,"items":[]})"));
  EXPECT_EQ(calls[1].params["items"], jsonOf(R"({"domain":0,"is_all":false,"items":[]})"));
  EXPECT_EQ(calls[2].params["items"],
            jsonOf(R"({"action":1,"type":6,"domain":0,"is_all":false,"items":["a","b"]})"));
}

TEST_F(TrustregionCommand, AChangeGivesWhatTheAgentAnswers) {
  EXPECT_EQ(CliTrustRegionCommunication::action_trustregionmodify(TavCliCmdtrustregionExec::kAdd,
                                                                  TavCliCmdtrustregionExec::kFile, {"x"}),
            1);
  agent_.answer("ctlRegion", false);
  EXPECT_EQ(CliTrustRegionCommunication::action_trustregionmodify(TavCliCmdtrustregionExec::kAdd,
                                                                  TavCliCmdtrustregionExec::kFile, {"x"}),
            0);
  agent_.answer("ctlRegion", 1);
  EXPECT_EQ(CliTrustRegionCommunication::action_trustregionmodify(TavCliCmdtrustregionExec::kAdd,
                                                                  TavCliCmdtrustregionExec::kFile, {"x"}),
            0);
  EXPECT_THAT(debugLog(), HasSubstr(":action_trustregionmodify:"));
}

TEST_F(TrustregionCommand, AChangeThatFailsPrintsNothingAndGivesZero) {
  agent_.answerError("ctlRegion", -32099, "not allowed");
  const Executed executed = executeLine("TRUSTREGION MODIFY ACTION ADD TYPE FILE ITEM NAME /x");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
  EXPECT_THAT(debugLog(), HasSubstr("not allowed"));
}

TEST_F(TrustregionCommand, LinesThatLackARequiredWordAreRefusedAndSendNothing) {
  for (const char* line :
       {"TRUSTREGION", "TRUSTREGION MODIFY", "TRUSTREGION MODIFY ACTION ADD",
        "TRUSTREGION MODIFY ACTION ADD TYPE FILE", "TRUSTREGION MODIFY ACTION ADD ITEM NAME /x",
        "TRUSTREGION MODIFY TYPE DIR ITEM NAME /x", "TRUSTREGION MODIFY ACTION TYPE FILE ITEM NAME /x",
        "TRUSTREGION MODIFY ACTION ADD TYPE MD5 ITEM NAME /x"}) {
    const Executed executed = executeLine(line);
    EXPECT_EQ(executed.result, -1) << line;
    EXPECT_THAT(executed.printed, StartsWith("缺少必要选项:")) << line;
  }
  EXPECT_EQ(executeLine("TRUSTREGION MODIFY ACTION ADD TYPE FILE ITEM NAME").result, -1);
  EXPECT_THAT(agent_.calls(), IsEmpty());
}
