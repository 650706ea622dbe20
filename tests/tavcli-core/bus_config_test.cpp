#include <gtest/gtest.h>

#include "bin/BusConfig.h"
#include "json/CppJson.h"
#include "lunet/LogLevels.h"
#include "support/TempDir.h"

namespace {

using enum lunet::BusLogLevel;

struct Level {
  int file;
  lunet::BusLogLevel library;
};

class BusLogLevel : public testing::TestWithParam<Level> {};
TEST_P(BusLogLevel, IsTurnedRound) {
  EXPECT_EQ(lunet::busLevelOfFile(GetParam().file), GetParam().library);
}
const Level kLevels[] = {{1, kEverything}, {2, kInfo}, {3, kWarning}, {4, kError}, {5, kError},
                         {6, kError},      {0, kOff},  {7, kOff},     {-1, kOff},  {1000, kOff}};
INSTANTIATE_TEST_SUITE_P(BusConfig, BusLogLevel, testing::ValuesIn(kLevels), [](const auto& row) {
  return row.param.file < 0 ? std::string("Minus1") : "File" + std::to_string(row.param.file);
});

class BusConfig : public testing::Test {
 protected:
  tavcli::ContainerConfig config_ = tavcli::containerConfigFor("/srv/tree/");

  Json::Value complete(const std::string& file) {
    Json::Value value;
    CppJson::LoadJsonString(file, value);
    return tavcli::completeBusConfig(value, config_);
  }
};

TEST_F(BusConfig, SaysWhereToLog) {
  const Json::Value value = complete("{}");
  EXPECT_EQ(value["log_path"].asString(), "/srv/tree/log//tavcli/tavcli.ipc.log");
  EXPECT_EQ(value["log_backup_path"].asString(), "/srv/tree/log//tavcli/backup");
  EXPECT_EQ(value["runtime_path"].asString(), "/srv/tree/");
}

TEST_F(BusConfig, OfAnEmptyNameUsesContainerAndTheGuid) {
  config_.name.clear();
  const Json::Value value = complete("{}");
  EXPECT_EQ(value["log_path"].asString(),
            "/srv/tree/log//container.A4F72BA6-6DE6-44D4-B955-5A880273427E/container.ipc.log");
  EXPECT_EQ(value["log_backup_path"].asString(),
            "/srv/tree/log//container.A4F72BA6-6DE6-44D4-B955-5A880273427E/backup");
}

TEST_F(BusConfig, WithoutALevelCountsAsThree) {
  EXPECT_EQ(complete("{}")["log_level"].asInt(), 1);
}

TEST_F(BusConfig, WithALevelOfAnotherKindCountsAsThree) {
  EXPECT_EQ(complete(R"({"log_level":"0"})")["log_level"].asInt(), 1);
}

TEST_F(BusConfig, LevelOf0IsPassedAsMinus1) {
  EXPECT_EQ(complete(R"({"log_level":0})")["log_level"].asInt(), -1);
}

TEST_F(BusConfig, LevelOf7IsPassedAsMinus1) {
  EXPECT_EQ(complete(R"({"log_level":7})")["log_level"].asInt(), -1);
}

TEST_F(BusConfig, KeepsTheFilesOtherKeys) {
  const Json::Value value = complete(R"({"group":"tav","connect_timeout_ms":50})");
  EXPECT_EQ(value["group"].asString(), "tav");
  EXPECT_EQ(value["connect_timeout_ms"].asInt(), 50);
}

TEST_F(BusConfig, OfAFileIsCompactText) {
  testsupport::TempDir dir;
  config_.busConfigFile = dir.write("cli_lunet.conf", "{\n  \"log_level\": 2\n}");
  const auto text = tavcli::readBusConfig(config_);
  ASSERT_TRUE(text);
  EXPECT_EQ(text->find("  "), std::string::npos);
  Json::Value value;
  ASSERT_TRUE(CppJson::LoadJsonString(*text, value));
  EXPECT_EQ(value["log_level"].asInt(), 2);
}

struct Broken {
  const char* name;
  const char* content;
};
class BrokenBusConfig : public testing::TestWithParam<Broken> {};
TEST_P(BrokenBusConfig, GivesNothing) {
  testsupport::TempDir dir;
  tavcli::ContainerConfig config = tavcli::containerConfigFor("/srv/tree/");
  config.busConfigFile = dir.write("cli_lunet.conf", GetParam().content);
  EXPECT_FALSE(tavcli::readBusConfig(config));
}
const Broken kBroken[] = {{"Empty", ""}, {"HalfAnObject", "{\"a\":"}, {"AList", "[]"}, {"AText", "\"x\""}};
INSTANTIATE_TEST_SUITE_P(BusConfig, BrokenBusConfig, testing::ValuesIn(kBroken),
                         [](const auto& row) { return row.param.name; });

TEST_F(BusConfig, OfAMissingFileGivesNothing) {
  config_.busConfigFile = "/nonexistent/cli_lunet.conf";
  EXPECT_FALSE(tavcli::readBusConfig(config_));
}

}  // namespace
