// The agent without standard input, output and error: no other descriptor may get their numbers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "e2e/AgentTree.h"
#include "support/Wait.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testsupport::AgentTree;
using testsupport::Process;
using testsupport::waitFor;

TEST(AgentProgram, InTheForegroundWithoutStandardDescriptorsHasNothingOfItsOwnThere) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  Process agent({"/bin/sh", "-c", "exec \"$0\" --install-dir \"$1\" <&- >&- 2>&-", tree.program("tavagentd"),
                 tree.path()});
  ASSERT_TRUE(waitFor([&] { return tree.run({"--status"})->wait() == 0; }));
  for (const char* fd : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(agent.pid()) + "/fd/" + fd),
              "/dev/null")
        << fd;
  }
  agent.kill(SIGTERM);
  EXPECT_EQ(0, agent.wait());
}

TEST(AgentProgram, ThatFailsShowsTheControlCharactersOfItsTreesName) {
  const AgentTree tree;
  const testsupport::TempDir folder;
  const std::string link = folder.at("to\x1b[2J\nthe tree");
  std::filesystem::create_directory_symlink(tree.path(), link);
  Process second({tree.program("tavagentd"), "--install-dir", link});
  EXPECT_EQ(4, second.wait());
  EXPECT_THAT(second.err(), HasSubstr(folder.at("to\\x1b[2J\\nthe tree") + " already"));
  EXPECT_THAT(second.err(), Not(HasSubstr("\x1b")));
}

TEST(AgentProgram, ThatCannotGoToTheBackgroundFailsWithALine) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  Process agent({"/bin/sh", "-c", "exec 3>&-; ulimit -n 4; exec \"$0\" --daemon --install-dir \"$1\"",
                 tree.program("tavagentd"), tree.path()});
  EXPECT_EQ(1, agent.wait());
  EXPECT_EQ("tavagentd: pipe2: Too many open files\n", agent.err());
}

}  // namespace
