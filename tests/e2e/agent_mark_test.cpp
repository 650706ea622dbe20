// The mark of a tree's agent. Only the agent holds the mark, and no other user chooses the pid in the mark,
// which scripts give to kill.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "e2e/AgentTree.h"
#include "e2e/SecondUser.h"
#include "lunet/Lunet.h"
#include "support/Wait.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::AgentTree;
using testsupport::Process;
using testsupport::secondUser;
using testsupport::secondUsersGroup;
namespace fs = std::filesystem;

const std::string kMark = std::string(lunet::kAgentGuid) + ".mark";

TEST(AgentMark, LiesInTheStateFolderThatIsClosedToOthers) {
  const AgentTree tree;
  EXPECT_TRUE(fs::exists(tree.at("state/" + kMark)));
  EXPECT_FALSE(fs::exists(tree.at("run/lunet/" + kMark)));
  struct stat st {};
  ASSERT_EQ(0, stat(tree.at("state").c_str(), &st));
  EXPECT_EQ(0700U, st.st_mode & 07777);
}

class MarkBesideTheSockets : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can start a process of a second user";
    }
    tree_ = std::make_unique<AgentTree>(
        AgentTree::Options{.group = secondUsersGroup(), .start = true, .uid = {}});
  }
  std::string mark() const { return tree_->at("run/lunet/" + kMark); }
  /// Runs a shell command as a member of the bus's group.
  std::unique_ptr<Process> member(const std::string& command) const {
    return std::make_unique<Process>(std::vector<std::string>{"/bin/sh", "-c", command}, secondUser());
  }
  void endAgent() const {
    tree_->kill(SIGTERM);
    ASSERT_EQ(0, tree_->wait().value_or(-1));
  }
  std::unique_ptr<AgentTree> tree_;
};

TEST_F(MarkBesideTheSockets, WrittenByAMemberDoesNotChooseThePidThatStatusTells) {
  const auto plant = member("printf 'pid=-1\\n' > " + mark());
  ASSERT_EQ(0, plant->wait()) << plant->err();
  const auto status = tree_->run({"--status"});
  EXPECT_EQ(0, status->wait()) << status->err();
  EXPECT_THAT(status->out(), HasSubstr("pid=" + std::to_string(tree_->agent().pid()) + "\n"));
  EXPECT_THAT(status->out(), Not(HasSubstr("pid=-1")));
}

TEST_F(MarkBesideTheSockets, LockedByAMemberKeepsNoAgentFromStarting) {
  endAgent();
  const auto holder = member("flock -x " + mark() + " sh -c 'echo held; exec cat'");
  ASSERT_TRUE(holder->waitForOut("held")) << holder->err();
  ASSERT_NO_THROW(tree_->start());
  EXPECT_EQ(0, tree_->run({"--status"})->wait());
}

TEST_F(MarkBesideTheSockets, ThatIsNoFileKeepsNoAgentFromStarting) {
  endAgent();
  const auto plant = member("mkfifo " + mark());
  ASSERT_EQ(0, plant->wait()) << plant->err();
  ASSERT_NO_THROW(tree_->start());
}

TEST_F(MarkBesideTheSockets, OfAMemberAtTheAgentsAddressIsNoPidForOthers) {
  endAgent();
  Process squatter({tree_->program("lunetctl"), "--runtime", tree_->path(), "listen", lunet::kAgentGuid},
                   secondUser());
  ASSERT_TRUE(squatter.waitForOut("ready")) << squatter.err();
  const auto status = tree_->run({"--status"});
  EXPECT_EQ(1, status->wait());
  EXPECT_EQ("", status->out());
}

}  // namespace
