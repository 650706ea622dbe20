#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "AgentCommand.h"
#include "command/config/TavCliCmdConfig.h"
#include "command/config/TavCliCmdConfigExec.h"
#include "support/GrammarRows.h"

using testing::ElementsAre;
using testing::UnorderedElementsAreArray;
using testsupport::GrammarRowExpected;
using testsupport::outputOf;

namespace {

const GrammarRowExpected kRows[] = {
    {"CONFIG", "配置", "", 1, 1, 0},
    {"CONFIG SHOW", "显示配置信息", "", 1, 1, 0},
    {"CONFIG MODIFY", "修改配置", "", 1, 1, 0},
    {"CONFIG MODIFY COMMON", "基础设置", "", 1, 1, 0},
    {"CONFIG MODIFY COMMON RESMONITOR", "资源管理", "", 1, 0, 0},
    {"CONFIG MODIFY SCAN", "基础扫描设置", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_SCAN", "压缩包扫描设置", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER", "基础防护设置", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER", "压缩包监控设置", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE", "多引擎设置", "", 1, 1, 0},
    {"CONFIG MODIFY COMMON RESMONITOR APP", "程序资源阈值", "\"[int](5-100)\"", 1, 1, 1},
    {"CONFIG MODIFY COMMON RESMONITOR SYS", "系统资源阈值", "\"[int](5-100)\"", 1, 1, 1},
    {"CONFIG MODIFY COMMON RESMONITOR MEM", "程序内存资源阈值", "\"[int](5-4096)\"", 1, 1, 1},
    {"CONFIG MODIFY SCAN HANDLING", "默认处理方式", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN HANDLING AUTO", "系统自动处理", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN HANDLING UPLOAD", "仅上报不处理", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN INFECTION", "防感染模式", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN INFECTION ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN INFECTION OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN LIVESCANNIING", "活体扫描", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN LIVESCANNIING ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN LIVESCANNIING OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN PROCHANDLING", "风险进程默认处理方式", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN PROCHANDLING KILL", "终止", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN PROCHANDLING IGNORE", "忽略", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN SCANCACHE", "是否开启扫描缓存加速", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN SCANCACHE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN SCANCACHE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN FILETYPE", "扫描文件类型", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN FILETYPE ALL", "全部文件", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN FILETYPE COMMON", "仅程序和文档", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN SKIPSIZE", "跳过文件大小", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN SKIPSIZE SIZE", "大小", "\"[int]\"", 1, 1, 1},
    {"CONFIG MODIFY SCAN PARALLELISM", "扫描并行度", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN PARALLELISM COUNT", "并行度", "\"[int](2-64)\"", 1, 1, 1},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE", "云查杀扫描类型", "", 0, 0, 0},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE ALL", "扫描所有文件", "", 1, 1, 0},
    {"CONFIG MODIFY SCAN CLOUDSCANTYPE ACTIVE", "仅扫描活跃文件", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE", "是否扫描压缩包", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_SCAN LAYERACTIVE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_SCAN LAYER", "压缩包层数限制", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_SCAN LAYER DATA", "层数", "\"[int]\"", 1, 1, 1},
    {"CONFIG MODIFY COMPRESS_SCAN SIZE", "压缩包大小限制", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_SCAN SIZE DATA", "大小", "\"[int]\"", 1, 1, 1},
    {"CONFIG MODIFY WATCHER HANDLING", "默认处理方式", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER HANDLING AUTO", "系统自动处理", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER HANDLING UPLOAD", "仅上报不处理", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER LEVEL", "防护级别", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER LEVEL HIGH", "高", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER LEVEL MIDDLE", "中", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER LEVEL LOW", "低", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER FILETYPE", "防护文件类型", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER FILETYPE ALL", "全部文件", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER FILETYPE COMMON", "仅程序和文档", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER SKIPSIZE", "跳过文件大小", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER SKIPSIZE SIZE", "大小", "\"[int]\"", 1, 1, 1},
    {"CONFIG MODIFY WATCHER ACTIVE", "是否开启文件防护", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER ACTIVE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER ACTIVE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER SCANCACHE", "是否开启扫描缓存加速", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER SCANCACHE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER SCANCACHE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER SKIPACTIVE", "是否开启文件大小限制", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER SKIPACTIVE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER SKIPACTIVE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE", "云查杀扫描类型", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE ALL", "扫描所有文件", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER CLOUDSCANTYPE ACTIVE", "仅扫描活跃文件", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER TRACESOURCE", "文件溯源开关", "", 0, 0, 0},
    {"CONFIG MODIFY WATCHER TRACESOURCE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY WATCHER TRACESOURCE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE", "是否开启压缩包监控", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER ACTIVE OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER LAYER", "压缩包层数限制", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER LAYER DATA", "层数", "\"[int]\"", 1, 1, 1},
    {"CONFIG MODIFY COMPRESS_WATCHER SIZE", "压缩包大小限制", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER SIZE DATA", "大小", "\"[int]\"", 1, 1, 1},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP", "是否跳过含有密码的压缩包", "", 0, 0, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY COMPRESS_WATCHER PWDSKIP OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE IXO", "IXO脚本查杀引擎", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE IXO SCAN", "病毒查杀", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE IXO SCAN ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE IXO SCAN OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE IXO RP", "实时防护", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE IXO RP ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE IXO RP OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE UMB", "UMB启发式查杀引擎", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE UMB SCAN", "病毒查杀", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE UMB SCAN ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE UMB SCAN OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE UMB RP", "实时防护", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE UMB RP ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE UMB RP OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE HC", "鸿隼大数据查杀引擎", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE HC SCAN", "病毒查杀", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE HC SCAN ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE HC SCAN OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE HC RP", "实时防护", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE HC RP ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE HC RP OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA", "RDAII人工智能引擎", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE RDA SCAN", "病毒查杀", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE RDA SCAN ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA SCAN OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA RP", "实时防护", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE RDA RP ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA RP OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD", "RDA人工智能引擎（旧模型）", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN", "病毒查杀", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD SCAN OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD RP", "实时防护", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD RP ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE RDA_OLD RP OFF", "关闭", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE CLOUD", "云查杀引擎", "", 0, 0, 0},
    {"CONFIG MODIFY ENGINE CLOUD ON", "开启", "", 1, 1, 0},
    {"CONFIG MODIFY ENGINE CLOUD OFF", "关闭", "", 1, 1, 0},
};

