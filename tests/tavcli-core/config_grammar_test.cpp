#include <gtest/gtest.h>

#include <cstdint>

#include "command/config/TavCliCmdConfig.h"
#include "command/config/TavCliCmdConfigExec.h"
#include "support/BuiltGrammar.h"
#include "support/Json.h"

using testsupport::jsonOf;

namespace {

class ConfigTask : public testsupport::GrammarTask<TavCliCmdConfig, TavCliCmdConfigExec> {};

}  // namespace

TEST_F(ConfigTask, TheThirdHandlingIsBuiltButCannotBeTyped) {
  const struct {
    const char* path;
    const char* writes;
  } cases[] = {{"CONFIG MODIFY SCAN HANDLING MANUAL", R"({"FixMethod":1})"},
               {"CONFIG MODIFY WATCHER HANDLING MANUAL", R"({"FixMethod":1,"HandleAction":0})"}};
  for (const auto& row : cases) {
    const CliNodeInfo* const node = this->row(row.path);
    ASSERT_NE(node, nullptr) << row.path;
    EXPECT_EQ(tree_.find(node), nullptr) << row.path;
    EXPECT_EQ(built(row.path).settings, Json::Value()) << row.path;
    EXPECT_EQ(node->handler(*node, ""), 1);
    EXPECT_EQ(pending()->settings, jsonOf(row.writes));
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
  expectHandlersGiveZeroWithoutATask("8");
}

TEST_F(ConfigTask, HandlersGiveOneWithATaskAndALaterValueReplacesAnEarlierOne) {
  built("CONFIG MODIFY SCAN");
  const CliNodeInfo* const on = row("CONFIG MODIFY SCAN INFECTION ON");
  const CliNodeInfo* const off = row("CONFIG MODIFY SCAN INFECTION OFF");
  EXPECT_EQ(on->handler(*on, ""), 1);
  EXPECT_EQ(off->handler(*off, ""), 1);
  EXPECT_EQ(pending()->settings, jsonOf(R"({"AntiInfection":false})"));
}

TEST_F(ConfigTask, OptionKeywordsAndTheSkipActiveChoicesHaveNoHandler) {
  for (const char* path : {"CONFIG MODIFY", "CONFIG MODIFY COMMON RESMONITOR", "CONFIG MODIFY SCAN HANDLING",
                           "CONFIG MODIFY ENGINE IXO", "CONFIG MODIFY ENGINE IXO SCAN",
                           "CONFIG MODIFY WATCHER SKIPACTIVE ON", "CONFIG MODIFY WATCHER SKIPACTIVE OFF"}) {
    EXPECT_FALSE(row(path)->handler) << path;
  }
}
