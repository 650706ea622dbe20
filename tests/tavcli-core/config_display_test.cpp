#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "AgentCommand.h"
#include "command/config/ConfigDisplay.h"
#include "command/config/comm/send/CliConfigCommunication.h"
#include "json/Values.h"
#include "support/ConfigLines.h"

using command::SettingRows;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::ScriptedAgent;
using testsupport::ShownSetting;
using testsupport::ShownValue;
using testsupport::shownValues;

namespace {

using Build = SettingRows (*)(const Json::Value& document);
constexpr Build kScan = command::scanSettingRows;
constexpr Build kQuarantine = command::quarantineSettingRows;
constexpr Build kEngine = command::engineSettingRows;
constexpr Build kRealProtect = command::realProtectSettingRows;

/// A page of CONFIG SHOW: its title, the rows of the golden file, and more rows.
struct Page {
  json::ConfigType document;
  Build build;
  const char* title;
  std::vector<std::string> more;
};

const Page kPages[] = {
    {json::ConfigType::kScan, kScan, "基础扫描配置", {}},
    {json::ConfigType::kQuarantine, kQuarantine, "隔离区配置", {"自动清理方式"}},
    {json::ConfigType::kEngines,
     kEngine,
     "多引擎配置",
     {"基础云查杀服务地址", "RDA云查杀服务地址", "云查杀类型"}},
    {json::ConfigType::kRealTime, kRealProtect, "实时防护", {}},
};

const Page& pageOf(json::ConfigType document) {
  return *std::find_if(std::begin(kPages), std::end(kPages),
                       [document](const Page& page) { return page.document == document; });
}

class SettingRow : public testing::TestWithParam<ShownSetting> {};

std::vector<std::string> labelsOf(const SettingRows& rows) {
  std::vector<std::string> labels;
  for (const auto& row : rows) {
    labels.push_back(row.first);
  }
  return labels;
}

/// The value shown under the label; "(no row)" when there is none.
std::string shown(const SettingRows& rows, const std::string& label) {
  for (const auto& row : rows) {
    if (row.first == label) {
      return row.second;
    }
  }
  return "(no row)";
}

std::string cleaning(const std::string& autoClean) {
  return shown(kQuarantine(jsonOf(R"({"AutoClean":)" + autoClean + "}")), "自动清理方式");
}

std::vector<std::pair<std::string, std::string>> cloudRows(const std::string& cloud) {
  const SettingRows rows = kEngine(jsonOf(R"({"Cloud":)" + cloud + "}"));
  return {rows.begin(), rows.end()};
}

constexpr const char* kTitleRule = "------------------------";

class ConfigShow : public AgentCommand {
 protected:
  void answerDocuments(const std::map<json::ConfigType, std::string>& documents) {
    agent_.answerWith("getAVConfig", [documents](const Json::Value& params) -> Json::Value {
      const auto found = documents.find(json::ConfigType{params["config_type"].asInt()});
      return found == documents.end() ? "" : found->second;
    });
  }
};

}  // namespace

TEST_P(SettingRow, ShowsEachValue) {
  const ShownSetting& row = GetParam();
  int values = 0;
  for (const ShownValue& value : shownValues()) {
    if (value.kind != row.kind) {
      continue;
    }
    ++values;
    Json::Value document;
    document[row.section] = Json::Value(Json::objectValue);
    if (value.json != "(absent)") {
      document[row.section][row.key] = jsonOf(value.json);
    }
    EXPECT_EQ(shown(pageOf(row.document).build(document), row.label), value.text)
        << row.key << " = " << value.json;
  }
  EXPECT_NE(values, 0) << row.kind;
}

INSTANTIATE_TEST_SUITE_P(Rows, SettingRow, testing::ValuesIn(testsupport::shownSettings()),
                         [](const auto& row) {
                           return testsupport::nameOf(row.param.document) + row.param.section + row.param.key;
                         });

TEST(SettingsDisplay, RowsStandInTheOrderOfTheGoldenFile) {
  const Json::Value document =
      jsonOf(R"({"Compressed":{},"Common":{},"AutoClean":{},"MultiEngines":{},"Cloud":{}})");
  for (const Page& page : kPages) {
    std::vector<std::string> labels{page.title};
    for (const ShownSetting& row : testsupport::shownSettings()) {
      if (row.document == page.document) {
        labels.push_back(row.label);
      }
    }
    labels.insert(labels.end(), page.more.begin(), page.more.end());
    EXPECT_EQ(labelsOf(page.build(document)), labels);
    EXPECT_EQ(shown(page.build(document), page.title), kTitleRule);
  }
}

