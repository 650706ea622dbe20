// Every line of CONFIG MODIFY, from the console as it is installed to the agent, and back on CONFIG SHOW.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "e2e/AgentTree.h"
#include "json/CppJson.h"
#include "support/ConfigLines.h"
#include "support/TestNames.h"

namespace {

using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using testsupport::AgentTree;
using testsupport::Change;
using testsupport::kConfigLines;
using testsupport::kNothingSent;
using testsupport::PeerConsole;

/// A row of CONFIG SHOW: the key it displays, its label, and the text of each value that a line sets.
struct ShownSetting {
  int configType;
  const char* section;
  const char* key;
  const char* label;
  std::map<std::string, std::string> texts;
};

// clang-format off
const std::vector<ShownSetting>& shownSettings() {
  static const std::vector<ShownSetting> rows = {
      {0, "Common", "AntiInfection", "防感染模式", {{"false", "关闭"}, {"true", "开启"}}},
      {0, "Common", "MemCheck", "活体扫描开关", {{"false", "关闭"}, {"true", "开启"}}},
      {0, "Common", "ScanWithCache", "扫描缓存加速", {{"false", "关闭"}, {"true", "开启"}}},
      {0, "Common", "FixMethod", "威胁处理方式", {{"0", "自动处理"}, {"1", "手动处理"}, {"2", "仅上报不处理"}}},
      {0, "Common", "FixMethod_MemRisk", "风险进程处理方式", {{"0", "忽略"}, {"1", "终止"}}},
      {0, "Common", "ScanFileType", "扫描文件类型", {{"1", "全部文件"}, {"2", "仅程序及文档"}}},
      {0, "Common", "SkipSize", "跳过文件大小", {{"8", "8MB"}}},
      {0, "Common", "Parallelism", "扫描并行度", {{"8", "8"}}},
      {0, "Common", "CloudScanType", "云查杀扫描方式", {{"0", "扫描所有文件"}, {"1", "扫描活跃文件"}}},
      {0, "Compressed", "Flag", "扫描压缩包", {{"false", "关闭"}, {"true", "开启"}}},
      {0, "Compressed", "Layer", "最大扫描层数", {{"8", "8"}}},
      {0, "Compressed", "FileSize", "最大压缩包大小", {{"8", "8MB"}}},
      {1, "Common", "FixMethod", "威胁处理方式", {{"0", "自动处理"}, {"1", "手动处理"}, {"2", "仅上报不处理"}}},
      {1, "Common", "ProtectLevel", "实时防护级别", {{"0", "高"}, {"1", "中"}, {"2", "低"}}},
      {1, "Common", "ScanFileType", "防护文件类型", {{"1", "全部文件"}, {"2", "仅程序及文档"}}},
      {1, "Common", "SkipSize", "跳过文件大小", {{"8", "8MB"}}},
      {1, "Common", "Flag", "系统实时防护", {{"false", "关闭"}, {"true", "开启"}}},
      {1, "Common", "CloudScanType", "云查杀扫描方式", {{"0", "扫描所有文件"}, {"1", "扫描活跃文件"}}},
      {1, "Common", "FileTraceSourceType", "文件溯源开关", {{"0", "关闭"}, {"1", "开启"}}},
      {1, "Compressed", "Flag", "压缩包防护", {{"false", "关闭"}, {"true", "开启"}}},
      {1, "Compressed", "SkipPass", "跳过有密码的压缩文件", {{"false", "关闭"}, {"true", "开启"}}},
      {1, "Compressed", "Layer", "最大扫描层数", {{"8", "8"}}},
      {1, "Compressed", "FileSize", "最大压缩包大小", {{"8", "8MB"}}},
      {4, "MultiEngines", "HCengine", "鸿隼引擎(病毒查杀)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "HCengineRP", "鸿隼引擎(实时防护)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "UMBengine", "UMB引擎(病毒查杀)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "UMBengineRP", "UMB引擎(实时防护)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "IXOengine", "IXO引擎(病毒查杀)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "IXOengineRP", "IXO引擎(实时防护)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "RDAengine", "RDA引擎(病毒查杀)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "RDAengineRP", "RDA引擎(实时防护)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "RDAOLDengine", "RDA引擎(旧模型)(病毒查杀)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "RDAOLDengineRP", "RDA引擎(旧模型)(实时防护)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "CloudEngine", "云引擎(病毒查杀)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "MultiEngines", "CloudEngineRP", "云引擎(实时防护)", {{"false", "关闭"}, {"true", "开启"}}},
      {4, "Cloud", "Type", "云查杀类型", {{"0", "直接连接公有云"}}},
  };
  return rows;
}
// clang-format on

// How each type's page begins, in the order of the display.
constexpr std::pair<int, const char*> kPages[] = {
    {0, "  基础扫描配置 : "}, {2, "  隔离区配置 : "}, {4, "  多引擎配置 : "}, {1, "  实时防护 : "}};

Json::Value parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(CppJson::LoadJsonString(text, value)) << text;
  return value;
}

/// The part of the display that is one type's.
std::string pageOf(const std::string& shown, int configType) {
  const auto* page = std::find_if(std::begin(kPages), std::end(kPages),
                                  [&](const auto& p) { return p.first == configType; });
  const std::size_t begin = shown.find(page->second);
  if (begin == std::string::npos) {
    return "";
  }
  const auto* next = page + 1;
  return shown.substr(begin, next == std::end(kPages) ? std::string::npos : shown.find(next->second) - begin);
}

/// One key that a line changes.
struct ChangedKey {
  std::string section;
  std::string key;
  Json::Value value;
};

std::vector<ChangedKey> changedBy(const Change& line) {
  std::vector<ChangedKey> keys;
  if (line.configType == kNothingSent) {
    return keys;
  }
  const Json::Value change = parsed(line.text);
  for (const std::string& section : change.getMemberNames()) {
    if (change[section].isObject()) {
      for (const std::string& key : change[section].getMemberNames()) {
        keys.push_back({section, key, change[section][key]});
      }
    }
  }
  return keys;
}

const ShownSetting* shownAs(int configType, const ChangedKey& key) {
  for (const ShownSetting& row : shownSettings()) {
    if (row.configType == configType && key.section == row.section && key.key == row.key) {
      return &row;
    }
  }
  return nullptr;
}

class ConfigLineToTheAgent : public ::testing::TestWithParam<Change> {
 protected:
  std::map<int, Json::Value> documents() {
    PeerConsole peer(tree);
    std::map<int, Json::Value> found;
    for (const auto& page : kPages) {
      Json::Value request(Json::objectValue);
      request["config_type"] = page.first;
      request["request_source"] = 1;
      found[page.first] = parsed(peer.call("getAVConfig", request).asString());
    }
    return found;
  }
  /// Gives each key that the line changes another value, so that there is something to change.
  void prepareFor(const Change& line) {
    PeerConsole peer(tree);
    for (const ChangedKey& key : changedBy(line)) {
      const std::vector<Json::Value> others = key.value.isBool()
                                                  ? std::vector<Json::Value>{!key.value.asBool()}
                                                  : std::vector<Json::Value>{1, 2, 0};
      EXPECT_TRUE(std::any_of(others.begin(), others.end(), [&](const Json::Value& other) {
        return other != key.value && set(peer, line.configType, {key.section, key.key, other});
      })) << key.key;
    }
  }
  std::string prompt(const std::string& lines) {
    const auto console = tree.console("tavcli", {});
    console->write(lines);
    console->closeInput();
    EXPECT_EQ(0, console->wait());
    EXPECT_EQ("", console->err());
    return console->out();
  }

