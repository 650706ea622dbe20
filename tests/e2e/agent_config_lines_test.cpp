// Every line of CONFIG MODIFY, from the installed console to the agent, and back by CONFIG SHOW.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "e2e/AgentTree.h"
#include "json/Values.h"
#include "support/ConfigLines.h"
#include "support/Json.h"
#include "support/TestNames.h"

namespace {

using json::ConfigType;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using testsupport::AgentTree;
using testsupport::Change;
using testsupport::jsonOf;
using testsupport::jsonText;
using testsupport::PeerConsole;
using testsupport::ShownSetting;
using testsupport::ShownValue;

/// How each page begins, in the order of the display.
constexpr std::pair<ConfigType, const char*> kPages[] = {{ConfigType::kScan, "  基础扫描配置 : "},
                                                         {ConfigType::kQuarantine, "  隔离区配置 : "},
                                                         {ConfigType::kEngines, "  多引擎配置 : "},
                                                         {ConfigType::kRealTime, "  实时防护 : "}};

/// The page of the display that shows the document.
std::string pageOf(const std::string& shown, ConfigType document) {
  const auto* page =
      std::find_if(std::begin(kPages), std::end(kPages), [&](const auto& p) { return p.first == document; });
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
  if (!line.document) {
    return keys;
  }
  const Json::Value change = jsonOf(line.text);
  for (const std::string& section : change.getMemberNames()) {
    if (change[section].isObject()) {
      for (const std::string& key : change[section].getMemberNames()) {
        keys.push_back({section, key, change[section][key]});
      }
    }
  }
  return keys;
}

/// The line of CONFIG SHOW for the key; nothing for a key that CONFIG SHOW does not display.
std::optional<std::string> shownAs(ConfigType document, const ChangedKey& key) {
  if (key.section == "Cloud") {
    return "  云查杀类型 : 直接连接公有云\n";
  }
  for (const ShownSetting& row : testsupport::shownSettings()) {
    if (row.document == document && key.section == row.section && key.key == row.key) {
      for (const ShownValue& value : testsupport::shownValues()) {
        if (value.kind == row.kind && value.json == jsonText(key.value)) {
          return "  " + row.label + " : " + value.text + "\n";
        }
      }
    }
  }
  return std::nullopt;
}

class ConfigLineToTheAgent : public ::testing::TestWithParam<Change> {
 protected:
  std::map<ConfigType, Json::Value> documents() {
    PeerConsole peer(tree);
    std::map<ConfigType, Json::Value> found;
    for (const auto& page : kPages) {
      Json::Value request(Json::objectValue);
      request["config_type"] = json::toNumber(page.first);
      request["request_source"] = json::toNumber(json::RequestSource::kConsole);
      found[page.first] = jsonOf(peer.call("getAVConfig", request).asString());
    }
    return found;
  }
  /// Gives each key of the line another value first, so that the line changes the key.
  void prepareFor(const Change& line) {
    PeerConsole peer(tree);
    for (const ChangedKey& key : changedBy(line)) {
      const std::vector<Json::Value> others = key.value.isBool()
                                                  ? std::vector<Json::Value>{!key.value.asBool()}
                                                  : std::vector<Json::Value>{1, 2, 0};
      EXPECT_TRUE(std::any_of(others.begin(), others.end(), [&](const Json::Value& other) {
        return other != key.value && set(peer, *line.document, {key.section, key.key, other});
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
  static bool set(PeerConsole& peer, ConfigType document, const ChangedKey& key) {
    Json::Value change(Json::objectValue);
    change[key.section][key.key] = key.value;
    Json::Value request(Json::objectValue);
    request["config_str"] = jsonText(change);
    request["config_type"] = json::toNumber(document);
    request["request_source"] = json::toNumber(json::RequestSource::kConsole);
    return peer.call("setAVConfig", request).asBool();
  }
};

TEST_P(ConfigLineToTheAgent, ChangesTheKeysItNamesAloneAndIsShown) {
  const Change& line = GetParam();
  prepareFor(line);
  std::map<ConfigType, Json::Value> expected = documents();
  const std::string page =
      pageOf(prompt(line.line + "\nCONFIG SHOW\n"), line.document.value_or(ConfigType::kScan));
  ASSERT_NE("", page);
  for (const ChangedKey& key : changedBy(line)) {
    Json::Value& value = expected[*line.document][key.section][key.key];
    EXPECT_NE(key.value, value);
    value = key.value;
    EXPECT_THAT(page, HasSubstr(shownAs(*line.document, key).value_or("")));
  }
  EXPECT_EQ(expected, documents()) << tree.log();
}

INSTANTIATE_TEST_SUITE_P(EndNodes, ConfigLineToTheAgent, ::testing::ValuesIn(testsupport::configLines()),
                         [](const auto& row) { return testsupport::testNameOf(row.param.line); });

TEST(ConfigLines, ChangeOnlyTwoKeysThatAreNotDisplayed) {
  std::vector<std::string> notShown;
  for (const Change& line : testsupport::configLines()) {
    for (const ChangedKey& key : changedBy(line)) {
      if (!shownAs(*line.document, key)) {
        notShown.push_back(line.line + ": " + key.key);
      }
    }
  }
  EXPECT_THAT(notShown, UnorderedElementsAre("CONFIG MODIFY WATCHER HANDLING AUTO: HandleAction",
                                             "CONFIG MODIFY WATCHER HANDLING UPLOAD: HandleAction",
                                             "CONFIG MODIFY WATCHER SCANCACHE ON: ScanWithCache",
                                             "CONFIG MODIFY WATCHER SCANCACHE OFF: ScanWithCache"));
}

}  // namespace