TEST(SettingsDisplay, WithoutTheFirstSectionThereIsNoTitleButForTheQuarantine) {
  EXPECT_THAT(labelsOf(kScan(jsonOf(R"({"Compressed":{}})"))),
              ElementsAre("扫描压缩包", "最大扫描层数", "最大压缩包大小", "扫描压缩包格式类型"));
  EXPECT_THAT(labelsOf(kRealProtect(jsonOf(R"({"Compressed":{}})"))).size(), 5u);
  EXPECT_THAT(labelsOf(kEngine(jsonOf(R"({"Cloud":{"Type":3}})"))), ElementsAre("云查杀类型"));
  EXPECT_THAT(labelsOf(kQuarantine(jsonOf("{}"))), ElementsAre("隔离区配置"));
}

TEST(SettingsDisplay, AScanDocumentWithoutCompressedShowsNoCompressedRows) {
  EXPECT_EQ(kScan(jsonOf(R"({"Common":{}})")).size(), 13u);
}

TEST(SettingsDisplay, AnyJsonWillDo) {
  for (const char* text :
       {"{}", "[]", "[1,2]", "7", "true", "\"text\"", "null", R"({"Common":7,"Compressed":[]})",
        R"({"MultiEngines":null,"Cloud":"x"})", R"({"AutoClean":[]})"}) {
    const Json::Value document = jsonOf(text);
    EXPECT_THAT(kScan(document), IsEmpty()) << text;
    EXPECT_THAT(kEngine(document), IsEmpty()) << text;
    EXPECT_THAT(kRealProtect(document), IsEmpty()) << text;
    EXPECT_EQ(kQuarantine(document).size(), 1u) << text;
  }
}

TEST(SettingsDisplay, FormatsThatAreNoListAreNone) {
  for (const char* formats : {R"({"a":"zip"})", "\"zip\"", "7", "null", "[]"}) {
    const Json::Value document = jsonOf(std::string(R"({"Compressed":{"Format":)") + formats + "}}");
    EXPECT_EQ(shown(kScan(document), "扫描压缩包格式类型"), "") << formats;
  }
}

TEST(SettingsDisplay, CleaningByAgeNamesTimeAndUnit) {
  EXPECT_EQ(cleaning(R"({"CleanType":0,"CleanTime":30,"CleanUnit":2})"),
            "使用空间大于90%时自动清理超过30日的文件");
  EXPECT_EQ(cleaning(R"({"CleanType":0,"CleanTime":1,"CleanUnit":0})"),
            "使用空间大于90%时自动清理超过1年的文件");
  EXPECT_EQ(cleaning(R"({"CleanType":0,"CleanTime":6,"CleanUnit":1})"),
            "使用空间大于90%时自动清理超过6月的文件");
  EXPECT_EQ(cleaning(R"({"CleanType":0,"CleanTime":2,"CleanUnit":3})"),
            "使用空间大于90%时自动清理超过2周的文件");
  EXPECT_EQ(cleaning(R"({"CleanType":0,"CleanTime":2,"CleanUnit":4})"),
            "使用空间大于90%时自动清理超过2的文件");
  EXPECT_EQ(cleaning(R"({"CleanTime":"30","CleanUnit":"2"})"), "使用空间大于90%时自动清理超过30日的文件");
  EXPECT_EQ(cleaning("{}"), "使用空间大于90%时自动清理超过0年的文件");
}

TEST(SettingsDisplay, CleaningByRoomNamesTheRateWithoutAPercentSign) {
  EXPECT_EQ(cleaning(R"({"CleanType":1,"CleanRate":20})"),
            "已达上限90%时，自动清理隔离区文件至存储空间剩余上限的20");
  EXPECT_EQ(cleaning(R"({"CleanType":1})"), "已达上限90%时，自动清理隔离区文件至存储空间剩余上限的0");
}

TEST(SettingsDisplay, AnyOtherCleaningIsUnknown) {
  EXPECT_EQ(cleaning(R"({"CleanType":2})"), "未知");
  EXPECT_EQ(cleaning(R"({"CleanType":-1})"), "未知");
}