  AgentTree tree;

 private:
  static bool set(PeerConsole& peer, int configType, const ChangedKey& key) {
    Json::Value change(Json::objectValue);
    change[key.section][key.key] = key.value;
    std::string text;
    CppJson::WriteJsonToString(change, text, 1);
    Json::Value request(Json::objectValue);
    request["config_str"] = text;
    request["config_type"] = configType;
    request["request_source"] = 1;
    return peer.call("setAVConfig", request).asBool();
  }
};

TEST_P(ConfigLineToTheAgent, ChangesTheKeysItNamesAloneAndIsShown) {
  const Change& line = GetParam();
  prepareFor(line);
  std::map<int, Json::Value> expected = documents();
  const std::string page =
      pageOf(prompt(std::string(line.line) + "\nCONFIG SHOW\n"), std::max(line.configType, 0));
  ASSERT_NE("", page);
  for (const ChangedKey& key : changedBy(line)) {
    Json::Value& value = expected[line.configType][key.section][key.key];
    EXPECT_NE(key.value, value);
    value = key.value;
    if (const ShownSetting* row = shownAs(line.configType, key)) {
      EXPECT_THAT(page, HasSubstr(std::string("  ") + row->label + " : " +
                                  row->texts.at(key.value.asString()) + "\n"));
    }
  }
  EXPECT_EQ(expected, documents()) << tree.log();
}

INSTANTIATE_TEST_SUITE_P(EndNodes, ConfigLineToTheAgent, ::testing::ValuesIn(kConfigLines),
                         [](const auto& row) { return testsupport::testNameOf(row.param.line); });

TEST(ConfigLines, ChangeOnlyTwoKeysThatAreNotDisplayed) {
  std::vector<std::string> notShown;
  for (const Change& line : kConfigLines) {
    for (const ChangedKey& key : changedBy(line)) {
      if (shownAs(line.configType, key) == nullptr) {
        notShown.push_back(std::string(line.line) + ": " + key.key);
      }
    }
  }
  EXPECT_THAT(notShown, UnorderedElementsAre("CONFIG MODIFY WATCHER HANDLING AUTO: HandleAction",
                                             "CONFIG MODIFY WATCHER HANDLING UPLOAD: HandleAction",
                                             "CONFIG MODIFY WATCHER SCANCACHE ON: ScanWithCache",
                                             "CONFIG MODIFY WATCHER SCANCACHE OFF: ScanWithCache"));
}

}  // namespace
