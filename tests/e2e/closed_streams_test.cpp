// The console without standard input, output or error: no other descriptor may get their numbers.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/InstallTree.h"
#include "support/LunetctlAgent.h"
#include "support/Wait.h"

namespace {

using testsupport::InstallTree;
using testsupport::LunetctlAgent;
using testsupport::Process;

class ConsoleWithout : public testing::Test {
 protected:
  /// redirections: in the shell's syntax.
  std::unique_ptr<Process> start(const std::string& redirections,
                                 const std::vector<std::string>& words = {}) const {
    std::vector<std::string> command{"/bin/sh", "-c", "exec \"$0\" \"$@\" " + redirections,
                                     std::string(TAV_BIN_DIR) + "/tavcli"};
    command.insert(command.end(), words.begin(), words.end());
    return std::make_unique<Process>(command, tree_.options());
  }
  bool serves() const { return std::filesystem::exists(tree_.at("run/lunet/") + kAddress + ".sock"); }
  std::string mark() const {
    return testsupport::readFile(tree_.at("run/lunet/") + std::string(kAddress) + ".mark");
  }
  static std::string placeOf(const Process& process, int fd) {
    return std::filesystem::read_symlink("/proc/" + std::to_string(process.pid()) + "/fd/" +
                                         std::to_string(fd));
  }

  static constexpr const char* kAddress = testsupport::kConsoleAddress;
  InstallTree tree_;
  LunetctlAgent agent_{tree_};
};

TEST_F(ConsoleWithout, StandardInputEndsWith0AtOnceAndLeavesTheMarkFree) {
  const auto console = start("<&-");
  EXPECT_EQ(console->wait(std::chrono::seconds(10)), 0) << console->out() << console->err();
  const auto next = tree_.console();
  EXPECT_TRUE(next->waitForOut("[Load Command] Trust")) << next->out();
}

TEST_F(ConsoleWithout, AnyStreamEndsWith0) {
  EXPECT_EQ(start("<&- >&- 2>&-")->wait(std::chrono::seconds(10)), 0);
}

TEST_F(ConsoleWithout, OutputAndErrorKeepsThemOffItsMarkAndItsSockets) {
  const auto console = start(">&- 2>&-");
  ASSERT_TRUE(testsupport::waitFor([this] { return serves(); }));
  EXPECT_EQ(placeOf(*console, 1), "/dev/null");
  EXPECT_EQ(placeOf(*console, 2), "/dev/null");
  EXPECT_EQ(mark(), "pid=" + std::to_string(console->pid()) + "\n") << "no output stands in it";
  console->write("exit\n");
  EXPECT_EQ(console->wait(), 0);
}

}  // namespace
