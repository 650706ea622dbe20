// Programs that root starts in an install tree of a second user. The tree is made of links, and the second
// user may change the links. So the programs read, write, make and load nothing there.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "e2e/AgentTree.h"
#include "e2e/SecondUser.h"

namespace {

using ::testing::HasSubstr;
using testsupport::AgentTree;
using testsupport::kSecondUser;
using testsupport::Process;
namespace fs = std::filesystem;

/// Every link leads to a file that root may use. Only the owner of the links makes them unsafe.
class TreeOfASecondUser : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can give a folder to a second user";
    }
    fs::create_directories(at("home/bin"));
    fs::create_directory(at("roots"));
    for (const auto& [name, target] : std::map<std::string, std::string>{{"lib", good_.at("lib")},
                                                                         {"etc", good_.at("etc")},
                                                                         {"run", at("roots")},
                                                                         {"log", at("roots")},
                                                                         {"state", at("roots")}}) {
      fs::create_symlink(target, at("home/" + name));
      ASSERT_EQ(0, lchown(at("home/" + name).c_str(), kSecondUser, kSecondUser));
    }
    for (const char* folder : {"home", "home/bin"}) {
      ASSERT_EQ(0, chown(at(folder).c_str(), kSecondUser, kSecondUser));
    }
    ASSERT_EQ(0, chmod(at("").c_str(), 0755));
  }
  std::string at(const std::string& name) const { return dir_.at(name); }
  bool rootsFolderIsUntouched() const {
    struct stat st {};
    return stat(at("roots").c_str(), &st) == 0 && (st.st_mode & 07777) == 0755 && fs::is_empty(at("roots"));
  }
  std::unique_ptr<Process> agent() const {
    return std::make_unique<Process>(
        std::vector<std::string>{std::string(TAV_BIN_DIR) + "/tavagentd", "--install-dir", at("home")});
  }
  const testsupport::TempDir dir_;
  const AgentTree good_{{.group = "", .start = false, .uid = {}}};
};

TEST_F(TreeOfASecondUser, GetsNothingFromAConsoleOfRoots) {
  Process::Options options;
  options.workingDir = at("home/bin");
  options.environment = {{"XDG_STATE_HOME", at("own-state")}, {"TERM", "dumb"}, {"CKORVIX_CLOG_LEVEL", ""}};
  Process console({std::string(TAV_BIN_DIR) + "/tavcli", "-scanpath", at("home"), "-logpath", at("report")},
                  options);
  EXPECT_EQ(2, console.wait()) << console.out();
  EXPECT_THAT(console.out(), HasSubstr("initLunet failed\ninit afx failed\n"));
  EXPECT_THAT(console.err(),
              HasSubstr("tavcli: no debug log is written: " + at("home") + " belongs to user"));
  EXPECT_THAT(console.err(), HasSubstr("the bus library is not loaded: " + at("home") + " belongs to user"));
  EXPECT_TRUE(rootsFolderIsUntouched());
}

TEST_F(TreeOfASecondUser, IsNotServedByAnAgentOfRoots) {
  const auto program = agent();
  EXPECT_EQ(1, program->wait());
  EXPECT_THAT(program->err(), HasSubstr("tavagentd: no log is written: " + at("home") + " belongs to user"));
  EXPECT_THAT(program->err(), HasSubstr("the bus configuration is not used: " + at("home")));
  EXPECT_TRUE(rootsFolderIsUntouched());
}

TEST_F(TreeOfASecondUser, IsNotServedByAnAgentOfRootsWithoutABusConfigurationEither) {
  fs::remove(good_.at("etc/communication/cli_lunet.conf"));
  const auto program = agent();
  EXPECT_EQ(1, program->wait());
  EXPECT_THAT(program->err(), HasSubstr("the agent's mark cannot be taken: " + at("home")));
  EXPECT_TRUE(rootsFolderIsUntouched());
}

TEST_F(TreeOfASecondUser, IsNoBusForAToolOfRoots) {
  Process tool({std::string(TAV_BIN_DIR) + "/lunetctl", "--runtime", at("home"), "list"});
  EXPECT_EQ(1, tool.wait());
  EXPECT_THAT(tool.err(), HasSubstr("the bus configuration is not used: " + at("home")));
  EXPECT_TRUE(rootsFolderIsUntouched());
}

}  // namespace
