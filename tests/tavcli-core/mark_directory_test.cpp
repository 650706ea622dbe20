#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "bin/MarkDirectory.h"
#include "platform/CGlobalTag.h"
#include "support/TempDir.h"

namespace {

class MarkDirectory : public testing::Test {
 protected:
  std::string directory(const std::string& busConfig = "{}") {
    return tavcli::markDirectory(dir_.path() + "/", dir_.write("etc/cli_lunet.conf", busConfig));
  }
  testsupport::TempDir dir_;
};

TEST_F(MarkDirectory, LiesBesideTheBusSockets) {
  EXPECT_EQ(directory(), dir_.at("run/lunet"));
}

TEST_F(MarkDirectory, FollowsTheBusConfiguration) {
  EXPECT_EQ(directory(R"({"socket_dir":"elsewhere"})"), dir_.at("elsewhere"));
  EXPECT_EQ(directory("{\"socket_dir\":\"" + dir_.at("abs") + "\"}"), dir_.at("abs"));
}

TEST_F(MarkDirectory, OfATreeWithoutBusConfigurationIsTheDefault) {
  EXPECT_EQ(tavcli::markDirectory(dir_.path() + "/", dir_.at("absent.conf")), dir_.at("run/lunet"));
}

TEST_F(MarkDirectory, OfABusConfigurationThatOthersMayWriteIsNotUsed) {
  const std::string file = dir_.write("etc/cli_lunet.conf", R"({"socket_dir":"elsewhere"})");
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  EXPECT_EQ(tavcli::markDirectory(dir_.path() + "/", file), "");
}

TEST_F(MarkDirectory, OfABusConfigurationLinkedToWhereOthersMayWriteIsNotUsed) {
  const std::string planted = dir_.write("open/planted.conf", R"({"socket_dir":"elsewhere"})");
  ASSERT_EQ(chmod(dir_.at("open").c_str(), 0777), 0);
  std::filesystem::create_symlink(planted, dir_.at("linked.conf"));
  EXPECT_EQ(tavcli::markDirectory(dir_.path() + "/", dir_.at("linked.conf")), "");
}

TEST_F(MarkDirectory, IsNotMadeByAsking) {
  directory();
  EXPECT_FALSE(std::filesystem::exists(dir_.at("run")));
}

TEST_F(MarkDirectory, BelowAFolderThatOthersMayWriteIsNotUsed) {
  std::filesystem::create_directory(dir_.at("run"));
  ASSERT_EQ(chmod(dir_.at("run").c_str(), 0777), 0);
  EXPECT_EQ(directory(), "");
}

TEST_F(MarkDirectory, ThroughALinkThatLeadsNowhereIsNotUsed) {
  std::filesystem::create_symlink(dir_.at("nowhere"), dir_.at("run"));
  EXPECT_EQ(directory(), "");
}

TEST_F(MarkDirectory, IsTheFolderOfTheMarksOnceInForce) {
  tavcli::useMarkDirectory(dir_.path() + "/", dir_.at("absent.conf"));
  EXPECT_EQ(CGlobalTag::TagConfig::getUserConfig().directory, dir_.at("run/lunet"));
}

}  // namespace
