#include <gtest/gtest.h>

#include <cstdlib>

#include "bin/LogSetup.h"
#include "json/CppJson.h"
#include "platform/CLog.h"
#include "platform/CLogDebug.h"
#include "support/DebugLogFile.h"
#include "support/TempDir.h"

namespace {

struct LevelRow {
  const char* name;
  const char* text;  ///< null: not set
  CLogLevel level;
};

class LevelOfTheEnvironment : public testing::TestWithParam<LevelRow> {};

TEST_P(LevelOfTheEnvironment, ComesFromTheEnvironment) {
  if (GetParam().text == nullptr) {
    unsetenv("CKORVIX_CLOG_LEVEL");
  } else {
    setenv("CKORVIX_CLOG_LEVEL", GetParam().text, 1);
  }
  EXPECT_TRUE(tavcli::initCLog());
  EXPECT_EQ(CLog::log_level(), GetParam().level);
}

const LevelRow kLevels[] = {
    {"UnsetGives3", nullptr, CLogLevel::kError},
    {"ZeroGives0", "0", CLogLevel::kDebug},
    {"OneGives1", "1", CLogLevel::kInfo},
    {"TwoGives2", "2", CLogLevel::kWarning},
    {"ThreeGives3", "3", CLogLevel::kError},
    {"SevenGives3", "7", CLogLevel::kError},
    {"NegativeGives3", "-1", CLogLevel::kError},
    {"ANonNumberGives3", "x1", CLogLevel::kError},
    {"EmptyGives3", "", CLogLevel::kError},
    {"BeyondTheRangeGives3", "99999999999999999999", CLogLevel::kError},
};
INSTANTIATE_TEST_SUITE_P(LogSetup, LevelOfTheEnvironment, testing::ValuesIn(kLevels),
                         [](const auto& row) { return row.param.name; });

class DebugLog : public testing::Test {
 protected:
  ~DebugLog() override { CLogDebug::Close(); }

  /// Runs initLog with that configuration file. Returns the standard output.
  std::string initWith(const std::string& file) {
    config_.name = "tavcli";
    config_.logDir = dir_.at("log/");
    config_.debugConfigFile = dir_.write("cli_debug.conf", file);
    return init();
  }
  std::string init() {
    testing::internal::CaptureStdout();
    result_ = tavcli::initLog(config_);
    return testing::internal::GetCapturedStdout();
  }
  std::string log() const { return testsupport::readFile(dir_.at("log/tavcli.log")); }
  std::string summary(int level, int size, int backups) const {
    return "=====initLog=====\nloglevel:" + std::to_string(level) + "\nlogSize:" + std::to_string(size) +
           "\nlogName:tavcli\nlogPath:" + dir_.at("log/") + "/\nlogBackupMaxNum:" + std::to_string(backups) +
           "\n";
  }