class ConfigGrammarRow : public testing::TestWithParam<GrammarRowExpected> {};

class ConfigTask : public testing::Test {
 protected:
  ConfigTask() { module_.buildTree(&tree_); }
  ~ConfigTask() override { TavCliCompletion::instance().setPendingTask(nullptr); }
  const TavCliCmdConfigExec& built(const std::string& line) {
    outputOf([&] { tree_.parse(line); });
    return *TavCliCompletion::instance().pendingTaskAs<TavCliCmdConfigExec>();
  }
  TavCliCmdConfig module_;
  CliTree tree_;
};

}  // namespace

TEST_P(ConfigGrammarRow, IsInTheTree) {
  TavCliCmdConfig module;
  CliTree tree;
  module.buildTree(&tree);
  testsupport::expectRow(tree, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Rows, ConfigGrammarRow, testing::ValuesIn(kRows),
                         [](const auto& row) { return testsupport::testNameOf(row.param.path); });

TEST_F(ConfigTask, TheGrammarHoldsItsRowsAndNoOther) {
  std::vector<std::string> paths;
  std::transform(std::begin(kRows), std::end(kRows), std::back_inserter(paths),
                 [](const GrammarRowExpected& row) { return row.path; });
  EXPECT_THAT(testsupport::allPaths(tree_), UnorderedElementsAreArray(paths));
}

TEST_F(ConfigTask, OptionsStandInTheOrderOfTheTable) {
  const struct {
    const char* path;
    std::vector<std::string> children;
  } cases[] = {
      {"CONFIG", {"SHOW", "MODIFY"}},
      {"CONFIG MODIFY", {"COMMON", "SCAN", "COMPRESS_SCAN", "WATCHER", "COMPRESS_WATCHER", "ENGINE"}},
      {"CONFIG MODIFY COMMON RESMONITOR", {"APP", "SYS", "MEM"}},
      {"CONFIG MODIFY SCAN",
       {"HANDLING", "INFECTION", "LIVESCANNIING", "PROCHANDLING", "SCANCACHE", "FILETYPE", "SKIPSIZE",
        "PARALLELISM", "CLOUDSCANTYPE"}},
      {"CONFIG MODIFY SCAN HANDLING", {"AUTO", "UPLOAD"}},
      {"CONFIG MODIFY COMPRESS_SCAN", {"LAYERACTIVE", "LAYER", "SIZE"}},
      {"CONFIG MODIFY WATCHER",
       {"HANDLING", "LEVEL", "FILETYPE", "SKIPSIZE", "ACTIVE", "SCANCACHE", "SKIPACTIVE", "CLOUDSCANTYPE",
        "TRACESOURCE"}},
      {"CONFIG MODIFY WATCHER HANDLING", {"AUTO", "UPLOAD"}},
      {"CONFIG MODIFY WATCHER LEVEL", {"HIGH", "MIDDLE", "LOW"}},
      {"CONFIG MODIFY COMPRESS_WATCHER", {"ACTIVE", "LAYER", "SIZE", "PWDSKIP"}},
      {"CONFIG MODIFY ENGINE", {"IXO", "UMB", "HC", "RDA", "RDA_OLD", "CLOUD"}},
      {"CONFIG MODIFY ENGINE IXO", {"SCAN", "RP"}},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(testsupport::childrenOf(tree_, row.path), row.children) << row.path;
  }
}

TEST_F(ConfigTask, TheThirdHandlingIsBuiltButCannotBeTyped) {
  const struct {
    const char* path;
    const char* writes;
  } cases[] = {{"CONFIG MODIFY SCAN HANDLING MANUAL", R"({"FixMethod":1})"},
               {"CONFIG MODIFY WATCHER HANDLING MANUAL", R"({"FixMethod":1,"HandleAction":0})"}};
  for (const auto& row : cases) {
    const CliNodeInfo* const node = module_.grammar().find(row.path);
    ASSERT_NE(node, nullptr) << row.path;
    EXPECT_EQ(tree_.find(node), nullptr) << row.path;
    EXPECT_EQ(built(row.path).settings, Json::Value()) << row.path;
    EXPECT_EQ(node->handler(*node, ""), 1);
    EXPECT_EQ(TavCliCompletion::instance().pendingTaskAs<TavCliCmdConfigExec>()->settings,
              jsonOf(row.writes));
  }
}

TEST_F(ConfigTask, StartsWithoutSectionAndSettings) {
  const TavCliCmdConfigExec& task = built("CONFIG");
  EXPECT_EQ(task.section, -1);
  EXPECT_TRUE(task.settings.isNull());
}

TEST_F(ConfigTask, SectionKeywordsSetTheSection) {
  EXPECT_EQ(built("CONFIG SHOW").section, 0);
  EXPECT_EQ(built("CONFIG MODIFY").section, -1);
  EXPECT_EQ(built("CONFIG MODIFY COMMON").section, 1);
  EXPECT_EQ(built("CONFIG MODIFY SCAN").section, 2);
  EXPECT_EQ(built("CONFIG MODIFY COMPRESS_SCAN").section, 3);
  EXPECT_EQ(built("CONFIG MODIFY WATCHER").section, 4);
  EXPECT_EQ(built("CONFIG MODIFY COMPRESS_WATCHER").section, 5);
  EXPECT_EQ(built("CONFIG MODIFY ENGINE").section, 6);
}

TEST_F(ConfigTask, ResourceLimitsAreCollectedAsReals) {
  for (const auto& [word, key] : {std::pair{"APP", "PerformanceLocal"}, std::pair{"SYS", "PerformanceGlobal"},
                                  std::pair{"MEM", "MemoryLimitLocal"}}) {
    const Json::Value& settings =
        built("CONFIG MODIFY COMMON RESMONITOR " + std::string(word) + " 50").settings;
    ASSERT_TRUE(settings.isMember(key)) << word;
    EXPECT_EQ(settings[key].type(), Json::realValue) << word;
    EXPECT_EQ(settings[key].asDouble(), 50.0) << word;
    EXPECT_EQ(settings.size(), 1u) << word;
  }
}

TEST_F(ConfigTask, ATypedNumberIsItsLeadingDigits) {
  const struct {
    const char* typed;
    int number;
  } cases[] = {{"8", 8},
               {"0", 0},
               {"-5", -5},
               {"+7", 7},
               {"12abc", 12},
               {"abc", 0},
               {"1.9", 1},
               {"0x10", 0},
               {"100", 100},
               {"2147483647", 2147483647},
               {"-", 0},
               {"四", 0},
               {"007", 7},
               {"1e3", 1},
               {"-2147483648", INT32_MIN},
               {"99999999999", INT32_MAX},
               {"-99999999999", INT32_MIN}};
  for (const auto& row : cases) {
    EXPECT_EQ(built("CONFIG MODIFY SCAN PARALLELISM COUNT " + std::string(row.typed)).settings["Parallelism"],
              row.number)
        << row.typed;
  }
}

TEST_F(ConfigTask, HandlersGiveZeroAndDoNothingWithoutATask) {
  TavCliCompletion::instance().setPendingTask(nullptr);
  for (const GrammarRowExpected& row : kRows) {
    const CliNodeInfo* const node = module_.grammar().find(row.path);
    if (node->handler && node->name != "CONFIG") {
      EXPECT_EQ(node->handler(*node, "8"), 0) << row.path;
    }
  }
}

TEST_F(ConfigTask, HandlersGiveOneWithATaskAndALaterValueReplacesAnEarlierOne) {
  built("CONFIG MODIFY SCAN");
  const CliNodeInfo* const on = module_.grammar().find("CONFIG MODIFY SCAN INFECTION ON");
  const CliNodeInfo* const off = module_.grammar().find("CONFIG MODIFY SCAN INFECTION OFF");
  EXPECT_EQ(on->handler(*on, ""), 1);
  EXPECT_EQ(off->handler(*off, ""), 1);
  EXPECT_EQ(TavCliCompletion::instance().pendingTaskAs<TavCliCmdConfigExec>()->settings,
            jsonOf(R"({"AntiInfection":false})"));
}

TEST_F(ConfigTask, OptionKeywordsAndTheSkipActiveChoicesHaveNoHandler) {
  for (const char* path : {"CONFIG MODIFY", "CONFIG MODIFY COMMON RESMONITOR", "CONFIG MODIFY SCAN HANDLING",
                           "CONFIG MODIFY ENGINE IXO", "CONFIG MODIFY ENGINE IXO SCAN",
                           "CONFIG MODIFY WATCHER SKIPACTIVE ON", "CONFIG MODIFY WATCHER SKIPACTIVE OFF"}) {
    EXPECT_FALSE(module_.grammar().find(path)->handler) << path;
  }
}
