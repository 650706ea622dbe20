#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>

#include "AgentCommand.h"
#include "command/config/ConfigDisplay.h"
#include "command/config/comm/send/CliConfigCommunication.h"

using command::SettingRows;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::ScriptedAgent;

namespace {

using Build = SettingRows (*)(const Json::Value& document);
constexpr Build kScan = command::scanSettingRows;
constexpr Build kQuarantine = command::quarantineSettingRows;
constexpr Build kEngine = command::engineSettingRows;
constexpr Build kRealProtect = command::realProtectSettingRows;

/// The key's value as JSON ("" for an absent key), and what is shown of it.
struct Value {
  const char* json;
  const char* shown;
};
using Values = std::vector<Value>;

const Values kSwitch = {
    {"true", "开启"},  {"false", "关闭"}, {"1", "开启"},      {"0", "关闭"},           {"-1", "开启"},
    {"7", "开启"},     {"", "关闭"},      {"null", "关闭"},   {"[]", "关闭"},          {"{}", "关闭"},
    {"\"1\"", "开启"}, {"\"0\"", "关闭"}, {"\"on\"", "关闭"}, {"99999999999", "关闭"},
};
const Values kCount = {
    {"0", "0"},           {"8", "8"},
    {"-5", "-5"},         {"", "0"},
    {"null", "0"},        {"\"12\"", "12"},
    {"\"12MB\"", "12"},   {"\"x\"", "0"},
    {"[1]", "0"},         {"{}", "0"},
    {"99999999999", "0"}, {"\"99999999999\"", "2147483647"},
    {"true", "1"},        {"2147483647", "2147483647"},
};
const Values kFileType = {{"1", "全部文件"}, {"2", "仅程序及文档"},     {"0", "全部文件"}, {"3", "全部文件"},
                          {"", "全部文件"},  {"\"2\"", "仅程序及文档"}, {"[]", "全部文件"}};
const Values kFixMethod = {{"0", "自动处理"}, {"1", "手动处理"}, {"2", "仅上报不处理"},
                           {"3", "自动处理"}, {"", "自动处理"},  {"\"2\"", "仅上报不处理"},
                           {"-1", "自动处理"}};
const Values kHandleAction = {{"0", "清除"},   {"1", "删除"}, {"2", "隔离"},     {"3", "不处理"},
                              {"7", "不处理"}, {"", "清除"},  {"\"1\"", "删除"}, {"-1", "不处理"}};
const Values kMemRisk = {{"0", "忽略"}, {"1", "终止"}, {"5", "未知"}, {"", "忽略"}, {"\"1\"", "终止"}};
const Values kCloudScan = {{"0", "扫描所有文件"},
                           {"1", "扫描活跃文件"},
                           {"2", "扫描所有文件"},
                           {"", "扫描所有文件"},
                           {"\"1\"", "扫描活跃文件"}};
const Values kLevel = {{"0", "高"}, {"1", "中"}, {"2", "低"}, {"3", "高"}, {"", "高"}, {"\"2\"", "低"}};
const Values kTrace = {{"1", "开启"}, {"0", "关闭"},    {"2", "关闭"},
                       {"", "关闭"},  {"true", "开启"}, {"\"1\"", "开启"}};
const Values kFormats = {{R"(["zip","rar"])", "zip;rar;"},
                         {"[]", ""},
                         {"", ""},
                         {"\"zip\"", ""},
                         {"null", ""},
                         {"{}", ""},
                         {"7", ""},
                         {R"(["zip",7,{},null])", "zip;7;;;"},
                         {R"(["a\u001b[2J\nb"])", "a\\x1b[2J\\nb;"}};

Values withUnit(const Values& counts, const char* unit) {
  static std::deque<std::string> texts;
  Values values;
  for (const Value& count : counts) {
    texts.push_back(std::string(count.shown) + unit);
    values.push_back({count.json, texts.back().c_str()});
  }
  return values;
}

struct Row {
  const char* name;
  Build build;
  const char* section;
  const char* key;
  const char* label;
  Values values;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.section << "/" << row.key;
}

const Row kRows[] = {
    {"ScanNetworkmapScan", kScan, "Common", "NetworkmapScan", "扫描网络映射驱动器", kSwitch},
    {"ScanAntiInfection", kScan, "Common", "AntiInfection", "防感染模式", kSwitch},
    {"ScanSkipSystemRepair", kScan, "Common", "SkipSystemRepair", "跳过系统修复项", kSwitch},
    {"ScanScanFileType", kScan, "Common", "ScanFileType", "扫描文件类型", kFileType},
    {"ScanFixMethod", kScan, "Common", "FixMethod", "威胁处理方式", kFixMethod},
    {"ScanHandleAction", kScan, "Common", "HandleAction", "威胁处置行为", kHandleAction},
    {"ScanScanWithCache", kScan, "Common", "ScanWithCache", "扫描缓存加速", kSwitch},
    {"ScanMemCheck", kScan, "Common", "MemCheck", "活体扫描开关", kSwitch},
    {"ScanFixMethodMemRisk", kScan, "Common", "FixMethod_MemRisk", "风险进程处理方式", kMemRisk},
    {"ScanSkipSize", kScan, "Common", "SkipSize", "跳过文件大小", withUnit(kCount, "MB")},
    {"ScanParallelism", kScan, "Common", "Parallelism", "扫描并行度", kCount},
    {"ScanCloudScanType", kScan, "Common", "CloudScanType", "云查杀扫描方式", kCloudScan},
    {"ScanCompressedFlag", kScan, "Compressed", "Flag", "扫描压缩包", kSwitch},
    {"ScanCompressedLayer", kScan, "Compressed", "Layer", "最大扫描层数", kCount},
    {"ScanCompressedFileSize", kScan, "Compressed", "FileSize", "最大压缩包大小", withUnit(kCount, "MB")},
    {"ScanCompressedFormat", kScan, "Compressed", "Format", "扫描压缩包格式类型", kFormats},
    {"QuarantineSizeLimit", kQuarantine, "Common", "SizeLimit", "隔离区空间大小", withUnit(kCount, "GB")},
    {"QuarantineAutoClean", kQuarantine, "AutoClean", "Flag", "隔离区自动清理", kSwitch},
    {"EngineHc", kEngine, "MultiEngines", "HCengine", "鸿隼引擎(病毒查杀)", kSwitch},
    {"EngineHcRp", kEngine, "MultiEngines", "HCengineRP", "鸿隼引擎(实时防护)", kSwitch},
    {"EngineUmb", kEngine, "MultiEngines", "UMBengine", "UMB引擎(病毒查杀)", kSwitch},
    {"EngineUmbRp", kEngine, "MultiEngines", "UMBengineRP", "UMB引擎(实时防护)", kSwitch},
    {"EngineIxo", kEngine, "MultiEngines", "IXOengine", "IXO引擎(病毒查杀)", kSwitch},
    {"EngineIxoRp", kEngine, "MultiEngines", "IXOengineRP", "IXO引擎(实时防护)", kSwitch},
    {"EngineRda", kEngine, "MultiEngines", "RDAengine", "RDA引擎(病毒查杀)", kSwitch},
    {"EngineRdaRp", kEngine, "MultiEngines", "RDAengineRP", "RDA引擎(实时防护)", kSwitch},
    {"EngineRdaOld", kEngine, "MultiEngines", "RDAOLDengine", "RDA引擎(旧模型)(病毒查杀)", kSwitch},
    {"EngineRdaOldRp", kEngine, "MultiEngines", "RDAOLDengineRP", "RDA引擎(旧模型)(实时防护)", kSwitch},
    {"EngineCloud", kEngine, "MultiEngines", "CloudEngine", "云引擎(病毒查杀)", kSwitch},
    {"EngineCloudRp", kEngine, "MultiEngines", "CloudEngineRP", "云引擎(实时防护)", kSwitch},
    {"RealProtectFlag", kRealProtect, "Common", "Flag", "系统实时防护", kSwitch},
    {"RealProtectAllowDelayStart", kRealProtect, "Common", "AllowDelayStart", "允许开机延时加载文件系统",
     kSwitch},
    {"RealProtectScanFileType", kRealProtect, "Common", "ScanFileType", "防护文件类型", kFileType},
    {"RealProtectFixMethod", kRealProtect, "Common", "FixMethod", "威胁处理方式", kFixMethod},
    {"RealProtectProtectLevel", kRealProtect, "Common", "ProtectLevel", "实时防护级别", kLevel},
    {"RealProtectSkipSize", kRealProtect, "Common", "SkipSize", "跳过文件大小", withUnit(kCount, "MB")},
    {"RealProtectCloudScanType", kRealProtect, "Common", "CloudScanType", "云查杀扫描方式", kCloudScan},
    {"RealProtectFileTraceSourceType", kRealProtect, "Common", "FileTraceSourceType", "文件溯源开关", kTrace},
    {"RealProtectCompressedFlag", kRealProtect, "Compressed", "Flag", "压缩包防护", kSwitch},
    {"RealProtectCompressedSkipPass", kRealProtect, "Compressed", "SkipPass", "跳过有密码的压缩文件",
     kSwitch},
    {"RealProtectCompressedLayer", kRealProtect, "Compressed", "Layer", "最大扫描层数", kCount},
    {"RealProtectCompressedFileSize", kRealProtect, "Compressed", "FileSize", "最大压缩包大小",
     withUnit(kCount, "MB")},
    {"RealProtectCompressedFormat", kRealProtect, "Compressed", "Format", "监控的压缩包格式类型", kFormats},
};

class SettingRow : public testing::TestWithParam<Row> {};

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
  void answerDocuments(const std::map<int, std::string>& documents) {
    agent_.answerWith("getAVConfig", [documents](const Json::Value& params) -> Json::Value {
      const auto found = documents.find(params["config_type"].asInt());
      return found == documents.end() ? "" : found->second;
    });
  }
};

}  // namespace