  testsupport::TempDir dir_;
  tavcli::ContainerConfig config_;
  bool result_ = false;
};

TEST_F(DebugLog, IsSetUpAsTheFileSaysAndTellsIt) {
  EXPECT_EQ(initWith(R"({"log_size":2000,"log_backup_max_num":2,"log_level":1})"), summary(1, 2000, 2));
  EXPECT_TRUE(result_);
  CLogDebug::LogPrintStr(LogLevel::kDebug, "file", "function", 7, "a record");
  EXPECT_NE(log().find("a record"), std::string::npos);
}

TEST_F(DebugLog, OfAnEmptyObjectHasTheDefaults) {
  EXPECT_EQ(initWith("{}"), summary(3, 1048576, 5));
  EXPECT_TRUE(result_);
}

TEST_F(DebugLog, OfATopLevelThatIsNoObjectHasTheDefaults) {
  EXPECT_EQ(initWith("[1,2]"), summary(3, 1048576, 5));
  EXPECT_TRUE(result_);
}

TEST_F(DebugLog, SizeGivenAsTextFallsBack) {
  EXPECT_EQ(initWith(R"({"log_size":"2000","log_level":2})"), summary(2, 1048576, 5));
}

TEST_F(DebugLog, NumbersThatAreNotIntegralFallBack) {
  EXPECT_EQ(initWith(R"({"log_size":20.5,"log_backup_max_num":true,"log_level":null})"),
            summary(3, 1048576, 5));
}

TEST_F(DebugLog, NumbersBeyondTheRangeFallBack) {
  EXPECT_EQ(initWith(R"({"log_size":99999999999})"), summary(3, 1048576, 5));
}

TEST_F(DebugLog, WithoutANameIsCalledTavcli) {
  initWith("{}");
  config_.name.clear();
  EXPECT_NE(init().find("\nlogName:tavcli\n"), std::string::npos);
}

TEST_F(DebugLog, WithoutItsFileFails) {
  config_.debugConfigFile = dir_.at("absent.conf");
  EXPECT_EQ(init(), "No valid logdebug configuration file " + dir_.at("absent.conf") + "\n");
  EXPECT_FALSE(result_);
}

TEST_F(DebugLog, WithAFileThatDoesNotParseFails) {
  EXPECT_EQ(initWith("{"), "No valid logdebug configuration file " + dir_.at("cli_debug.conf") + "\n");
  EXPECT_FALSE(result_);
}

TEST_F(DebugLog, WithAnEmptyFileFails) {
  initWith("");
  EXPECT_FALSE(result_);
}

TEST_F(DebugLog, InAFolderThatCannotBeMadeCostsTheLogOnly) {
  config_.logDir = dir_.write("file", "") + "/log/";
  config_.debugConfigFile = dir_.write("cli_debug.conf", "{}");
  init();
  EXPECT_TRUE(result_);
  CLogDebug::LogPrintStr(LogLevel::kError, "file", "function", 7, "lost");
}

struct Forward {
  const char* name;
  int from;
  int to;  ///< 0: dropped
};

/// The level of the record that a callback wrote: the highest threshold that lets the record pass.
int writtenAt(void (*callback)(int, const char*), int level) {
  int written = 0;
  for (int threshold = 1; threshold <= 4; ++threshold) {
    const testsupport::DebugLogFile log(static_cast<LogLevel>(threshold));
    callback(level, "forwarded text");
    if (log.text().find("forwarded text") != std::string::npos) {
      written = threshold;
    }
  }
  return written;
}

class FromCLog : public testing::TestWithParam<Forward> {};
TEST_P(FromCLog, IsWrittenAtItsLevel) {
  EXPECT_EQ(writtenAt(tavcli::clogCallback, GetParam().from), GetParam().to);
}
const Forward kFromCLog[] = {{"0To1", 0, 1}, {"1To2", 1, 2},     {"2To3", 2, 3},
                             {"3To4", 3, 4}, {"4Dropped", 4, 0}, {"MinusOneDropped", -1, 0}};
INSTANTIATE_TEST_SUITE_P(LogSetup, FromCLog, testing::ValuesIn(kFromCLog),
                         [](const auto& row) { return row.param.name; });

class FromLunet : public testing::TestWithParam<Forward> {};
TEST_P(FromLunet, IsWrittenAtItsLevel) {
  EXPECT_EQ(writtenAt(tavcli::lunetLogCallback, GetParam().from), GetParam().to);
}
const Forward kFromLunet[] = {{"0To4", 0, 4}, {"1To3", 1, 3}, {"2To2", 2, 2},        {"3To1", 3, 1},
                              {"4To1", 4, 1}, {"5To1", 5, 1}, {"MinusOneTo1", -1, 1}};
INSTANTIATE_TEST_SUITE_P(LogSetup, FromLunet, testing::ValuesIn(kFromLunet),
                         [](const auto& row) { return row.param.name; });

TEST(ForwardedRecords, NameTheirCallbackAsTheFunction) {
  const testsupport::DebugLogFile log;
  tavcli::clogCallback(3, "one");
  tavcli::lunetLogCallback(0, "two");
  const std::string text = log.text();
  EXPECT_NE(text.find("clogCallback"), std::string::npos);
  EXPECT_NE(text.find("lunetLogCallback"), std::string::npos);
}

TEST(BaseLibraryRecords, ReachTheDebugLog) {
  const testsupport::DebugLogFile log;
  tavcli::initCLog();
  CLog::emit(::CLogLevel::kError, "disk %d", 42);
  EXPECT_NE(log.text().find("disk 42"), std::string::npos);
}

}  // namespace
