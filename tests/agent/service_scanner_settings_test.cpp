// etc/agent/agent.conf.

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "service/ScannerSettings.h"
#include "support/TempDir.h"

namespace agent {
namespace {

using ::testing::HasSubstr;

class ScannerSettings : public ::testing::Test {
 protected:
  platform::Expected<void> read(const std::string& content) {
    dir_.write("etc/agent/agent.conf", content);
    return readScannerSettings(tree_, config_);
  }
  std::string reasonNotRead(const std::string& content) {
    const auto result = read(content);
    EXPECT_FALSE(result) << content;
    return result ? "" : result.error();
  }
  testsupport::TempDir dir_;
  platform::InstallTree tree_{dir_.path()};
  Spawner::Config config_;
};

TEST_F(ScannerSettings, HaveDefaultsWithoutAFile) {
  ASSERT_TRUE(readScannerSettings(tree_, config_));
  EXPECT_EQ(config_.unconfined, Unconfined::kWithoutNamespaces);
  EXPECT_EQ(config_.tempBytes, 2048U << 20);
  EXPECT_EQ(config_.limits.tempBytes, 512U << 20);
  EXPECT_EQ(config_.limits.processorMs, 15000U);
  EXPECT_EQ(config_.limits.processorMsPer100Mb, 10000U);
  EXPECT_EQ(config_.limits.clockFactor, 10U);
  EXPECT_EQ(config_.memoryBytes, 512U << 20);
}

TEST_F(ScannerSettings, TheShippedFileStatesTheDefaults) {
  std::filesystem::create_directories(dir_.at("etc/agent"));
  std::filesystem::copy(TAV_SOURCE_DIR "/packaging/etc/agent/agent.conf", dir_.at("etc/agent/agent.conf"));
  Spawner::Config defaults;
  ASSERT_TRUE(readScannerSettings(tree_, config_));
  EXPECT_EQ(config_.unconfined, defaults.unconfined);
  EXPECT_EQ(config_.tempBytes, defaults.tempBytes);
  EXPECT_EQ(config_.memoryBytes, defaults.memoryBytes);
  EXPECT_EQ(config_.limits.processorMs, defaults.limits.processorMs);
  EXPECT_EQ(config_.limits.processorMsPer100Mb, defaults.limits.processorMsPer100Mb);
  EXPECT_EQ(config_.limits.clockFactor, defaults.limits.clockFactor);
  EXPECT_EQ(config_.limits.tempBytes, defaults.limits.tempBytes);
  EXPECT_EQ(config_.limits.unpackedRatio, defaults.limits.unpackedRatio);
  EXPECT_EQ(config_.limits.maxFiles, defaults.limits.maxFiles);
  EXPECT_EQ(config_.limits.maxRecursion, defaults.limits.maxRecursion);
}

TEST_F(ScannerSettings, AreTaken) {
  ASSERT_TRUE(read(R"({"scan_unconfined":"never","scan_temp_mib":7,"scan_memory_mib":9,
                       "scan_file_temp_mib":6,"scan_cpu_seconds":5,"scan_cpu_seconds_per_100mb":4,
                       "scan_clock_factor":3,"scan_ratio":8,"scan_members":11,"scan_nesting":12})"));
  EXPECT_EQ(config_.limits.tempBytes, 6U << 20);
  EXPECT_EQ(config_.limits.processorMs, 5000U);
  EXPECT_EQ(config_.limits.processorMsPer100Mb, 4000U);
  EXPECT_EQ(config_.limits.clockFactor, 3U);
  EXPECT_EQ(config_.limits.unpackedRatio, 8U);
  EXPECT_EQ(config_.limits.maxFiles, 11U);
  EXPECT_EQ(config_.limits.maxRecursion, 12U);
  EXPECT_EQ(config_.unconfined, Unconfined::kNever);
  EXPECT_EQ(config_.tempBytes, 7U << 20);
  EXPECT_EQ(config_.memoryBytes, 9U << 20);
  ASSERT_TRUE(read(R"({"scan_unconfined":"always"})"));
  EXPECT_EQ(config_.unconfined, Unconfined::kAlways);
}

TEST_F(ScannerSettings, TheSpaceOfOneFileIsAtMostTheSpaceOfAll) {
  ASSERT_TRUE(read(R"({"scan_temp_mib":100})"));
  EXPECT_EQ(config_.limits.tempBytes, 100U << 20);
}

TEST_F(ScannerSettings, WithoutAMeaningAreRefusedWithTheirName) {
  const struct {
    const char* content;
    const char* named;
  } rows[] = {
      {R"({"scan_unconfined":"yes"})", "scan_unconfined"},
      {R"({"scan_unconfined":true})", "scan_unconfined"},
      {R"({"scan_unconfined":null})", "scan_unconfined"},
      {R"({"scan_temp_mib":0})", "scan_temp_mib"},
      {R"({"scan_temp_mib":-1})", "scan_temp_mib"},
      {R"({"scan_temp_mib":1.5})", "scan_temp_mib"},
      {R"({"scan_memory_mib":1048577})", "scan_memory_mib"},
      {R"({"scan_memory_mib":"512"})", "scan_memory_mib"},
      {R"({"scan_user":5})", "scan_user"},
      {R"({"scan_cpu_seconds":0})", "scan_cpu_seconds"},
      {R"({"scan_cpu_seconds":3601})", "scan_cpu_seconds"},
      {R"({"scan_cpu_seconds_per_100mb":-1})", "scan_cpu_seconds_per_100mb"},
      {R"({"scan_clock_factor":0})", "scan_clock_factor"},
      {R"({"scan_ratio":0})", "scan_ratio"},
      {R"({"scan_members":"many"})", "scan_members"},
      {R"({"scan_nesting":91})", "scan_nesting"},
      {R"({"scan_temp_mib":100,"scan_file_temp_mib":101})", "scan_file_temp_mib is more than scan_temp_mib"},
      {"[]", "agent.conf"},
      {"{", "agent.conf"},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(reasonNotRead(row.content), HasSubstr(row.named)) << row.content;
  }
}

TEST_F(ScannerSettings, OfTheAuditRecordAreReadFromTheSameFile) {
  store::AuditKeeping keeping;
  const store::AuditKeeping defaults;
  std::filesystem::create_directories(dir_.at("etc/agent"));
  std::filesystem::copy(TAV_SOURCE_DIR "/packaging/etc/agent/agent.conf", dir_.at("etc/agent/agent.conf"));
  ASSERT_TRUE(readAuditSettings(tree_, keeping));
  EXPECT_EQ(keeping.age, defaults.age);
  EXPECT_EQ(keeping.floorBytes, defaults.floorBytes);
  ASSERT_TRUE(read(R"({"audit_days":2,"audit_floor_mib":3})"));
  ASSERT_TRUE(readAuditSettings(tree_, keeping));
  EXPECT_EQ(keeping.age, std::chrono::hours(48));
  EXPECT_EQ(keeping.floorBytes, 3 << 20);
  for (const char* wrong : {R"({"audit_days":0})", R"({"audit_floor_mib":"much"})"}) {
    ASSERT_TRUE(read(wrong));
    EXPECT_FALSE(readAuditSettings(tree_, keeping)) << wrong;
  }
}

TEST_F(ScannerSettings, OfAPausedScanAreReadFromTheSameFile) {
  std::chrono::milliseconds pause{1};
  ASSERT_TRUE(readPauseSetting(tree_, pause));
  EXPECT_EQ(pause, std::chrono::milliseconds(1)) << "the default stays";
  ASSERT_TRUE(read(R"({"paused_scan_minutes":2})"));
  ASSERT_TRUE(readPauseSetting(tree_, pause));
  EXPECT_EQ(pause, std::chrono::minutes(2));
  ASSERT_TRUE(read(R"({"paused_scan_minutes":0})"));
  EXPECT_FALSE(readPauseSetting(tree_, pause));
}

TEST_F(ScannerSettings, OfAFileThatOthersMayWriteAreRefused) {
  ASSERT_TRUE(read("{}"));
  ASSERT_EQ(chmod(dir_.at("etc/agent/agent.conf").c_str(), 0666), 0);
  EXPECT_FALSE(readScannerSettings(tree_, config_));
}

TEST_F(ScannerSettings, TheUserIsAnExistingOneOrAnUnusedOne) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give the processes a user of their own";
  }
  ASSERT_TRUE(read(R"({"scan_user":"nobody"})"));
  EXPECT_EQ(config_.user.uid, getpwnam("nobody")->pw_uid);
  EXPECT_THAT(reasonNotRead(R"({"scan_user":"no-such-user"})"), HasSubstr("no-such-user is no user"));
  EXPECT_THAT(reasonNotRead(R"({"scan_user":"root"})"), HasSubstr("the rights of root"));
  if (getpwnam("tavscan") == nullptr) {
    ASSERT_TRUE(read("{}"));
    EXPECT_GE(config_.user.uid, 60706U);
    EXPECT_EQ(getpwuid(config_.user.uid), nullptr);
    EXPECT_EQ(getgrgid(config_.user.gid), nullptr);
  }
}

}  // namespace
}  // namespace agent
