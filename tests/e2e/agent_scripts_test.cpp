// The scripts of a checkout: scripts/run --stop with an agent that the script must not or cannot end. Also
// scripts/test, and the configuration of a build, where something is missing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "e2e/AgentTree.h"
#include "e2e/SecondUser.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::AgentTree;
using testsupport::kSecondUser;
using testsupport::Process;

/// A folder with the project's scripts in it, which other users can enter.
class Checkout {
 public:
  Checkout() {
    std::filesystem::copy(std::string(TAV_SOURCE_DIR) + "/scripts", at("scripts"));
    EXPECT_EQ(0, chmod(folder_.path().c_str(), 0755));
  }
  /// A checkout whose staged tree is the test's.
  explicit Checkout(const AgentTree& tree) : Checkout() {
    std::filesystem::create_directories(at("build"));
    std::filesystem::create_directory_symlink(tree.path(), at("build/stage"));
  }

  std::string at(const std::string& name) const { return folder_.at(name); }
  /// Puts a script in place of the project's script, or of a program that the script calls.
  void put(const std::string& name, const std::string& text) const {
    EXPECT_EQ(0, chmod(folder_.write(name, "#!/bin/bash\n" + text).c_str(), 0755));
  }
  std::unique_ptr<Process> stop(Process::Options options = {}) const {
    return std::make_unique<Process>(std::vector<std::string>{"/bin/bash", at("scripts/run"), "--stop"},
                                     std::move(options));
  }

 private:
  testsupport::TempDir folder_;
};

AgentTree::Options withGroup(bool start = true) {
  return {.group = testsupport::secondUsersGroup(), .start = start, .uid = {}};
}

TEST(StopScript, EndsTheAgentAndNamesItsProcess) {
  AgentTree tree(withGroup());
  const Checkout checkout(tree);
  const pid_t pid = tree.agent().pid();
  const auto stop = checkout.stop();
  EXPECT_EQ(0, stop->wait()) << stop->err();
  EXPECT_THAT(stop->err(), HasSubstr("agent ended (pid " + std::to_string(pid) + ")"));
  EXPECT_EQ(0, tree.wait());
}

TEST(StopScript, SaysThatNoAgentIsRunningWhenNobodyAnswers) {
  const AgentTree tree(withGroup(false));
  const Checkout checkout(tree);
  const auto stop = checkout.stop();
  EXPECT_EQ(0, stop->wait());
  EXPECT_THAT(stop->err(), HasSubstr("no agent is running on"));
}

TEST(StopScript, OfATreeThatItMayNotAskSaysWhyAndFails) {
  AgentTree tree({.group = "", .start = true, .uid = kSecondUser});
  const Checkout checkout(tree);
  const auto stop = checkout.stop();  // root does not use another user's bus configuration
  EXPECT_EQ(1, stop->wait());
  EXPECT_THAT(stop->err(), HasSubstr("cannot tell whether an agent runs"));
  EXPECT_THAT(stop->err(), HasSubstr("belongs to user " + std::to_string(kSecondUser)));
  EXPECT_THAT(stop->err(), Not(HasSubstr("no agent is running")));
  EXPECT_TRUE(tree.agent().running());
}

TEST(StopScript, ThatMayNotEndTheAgentSaysSoAndFails) {
  AgentTree tree(withGroup());
  const Checkout checkout(tree);
  const auto stop = checkout.stop(testsupport::secondUser());
  EXPECT_EQ(1, stop->wait());
  EXPECT_THAT(stop->err(), HasSubstr("the agent (pid " + std::to_string(tree.agent().pid()) +
                                     ") cannot be ended: Operation not permitted"));
  EXPECT_TRUE(tree.agent().running());
}

struct PidRow {
  std::string name;
  std::string pid;  ///< N: the pid of a process of the test
};

class StopScriptOfAnAgentWithPid : public ::testing::TestWithParam<PidRow> {};
TEST_P(StopScriptOfAnAgentWithPid, ThatIsNotOneProcessEndsNone) {
  Process victim({"setsid", "sleep", "300"});  // leads a group of its own: kill -- -N would end it
  ASSERT_TRUE(testsupport::waitFor([&] { return getpgid(victim.pid()) == victim.pid(); }));
  std::string pid = GetParam().pid;
  for (std::size_t at = pid.find('N'); at != std::string::npos; at = pid.find('N')) {
    pid.replace(at, 1, std::to_string(victim.pid()));
  }
  const Checkout checkout;
  checkout.put("build/stage/bin/tavagentd", "echo 'pid=" + pid + "'\n");
  const auto stop = checkout.stop();
  EXPECT_EQ(1, stop->wait());
  EXPECT_THAT(stop->err(), HasSubstr("does not say which process it is"));
  EXPECT_TRUE(victim.running());
}
const PidRow kPids[] = {{"OfAGroup", "-N"},
                        {"Empty", ""},
                        {"WithALeadingZero", "0N"},
                        {"OfTwo", "N N"},
                        {"ThatIsAPath", "N/../N"}};
INSTANTIATE_TEST_SUITE_P(Status, StopScriptOfAnAgentWithPid, ::testing::ValuesIn(kPids),
                         [](const auto& row) { return row.param.name; });

TEST(TestScript, NotRunAsRootSaysWhatThenCannotPassAndGoesOn) {
  const Checkout checkout;
  checkout.put("scripts/setup", "");
  checkout.put("bin/cmake", "");
  checkout.put("bin/ctest", "echo ctest runs");
  Process::Options options = testsupport::secondUser();
  options.environment["PATH"] = checkout.at("bin") + ":/usr/bin:/bin";
  Process process({"/bin/bash", checkout.at("scripts/test")}, options);
  EXPECT_EQ(0, process.wait()) << process.err();
  EXPECT_THAT(process.err(), HasSubstr("not run as root"));
  EXPECT_EQ("ctest runs\n", process.out());
}

TEST(BuildScripts, ConfigureAMovedCheckoutAnew) {
  const Checkout checkout;
  const testsupport::TempDir moved;
  const std::string place = checkout.at("project");
  std::filesystem::create_directories(place);
  std::filesystem::rename(checkout.at("scripts"), place + "/scripts");
  checkout.put("project/CMakeLists.txt", "cmake_minimum_required(VERSION 3.25)\nproject(p LANGUAGES NONE)\n");
  std::filesystem::copy_file(std::string(TAV_SOURCE_DIR) + "/CMakePresets.json",
                             place + "/CMakePresets.json");
  const auto configure = [](const std::string& folder) {
    Process process({"/bin/bash", "-c", ". scripts/common.sh; configure_preset dev"},
                    {.workingDir = folder, .environment = {}, .uid = {}, .gid = {}, .groups = {}});
    const auto status = process.wait();
    return status == 0 ? std::string() : process.out() + process.err();
  };
  ASSERT_EQ("", configure(place));
  EXPECT_EQ("", configure(place)) << "as it stands";
  std::filesystem::rename(place, moved.at("project"));
  EXPECT_EQ("", configure(moved.at("project")));
  EXPECT_THAT(testsupport::readFile(moved.at("project/build/dev/CMakeCache.txt")),
              HasSubstr("CMAKE_HOME_DIRECTORY:INTERNAL=" + moved.at("project") + "\n"));
}

}  // namespace