TEST_P(SettingRow, ShowsEachValue) {
  const Row& row = GetParam();
  for (const Value& value : row.values) {
    Json::Value document;
    document[row.section] = Json::Value(Json::objectValue);
    if (*value.json != '\0') {
      Json::Value wrapped = jsonOf(std::string("{\"v\":") + value.json + "}");
      document[row.section][row.key] = wrapped["v"];
    }
    EXPECT_EQ(shown(row.build(document), row.label), value.shown) << row.key << " = " << value.json;
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, SettingRow, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

TEST(SettingsDisplay, ScanRowsStandInTheirOrder) {
  EXPECT_THAT(labelsOf(kScan(jsonOf(R"({"Compressed":{},"Common":{}})"))),
              ElementsAre("基础扫描配置", "扫描网络映射驱动器", "防感染模式", "跳过系统修复项",
                          "扫描文件类型", "威胁处理方式", "威胁处置行为", "扫描缓存加速", "活体扫描开关",
                          "风险进程处理方式", "跳过文件大小", "扫描并行度", "云查杀扫描方式", "扫描压缩包",
                          "最大扫描层数", "最大压缩包大小", "扫描压缩包格式类型"));
}

TEST(SettingsDisplay, QuarantineRowsStandInTheirOrder) {
  EXPECT_THAT(labelsOf(kQuarantine(jsonOf(R"({"AutoClean":{},"Common":{}})"))),
              ElementsAre("隔离区配置", "隔离区空间大小", "隔离区自动清理", "自动清理方式"));
}

TEST(SettingsDisplay, EngineRowsStandInTheirOrder) {
  EXPECT_THAT(labelsOf(kEngine(jsonOf(R"({"MultiEngines":{},"Cloud":{}})"))),
              ElementsAre("多引擎配置", "鸿隼引擎(病毒查杀)", "鸿隼引擎(实时防护)", "UMB引擎(病毒查杀)",
                          "UMB引擎(实时防护)", "IXO引擎(病毒查杀)", "IXO引擎(实时防护)", "RDA引擎(病毒查杀)",
                          "RDA引擎(实时防护)", "RDA引擎(旧模型)(病毒查杀)", "RDA引擎(旧模型)(实时防护)",
                          "云引擎(病毒查杀)", "云引擎(实时防护)", "基础云查杀服务地址", "RDA云查杀服务地址",
                          "云查杀类型"));
}

TEST(SettingsDisplay, RealProtectRowsStandInTheirOrder) {
  EXPECT_THAT(
      labelsOf(kRealProtect(jsonOf(R"({"Compressed":{},"Common":{}})"))),
      ElementsAre("实时防护", "系统实时防护", "允许开机延时加载文件系统", "防护文件类型", "威胁处理方式",
                  "实时防护级别", "跳过文件大小", "云查杀扫描方式", "文件溯源开关", "压缩包防护",
                  "跳过有密码的压缩文件", "最大扫描层数", "最大压缩包大小", "监控的压缩包格式类型"));
}

TEST(SettingsDisplay, TheTitleStandsBesideTwentyFourHyphens) {
  EXPECT_EQ(shown(kScan(jsonOf(R"({"Common":{}})")), "基础扫描配置"), kTitleRule);
  EXPECT_EQ(shown(kQuarantine(jsonOf("{}")), "隔离区配置"), kTitleRule);
  EXPECT_EQ(shown(kEngine(jsonOf(R"({"MultiEngines":{}})")), "多引擎配置"), kTitleRule);
  EXPECT_EQ(shown(kRealProtect(jsonOf(R"({"Common":{}})")), "实时防护"), kTitleRule);
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
      {{0,
        R"({"Common":{"FixMethod":2,"SkipSize":50,"Parallelism":4,"ScanWithCache":true,"HandleAction":7}})"},
       {2,
        R"({"Common":{"SizeLimit":10},"AutoClean":{"Flag":true,"CleanType":0,"CleanTime":30,"CleanUnit":2}})"},
       {4, R"({"MultiEngines":{"HCengine":true},"Cloud":{"Type":3}})"},
       {1, R"({"Common":{"Flag":true,"ProtectLevel":1},"Compressed":{"Format":["zip","rar"]}})"}});
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
  std::vector<int> types;
  for (const ScriptedAgent::Call& call : agent_.calls()) {
    EXPECT_EQ(call.method, "getAVConfig");
    EXPECT_EQ(call.params["request_source"], 1);
    EXPECT_EQ(call.params.size(), 2u);
    types.push_back(call.params["config_type"].asInt());
  }
  EXPECT_THAT(types, ElementsAre(0, 2, 4, 1));
}

TEST_F(ConfigShow, ADocumentThatDoesNotParsePrintsNothingAndTheNextGoesOn) {
  answerDocuments({{0, "{\"Common\":"}, {2, "{}"}, {4, ""}, {1, "\x1b[2J"}});
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
    if (params["config_type"] == 4) {
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
  answerDocuments({{0, R"({"Common":{}})"}});
  executeLine("CONFIG SHOW");
  EXPECT_THAT(debugLog(), HasSubstr(R"(get config {"Common":{}})"));
}