TEST(SettingsDisplay, EachKindOfCloudShowsItsAddressesThenItsType) {
  EXPECT_THAT(
      cloudRows(R"({"Type":0,"PublicCloudUrl":"http://a","PublicRdaCloudUrl":"http://b"})"),
      ElementsAre(std::pair{"基础云查杀服务地址", "http://a"}, std::pair{"RDA云查杀服务地址", "http://b"},
                  std::pair{"云查杀类型", "直接连接公有云"}));
  EXPECT_THAT(cloudRows(R"({"Type":1,"PublicCloudProxyUrl":"http://a","PublicRdaCloudProxyUrl":"http://b"})"),
              ElementsAre(std::pair{"基础云查杀服务代理地址", "http://a"},
                          std::pair{"RDA云查杀服务代理地址", "http://b"},
                          std::pair{"云查杀类型", "通过代理服务器连接公有云"}));
  EXPECT_THAT(cloudRows(R"({"Type":2,"PrivateCloudUrl":"http://c"})"),
              ElementsAre(std::pair{"私有云查杀服务代理地址", "http://c"},
                          std::pair{"云查杀类型", "直接连接私有云"}));
  EXPECT_THAT(cloudRows(R"({"Type":3})"), ElementsAre(std::pair{"云查杀类型", "关闭云查杀"}));
  EXPECT_THAT(cloudRows(R"({"Type":4})"), ElementsAre(std::pair{"云查杀类型", "直接连接公有云"}));
  EXPECT_THAT(cloudRows(R"({"Type":-1})"), ElementsAre(std::pair{"云查杀类型", "直接连接公有云"}));
}

TEST(SettingsDisplay, ACloudAddressThatIsMissingOrNoTextIsEmptyAndControlCharactersAreVisible) {
  EXPECT_THAT(cloudRows(R"({"PublicCloudUrl":7})"),
              ElementsAre(std::pair{"基础云查杀服务地址", ""}, std::pair{"RDA云查杀服务地址", ""},
                          std::pair{"云查杀类型", "直接连接公有云"}));
  EXPECT_THAT(cloudRows("{\"Type\":2,\"PrivateCloudUrl\":\"x\\u001b]0;y\\n\"}")[0].second, "x\\x1b]0;y\\n");
}

TEST(SettingsDisplay, RowsArePrintedWithTwoBlanksBehindAnEmptyLine) {
  EXPECT_EQ(command::settingsText({{"标题", "值"}, {"b", ""}}), "\n  标题 : 值\n  b : \n");
  EXPECT_EQ(command::settingsText({}), "\n");
}

TEST_F(ConfigShow, PrintsTheFourDocumentsInTheirOrder) {
  answerDocuments(
      {{json::ConfigType::kScan,
        R"({"Common":{"FixMethod":2,"SkipSize":50,"Parallelism":4,"ScanWithCache":true,"HandleAction":7}})"},
       {json::ConfigType::kQuarantine,
        R"({"Common":{"SizeLimit":10},"AutoClean":{"Flag":true,"CleanType":0,"CleanTime":30,"CleanUnit":2}})"},
       {json::ConfigType::kEngines, R"({"MultiEngines":{"HCengine":true},"Cloud":{"Type":3}})"},
       {json::ConfigType::kRealTime,
        R"({"Common":{"Flag":true,"ProtectLevel":1},"Compressed":{"Format":["zip","rar"]}})"}});
  const Executed executed = executeLine("CONFIG SHOW");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(
      executed.printed,
      "\n  基础扫描配置 : ------------------------\n  扫描网络映射驱动器 : 关闭\n  防感染模式 : 关闭\n"
      "  跳过系统修复项 : 关闭\n  扫描文件类型 : 全部文件\n  威胁处理方式 : 仅上报不处理\n"
      "  威胁处置行为 : 不处理\n  扫描缓存加速 : 开启\n  活体扫描开关 : 关闭\n  风险进程处理方式 : 忽略\n"
      "  跳过文件大小 : 50MB\n  扫描并行度 : 4\n  云查杀扫描方式 : 扫描所有文件\n"
      "\n  隔离区配置 : ------------------------\n  隔离区空间大小 : 10GB\n  隔离区自动清理 : 开启\n"
      "  自动清理方式 : 使用空间大于90%时自动清理超过30日的文件\n"
      "\n  多引擎配置 : ------------------------\n  鸿隼引擎(病毒查杀) : 开启\n"
      "  鸿隼引擎(实时防护) : 关闭\n  UMB引擎(病毒查杀) : 关闭\n  UMB引擎(实时防护) : 关闭\n"
      "  IXO引擎(病毒查杀) : 关闭\n  IXO引擎(实时防护) : 关闭\n  RDA引擎(病毒查杀) : 关闭\n"
      "  RDA引擎(实时防护) : 关闭\n  RDA引擎(旧模型)(病毒查杀) : 关闭\n"
      "  RDA引擎(旧模型)(实时防护) : 关闭\n  云引擎(病毒查杀) : 关闭\n  云引擎(实时防护) : 关闭\n"
      "  云查杀类型 : 关闭云查杀\n"
      "\n  实时防护 : ------------------------\n  系统实时防护 : 开启\n  允许开机延时加载文件系统 : 关闭\n"
      "  防护文件类型 : 全部文件\n  威胁处理方式 : 自动处理\n  实时防护级别 : 中\n  跳过文件大小 : 0MB\n"
      "  云查杀扫描方式 : 扫描所有文件\n  文件溯源开关 : 关闭\n  压缩包防护 : 关闭\n"
      "  跳过有密码的压缩文件 : 关闭\n  最大扫描层数 : 0\n  最大压缩包大小 : 0MB\n"
      "  监控的压缩包格式类型 : zip;rar;\n");
}

TEST_F(ConfigShow, AsksForTheFourDocumentsAndNothingElse) {
  answerDocuments({});
  executeLine("config show");
  std::vector<json::ConfigType> types;
  for (const ScriptedAgent::Call& call : agent_.calls()) {
    EXPECT_EQ(call.method, "getAVConfig");
    EXPECT_EQ(call.params["request_source"], json::toNumber(json::RequestSource::kConsole));
    EXPECT_EQ(call.params.size(), 2u);
    types.push_back(json::ConfigType{call.params["config_type"].asInt()});
  }
  EXPECT_THAT(types, ElementsAre(json::ConfigType::kScan, json::ConfigType::kQuarantine,
                                 json::ConfigType::kEngines, json::ConfigType::kRealTime));
}

TEST_F(ConfigShow, ADocumentThatDoesNotParsePrintsNothingAndTheNextGoesOn) {
  answerDocuments({{json::ConfigType::kScan, "{\"Common\":"},
                   {json::ConfigType::kQuarantine, "{}"},
                   {json::ConfigType::kEngines, ""},
                   {json::ConfigType::kRealTime, "\x1b[2J"}});
  EXPECT_EQ(executeLine("CONFIG SHOW").printed, "\n  隔离区配置 : ------------------------\n");
  EXPECT_EQ(CliConfigCommunication::action_scanconfig_show(), 0);
  EXPECT_EQ(CliConfigCommunication::action_engineconfig_show(), 0);
  EXPECT_EQ(CliConfigCommunication::action_realprotectconfig_show(), 0);
  EXPECT_EQ(
      testsupport::outputOf([] { EXPECT_EQ(CliConfigCommunication::action_isolationconfig_show(), 1); }),
      "\n  隔离区配置 : ------------------------\n");
}

TEST_F(ConfigShow, AnErrorOrAnotherKindIsLoggedAndGivesOneAllTheSame) {
  using Show = int (*)();
  const std::pair<const char*, Show> printers[] = {
      {"action_scanconfig_show", CliConfigCommunication::action_scanconfig_show},
      {"action_isolationconfig_show", CliConfigCommunication::action_isolationconfig_show},
      {"action_engineconfig_show", CliConfigCommunication::action_engineconfig_show},
      {"action_realprotectconfig_show", CliConfigCommunication::action_realprotectconfig_show}};
  for (const auto& [name, show] : printers) {
    agent_.answerError("getAVConfig", -32099, "no settings today");
    EXPECT_EQ(testsupport::outputOf([show = show] { EXPECT_EQ(show(), 1); }), "") << name;
    EXPECT_THAT(
        debugLog(),
        HasSubstr("ERROR command/config/comm/send/CliConfigCommunication:" + std::string(name) + ":"));
  }
  EXPECT_THAT(debugLog(), HasSubstr("no settings today"));
  for (const char* answer : {"{}", "[]", "7", "true", "null"}) {
    agent_.answer("getAVConfig", jsonOf(answer));
    EXPECT_EQ(executeLine("CONFIG SHOW").printed, "") << answer;
  }
}

TEST_F(ConfigShow, AnAgentThatDiesHalfWayLeavesWhatWasPrinted) {
  agent_.answerWith("getAVConfig", [](const Json::Value& params) -> Json::Value {
    if (params["config_type"] == json::toNumber(json::ConfigType::kEngines)) {
      throw ScriptedAgent::Death{};
    }
    return "{}";
  });
  const Executed executed = executeLine("CONFIG SHOW");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "\n\n  隔离区配置 : ------------------------\n");
  EXPECT_THAT(debugLog(), HasSubstr(":action_realprotectconfig_show:"));
}

TEST_F(ConfigShow, AnAgentThatNeverAnswersPrintsNothing) {
  keepSilentAt("getAVConfig");
  const Executed executed = executeLine("CONFIG SHOW");
  EXPECT_EQ(executed.result, 0);
  EXPECT_EQ(executed.printed, "");
}

TEST_F(ConfigShow, TheDocumentIsWrittenToTheDebugLog) {
  answerDocuments({{json::ConfigType::kScan, R"({"Common":{}})"}});
  executeLine("CONFIG SHOW");
  EXPECT_THAT(debugLog(), HasSubstr(R"(get config {"Common":{}})"));
}
