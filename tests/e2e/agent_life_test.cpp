// The life of the agent and of its tasks: start, end, death, and the receivers of notifications.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <set>
#include <sstream>

#include "agent/OwnMounts.h"
#include "e2e/AgentTree.h"
#include "e2e/SecondUser.h"
#include "json/CppJson.h"
#include "json/Values.h"
#include "lunet/Lunet.h"
#include "platform/Descriptor.h"
#include "store/Store.h"
#include "support/HeldFile.h"
#include "support/Json.h"
#include "support/Mounts.h"
#include "support/Samples.h"
#include "support/Wait.h"
#include "task/RunningPrograms.h"

namespace {

using json::TaskState;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testsupport::AgentTree;
using testsupport::eicar;
using testsupport::jsonOf;
using testsupport::PeerConsole;
using testsupport::Process;
using testsupport::secondUser;
using testsupport::secondUsersGroup;
using testsupport::waitFor;

constexpr uid_t kUser = testsupport::kSecondUser;
using enum json::ControlAction;

/// A scan without the cache: the cache would know the file after its first name.
Json::Value slowly() {
  return jsonOf(R"({"force_scan":true,"parallelism":1})");
}

/// The running processes of the agent's program: the agent, the spawner and the workers.
std::set<pid_t> processesOf(pid_t agent) {
  std::set<pid_t> family{agent};
  for (int round = 0; round < 4; ++round) {
    const auto programs = agent::RunningPrograms::all().value();
    for (const auto& program : programs) {
      std::string text = testsupport::readFile("/proc/" + std::to_string(program.pid) + "/stat");
      const std::size_t close = text.rfind(") ");
      const pid_t parent = close == std::string::npos ? 0 : std::stoi(text.substr(close + 4));
      if (family.count(parent) != 0) {
        family.insert(program.pid);
      }
    }
  }
  return family;
}

TEST(AgentProgram, PrintsItsVersionAndItsHelp) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  const auto version = tree.run({"--version"});
  EXPECT_EQ(0, version->wait());
  EXPECT_THAT(version->out(), HasSubstr("tavagentd "));
  const auto help = tree.run({"--help"});
  EXPECT_EQ(0, help->wait());
  EXPECT_THAT(help->out(), HasSubstr("--install-dir"));
}

TEST(AgentProgram, AnUnknownArgumentEndsWithTwoAndNamesIt) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  const auto wrong = tree.run({"--wrong"});
  EXPECT_EQ(2, wrong->wait());
  EXPECT_THAT(wrong->err(), HasSubstr("--wrong"));
}

TEST(AgentProgram, ASecondOneOnTheSameTreeEndsWithAClearLine) {
  AgentTree tree;
  const auto second = tree.run({});
  EXPECT_EQ(4, second->wait());
  EXPECT_THAT(second->err(), HasSubstr("another agent (pid " + std::to_string(tree.agent().pid()) + ")"));
  EXPECT_TRUE(tree.agent().running());
}

TEST(AgentProgram, TwoTreesAreServedBesideEachOther) {
  AgentTree one;
  AgentTree other;
  EXPECT_EQ(0, one.run({"--status"})->wait());
  EXPECT_EQ(0, other.run({"--status"})->wait());
}

TEST(AgentProgram, StatusTellsThePidTheProgramAndTheTasks) {
  AgentTree tree;
  const auto status = tree.run({"--status"});
  EXPECT_EQ(0, status->wait());
  EXPECT_THAT(status->out(), HasSubstr("pid=" + std::to_string(tree.agent().pid()) + "\n"));
  EXPECT_THAT(status->out(),
              HasSubstr("program=" + std::filesystem::canonical(TAV_BIN_DIR).string() + "/tavagentd\n"));
  EXPECT_THAT(status->out(), HasSubstr("build=same\n"));
  EXPECT_THAT(status->out(), HasSubstr("tasks=0\n"));
}

TEST(AgentProgram, StatusAndLogTellTheConfinementOfTheScanningProcesses) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give the processes a user of their own";
  }
  const AgentTree tree;
  EXPECT_TRUE(testsupport::waitFor([&] {
    const auto status = tree.run({"--status"});
    return status->wait() == 0 && status->out().find("confinement=whole\n") != std::string::npos;
  }));
  EXPECT_THAT(testsupport::readFile(tree.at("log/tavagentd.log")),
              HasSubstr("confinement of the scanning processes: whole"));
}

TEST(AgentProgram, StatusTellsByContentWhetherTheRunningProgramIsTheOneAsked) {
  AgentTree tree;
  const std::string copy = tree.at("bin/copy");
  std::filesystem::copy_file(tree.program("tavagentd"), copy);
  for (const char* build : {"build=same\n", "build=other\n"}) {
    Process status({copy, "--install-dir", tree.path(), "--status"});
    EXPECT_EQ(0, status.wait()) << status.err();
    EXPECT_THAT(status.out(), HasSubstr(build));
    std::ofstream(copy, std::ios::app) << "x";
  }
}

TEST(AgentProgram, StatusWithoutAnAgentEndsWithThree) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  const auto status = tree.run({"--status"});
  EXPECT_EQ(3, status->wait());
  EXPECT_THAT(status->err(), HasSubstr("no agent"));
  EXPECT_THAT(status->out(), IsEmpty());
}

TEST(AgentProgram, StatusThatCannotAskEndsWithOneAndSaysWhy) {
  AgentTree tree;
  ASSERT_EQ(0, chmod(tree.at("etc/communication/cli_lunet.conf").c_str(), 0666));
  const auto status = tree.run({"--status"});
  EXPECT_EQ(1, status->wait());
  EXPECT_THAT(status->err(), HasSubstr("the bus configuration is not used"));
  EXPECT_THAT(status->err(), Not(HasSubstr("no agent")));
}

TEST(AgentProgram, StatusWithoutABusEndsWithOneAndSaysWhy) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  std::filesystem::remove(tree.at("lib/modules/libLunetClientMgr.so"));
  const auto status = tree.run({"--status"});
  EXPECT_EQ(1, status->wait());
  EXPECT_THAT(status->err(), HasSubstr("libLunetClientMgr.so"));
  EXPECT_THAT(status->out(), IsEmpty());
}

TEST(AgentProgram, StatusOfAnAgentThatDoesNotAnswerEndsWithOneAndSaysSo) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  Process silent({tree.program("lunetctl"), "--runtime", tree.path(), "listen", lunet::kAgentGuid});
  ASSERT_TRUE(silent.waitForOut("ready")) << silent.err();
  const auto status = tree.run({"--status"});
  EXPECT_EQ(1, status->wait());
  EXPECT_THAT(status->err(), HasSubstr("gives no answer"));
  EXPECT_THAT(silent.out(), HasSubstr("getBusList"));
}

TEST(AgentProgram, WhoseAddressAnotherProcessHasDoesNotServeAndSaysSo) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  Process other({tree.program("lunetctl"), "--runtime", tree.path(), "listen", lunet::kAgentGuid});
  ASSERT_TRUE(other.waitForOut("ready")) << other.err();
  const auto agent = tree.run({});
  EXPECT_EQ(1, agent->wait());
  EXPECT_THAT(agent->err(), HasSubstr("another process has the agent's address"));
}

TEST(AgentProgram, EndsWellAtAnInterruptToo) {
  AgentTree tree;
  tree.kill(SIGINT);
  EXPECT_EQ(0, tree.wait());
}

TEST(AgentProgram, AsADaemonItsCallerEndsWithZeroOnceItServes) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  const auto starter = tree.run({"--daemon"});
  EXPECT_EQ(0, starter->wait()) << starter->err();
  const auto status = tree.run({"--status"});
  EXPECT_EQ(0, status->wait()) << status->err();
  const pid_t pid = std::stoi(status->out().substr(4));
  EXPECT_NE(starter->pid(), pid);
  EXPECT_EQ("/", std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd"));
  EXPECT_EQ("/dev/null", std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/2"));
  ASSERT_EQ(0, ::kill(pid, SIGTERM));
  EXPECT_TRUE(waitFor([&] { return tree.run({"--status"})->wait() == 3; }));
}

/// The descriptors that a shell gives to the daemon: more than usual, or fewer.
struct Start {
  const char* name;
  const char* command;
};
class DaemonStartedBy : public ::testing::TestWithParam<Start> {};
TEST_P(DaemonStartedBy, AShellServesAndHoldsNothingOfIts) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  Process shell({"/bin/sh", "-c", GetParam().command, tree.program("tavagentd"), tree.path()});
  EXPECT_EQ(0, shell.wait()) << shell.err();
  EXPECT_EQ("started with 0\n", shell.out());
  const auto status = tree.run({"--status"});
  EXPECT_EQ(0, status->wait()) << status->err();
  ::kill(std::stoi(status->out().substr(4)), SIGTERM);
  EXPECT_TRUE(waitFor([&] { return tree.run({"--status"})->wait() == 3; }));
}
INSTANTIATE_TEST_SUITE_P(
    , DaemonStartedBy,
    ::testing::Values(
        Start{"WithAPipeOpen",
              "{ $0 --daemon --install-dir $1 7>&1 >/dev/null 2>&1; echo started with $?; } | cat"},
        Start{"WithoutStandardDescriptors",
              "$0 --daemon --install-dir $1 <&- >&- 2>&-; echo started with $?"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(AgentProgram, AsADaemonThatCannotServeItsCallerHearsWhy) {
  AgentTree tree;
  const auto second = tree.run({"--daemon"});
  EXPECT_EQ(4, second->wait());
  EXPECT_THAT(second->err(), HasSubstr("another agent"));
}

TEST(AgentProgram, WithoutABusLibraryItEndsWithALineThatNamesIt) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  std::filesystem::remove(tree.at("lib/modules/libLunetClientMgr.so"));
  const auto agent = tree.run({});
  EXPECT_EQ(1, agent->wait());
  EXPECT_THAT(agent->err(), HasSubstr("libLunetClientMgr.so"));
}

/// With a bus library that counts: who may ask as soon as the address is open must find the methods there.
TEST(AgentProgram, OffersItsMethodsBeforeItOpensItsAddress) {
  const AgentTree tree({.group = "", .start = false, .uid = {}});
  std::filesystem::copy_file(TAV_LIB_DIR "/libagent_counting_bus.so",
                             tree.at("lib/modules/libLunetClientMgr.so"),
                             std::filesystem::copy_options::overwrite_existing);
  const auto agent = tree.run({});
  EXPECT_EQ(1, agent->wait());
  EXPECT_THAT(agent->err(), HasSubstr("opening the agent's address failed: bus error 0x00000002"));
}

TEST(AgentProgram, WithoutSignaturesItServesAndAScanSaysWhyItCannotBeMade) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  std::filesystem::remove_all(tree.at("etc/agent/signatures"));
  tree.start();
  PeerConsole console(tree);
  const Json::Value answer = console.startScan({tree.data()});
  EXPECT_FALSE(answer["status"].asBool());
  EXPECT_THAT(answer["detail"].asString(), HasSubstr("signatures"));
  EXPECT_TRUE(console.waitForState(TaskState::kNotCreated));
}

TEST(AgentProgram, NewSignaturesAreLoadedOnHangup) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  tree.start();
  PeerConsole console(tree);
  const std::string path = tree.write("found-later", "a text that is in no database, at first: 5c0ffee5");
  ASSERT_TRUE(
      console.waitForState(TaskState::kFinished, console.startScan({tree.data()})["token_id"].asString()));
  ASSERT_THAT(console.messages("reportRiskInfo"), IsEmpty());
  std::string hex;
  for (const char c : std::string("at first: 5c0ffee5")) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    hex += pair;
  }
  {
    const std::string file = tree.at("etc/agent/signatures/extra.ndb");
    std::FILE* out = std::fopen(file.c_str(), "we");
    ASSERT_NE(nullptr, out);
    std::fprintf(out, "TAV.Test.Later:0:*:%s\n", hex.c_str());
    std::fclose(out);
  }
  tree.kill(SIGHUP);
  ASSERT_TRUE(waitFor([&] { return tree.log().find("loaded again") != std::string::npos; })) << tree.log();
  ASSERT_TRUE(
      console.waitForState(TaskState::kFinished, console.startScan({tree.data()})["token_id"].asString()));
  EXPECT_EQ(1U, console.messages("reportRiskInfo").size());
}

std::size_t countOf(const std::string& what, const std::string& text) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) {
    ++count;
  }
  return count;
}

/// The value of a line of /proc/<pid>/status.
std::string statusOf(pid_t pid, const std::string& key) {
  const std::string text = "\n" + testsupport::readFile("/proc/" + std::to_string(pid) + "/status");
  const std::size_t at = text.find("\n" + key + ":");
  const std::size_t begin = at == std::string::npos ? at : text.find_first_not_of(" \t", at + key.size() + 2);
  return begin == std::string::npos ? "" : text.substr(begin, text.find('\n', begin) - begin);
}

TEST(AgentProgram, AHangupWhileSignaturesAreLoadedLeadsToOneMoreLoad) {
  AgentTree tree;
  const pid_t agent = tree.agent().pid();
  ASSERT_TRUE(waitFor([&] { return tree.log().find("signatures:") != std::string::npos; }));
  pid_t spawner = 0;
  for (const pid_t pid : processesOf(agent)) {
    spawner = statusOf(pid, "Name") == "tav-spawner" ? pid : spawner;
  }
  ASSERT_NE(0, spawner);
  ::kill(spawner, SIGSTOP);  // a load that takes its time
  const std::string threads = statusOf(agent, "Threads");
  const std::string none(16, '0');
  tree.kill(SIGHUP);
  EXPECT_TRUE(waitFor([&] { return statusOf(agent, "Threads") != threads; }));
  tree.kill(SIGHUP);
  EXPECT_TRUE(waitFor([&] { return statusOf(agent, "ShdPnd") == none; }));
  ::kill(spawner, SIGCONT);
  EXPECT_TRUE(waitFor([&] { return countOf("signatures were loaded again", tree.log()) == 2; }))
      << tree.log();
}

TEST(AgentProgram, ThatIsEndedWhileSignaturesAreLoadedAgainDoesNotWaitForThem) {
  AgentTree tree;
  ASSERT_TRUE(waitFor([&] { return tree.log().find("signatures:") != std::string::npos; }));
  std::filesystem::path file;
  for (const auto& entry : std::filesystem::directory_iterator(tree.at("etc/agent/signatures"))) {
    file = entry.path();
  }
  const testsupport::HeldFile held(file.string());
  const std::string threads = statusOf(tree.agent().pid(), "Threads");
  tree.kill(SIGHUP);
  EXPECT_TRUE(waitFor([&] { return statusOf(tree.agent().pid(), "Threads") != threads; }));
  tree.kill(SIGTERM);
  EXPECT_EQ(0, tree.wait());
  EXPECT_THAT(tree.log(), HasSubstr("the agent is ending"));
}

TEST(AgentProgram, DoesNotScanWhereItsWorkersUnpack) {
  AgentTree tree;
  PeerConsole console(tree);
  int found = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(tree.agent().pid()) + "/fd")) {
    std::error_code error;
    const std::string folder = std::filesystem::read_symlink(entry, error).string();
    if (folder.find("/tavagent-") != std::string::npos) {  // its lock
      ++found;
      const Json::Value answer = console.startScan({folder});
      EXPECT_FALSE(answer["status"].asBool()) << folder;
      EXPECT_THAT(answer["detail"].asString(), HasSubstr("agent itself")) << folder;
    }
  }
  EXPECT_EQ(2, found);
  struct stat status {};
  ASSERT_EQ(0, stat(tree.at("state/tmp").c_str(), &status));
  EXPECT_EQ(0700U, status.st_mode & 0777U);
}

TEST(AgentProgram, TakesWhatItNeedsWhateverItsCallersLimitsAre) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  const rlimit few{100, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  const mode_t mask = umask(077);
  tree.start();
  umask(mask);
  setrlimit(RLIMIT_NOFILE, &before);
  rlimit agents{};
  ASSERT_EQ(0, prlimit(tree.agent().pid(), RLIMIT_NOFILE, nullptr, &agents));
  EXPECT_EQ(agents.rlim_max, agents.rlim_cur);
  EXPECT_EQ("0022", statusOf(tree.agent().pid(), "Umask"));
  const std::uint64_t ignored = std::stoull(statusOf(tree.agent().pid(), "SigIgn"), nullptr, 16);
  EXPECT_NE(0U, ignored >> (SIGPIPE - 1) & 1U);
  for (const int signal : {SIGINT, SIGHUP, SIGTERM}) {
    EXPECT_EQ(0U, ignored >> (signal - 1) & 1U) << signal;
  }
}

TEST(AgentProgram, ASystemDatabaseThatDoesNotLoadIsAnErrorInItsLog) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  std::filesystem::create_directory(tree.systemSignatures());
  std::ofstream(tree.systemSignatures() + "/broken.ndb") << "this is no signature\n";
  tree.start();
  ASSERT_TRUE(waitFor([&] { return tree.log().find("signatures:") != std::string::npos; }));
  std::istringstream lines(tree.log());
  for (std::string line; std::getline(lines, line);) {
    if (line.find("signatures:") != std::string::npos) {
      EXPECT_THAT(line, HasSubstr("ERROR"));
    }
  }
}

TEST(AgentProgram, ALongRequestDoesNotFillItsLog) {
  AgentTree tree;
  PeerConsole console(tree);
  Json::Value request = jsonOf(R"({"config_type":0,"request_source":1})");
  request["config_str"] = std::string(1 << 20, 'x');
  EXPECT_FALSE(console.call("setAVConfig", request).asBool());
  const std::string log = tree.log();
  EXPECT_THAT(log, HasSubstr("change settings by user 0"));
  EXPECT_LT(log.size(), 100'000U);
}

TEST(AgentProgram, AMessageNestedTooDeepIsInItsLog) {
  AgentTree tree;
  Process sender({tree.program("lunetctl"), "--runtime", tree.path(), "send", lunet::kAgentGuid,
                  R"({"method":)" + std::string(3000, '[')});
  EXPECT_EQ(0, sender.wait()) << sender.err();
  EXPECT_TRUE(waitFor([&] {
    return tree.log().find("is not read: it is nested deeper than the limit of 64") != std::string::npos;
  })) << tree.log();
}

TEST(AgentProgram, LostTasksAreToldOfBeforeTheFirstRequestIsServed) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  {
    const auto store = agent::Store::open(tree.at("state"));
    agent::TaskRecord lost;
    lost.scanType = json::toNumber(json::ScanMode::kCustom);
    lost.ownerGuid = lunet::kConsoleGuid;
    lost.ownerPid = 1;
    for (int i = 0; i < 2000; ++i) {
      lost.token = "lost-" + std::to_string(i);
      store->tasks().put(lost);
    }
  }
  PeerConsole console(tree);
  auto first = std::async(std::launch::async, [&] {
    return waitFor([&] {
      try {
        const Json::Value request = jsonOf(R"({"config_str":"{}","config_type":0,"request_source":1})");
        console.call("setAVConfig", request);
        return true;
      } catch (const std::exception&) {
        return false;  // it does not serve yet
      }
    });
  });
  tree.start();
  ASSERT_TRUE(first.get());
  const std::string log = tree.log();
  EXPECT_EQ(2000U, countOf("was lost with an earlier run", log));
  EXPECT_LT(log.rfind("was lost with an earlier run"), log.find("change settings by user 0"));
}

class AgentTasks : public ::testing::Test {
 protected:
  std::string startBusy(PeerConsole& console) {
    const Json::Value answer = console.startScan({tree.busyFolder()}, slowly());
    EXPECT_TRUE(answer["status"].asBool()) << answer.toStyledString();
    const std::string token = answer["token_id"].asString();
    EXPECT_TRUE(console.waitForState(TaskState::kStarted, token));
    return token;
  }
  AgentTree tree;
};

TEST_F(AgentTasks, ASecondScanOfTheSameModeIsStateSixAndAnsweredFalse) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  const Json::Value second = console.startScan({tree.data()}, jsonOf(R"({"scan_type":5})"));
  EXPECT_FALSE(second["status"].asBool());
  const std::string refused = second["token_id"].asString();
  EXPECT_NE(token, refused);
  ASSERT_TRUE(console.waitForState(TaskState::kSameModeExists, refused));
  EXPECT_THAT(console.states(refused), ElementsAre(TaskState::kSameModeExists));
  EXPECT_TRUE(console.control(kStop, token));
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token));
}

TEST_F(AgentTasks, AScanCanBePausedResumedAndStopped) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  EXPECT_TRUE(console.control(kPause, token));
  ASSERT_TRUE(console.waitForState(TaskState::kPaused, token));
  const std::size_t quiet = console.messages().size();
  const Json::Value list = console.call("getBusList", Json::Value());
  ASSERT_EQ(1U, list.size());
  EXPECT_EQ(token, list[0]["token_id"].asString());
  EXPECT_EQ(json::toNumber(json::BusinessType::kScan), list[0]["type"].asInt());
  EXPECT_EQ(json::toNumber(TaskState::kPaused), list[0]["state"].asInt());
  EXPECT_EQ(quiet, console.messages().size());
  EXPECT_TRUE(console.control(kResume, token));
  ASSERT_TRUE(console.waitForState(TaskState::kResumed, token));
  EXPECT_TRUE(console.control(kStop, token));
  ASSERT_TRUE(console.waitForState(TaskState::kAborted, token));
  EXPECT_THAT(console.states(token), ElementsAre(TaskState::kCreated, TaskState::kStarted, TaskState::kPaused,
                                                 TaskState::kResumed, TaskState::kAborted));
  EXPECT_EQ("by the test", console.last("reportBusStatus")["detail"].asString());
  EXPECT_EQ(0U, console.call("getBusList", Json::Value()).size());
}

TEST_F(AgentTasks, APausedScanCanBeStopped) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  EXPECT_TRUE(console.control(kPause, token));
  ASSERT_TRUE(console.waitForState(TaskState::kPaused, token));
  EXPECT_TRUE(console.control(kStop, token));
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token));
}

TEST_F(AgentTasks, WhatNamesNoTaskOrNoActionIsAnsweredFalse) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  EXPECT_FALSE(console.control(kStop, ""));
  EXPECT_FALSE(console.control(kStop, "no-such-token"));
  EXPECT_FALSE(console.control(json::ControlAction{9}, token));
  EXPECT_FALSE(console.control(kResume, token));
  EXPECT_TRUE(console.control(kStop, token));
}

TEST_F(AgentTasks, TheTimeLimitOfARequestEndsTheScan) {
  PeerConsole console(tree);
  Json::Value changes = slowly();
  changes["max_scan_sec"] = 1;
  const std::string token = console.startScan({tree.busyFolder()}, changes)["token_id"].asString();
  ASSERT_TRUE(console.waitForState(TaskState::kAborted, token));
  EXPECT_THAT(console.last("reportBusStatus")["detail"].asString(), HasSubstr("time limit"));
}

TEST_F(AgentTasks, ProgressComesWhileAScanRuns) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  EXPECT_TRUE(waitFor([&] { return console.messages("reportBusProgress").size() >= 2; }));
  EXPECT_TRUE(waitFor([&] { return console.messages("reportScanBusOverView").size() >= 2; }));
  EXPECT_TRUE(console.control(kStop, token));
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token));
}

TEST_F(AgentTasks, SigtermEndsTasksWithStateFiveAndLeavesNothingBehind) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  const std::set<pid_t> family = processesOf(tree.agent().pid());
  ASSERT_GE(family.size(), 2U);
  tree.kill(SIGTERM);
  EXPECT_EQ(0, tree.wait());
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token));
  for (const pid_t pid : family) {
    // Gone, or dead and not yet collected by whoever inherited it.
    EXPECT_TRUE(waitFor([&] {
      const std::string stat = testsupport::readFile("/proc/" + std::to_string(pid) + "/stat");
      return stat.empty() || stat.find(") Z ") != std::string::npos;
    })) << pid;
  }
  EXPECT_FALSE(std::filesystem::exists(tree.at("run/lunet/FBE54D8E-D8E6-41F8-BE05-A94CE5469587.sock")));
  EXPECT_TRUE(std::filesystem::is_empty(tree.at("state/tmp")));
}

/// A stopped console finishes no handshake: the agent that was started again waits with its first
/// notification.
TEST_F(AgentTasks, AtSigtermAConsoleHasTimeToTakeTheEndsOfItsTasks) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  tree.kill(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, tree.wait());
  {
    const auto store = agent::Store::open(tree.at("state"));
    const std::vector<agent::TaskRecord> tasks = store->tasks().all();
    ASSERT_EQ(1U, tasks.size());
    agent::TaskRecord other = tasks[0];
    other.token = "other";
    store->tasks().put(other);
  }
  console.process().kill(SIGSTOP);
  tree.start();
  tree.kill(SIGTERM);
  EXPECT_FALSE(waitFor([&] { return tree.log().find("not every console has taken") != std::string::npos; },
                       std::chrono::milliseconds(500)));
  console.process().kill(SIGCONT);
  EXPECT_EQ(0, tree.wait());
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token));
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, "other"));
}

TEST_F(AgentTasks, AnEndThatAConsoleHasNotTakenAtSigtermIsLoggedAndToldAtTheNextStart) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  tree.kill(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, tree.wait());
  console.process().kill(SIGSTOP);
  tree.start();
  tree.kill(SIGTERM);
  EXPECT_EQ(0, tree.wait());
  EXPECT_THAT(tree.log(), HasSubstr("not every console has taken the end of its task"));
  console.process().kill(SIGCONT);
  tree.start();
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token)) << tree.log();
}

/// As the server of a FUSE file system: takes the greeting. From then on whoever asks waits for an answer.
bool takeGreeting(int server) {
  std::array<char, 65536> request{};
  if (read(server, request.data(), request.size()) < static_cast<ssize_t>(sizeof(fuse_in_header))) {
    return false;
  }
  fuse_in_header asked;
  std::memcpy(&asked, request.data(), sizeof asked);
  struct {
    fuse_out_header header;
    fuse_init_out body;
  } answer{};
  answer.header = {sizeof answer, 0, asked.unique};
  answer.body.major = FUSE_KERNEL_VERSION;
  answer.body.minor = FUSE_KERNEL_MINOR_VERSION;
  answer.body.max_write = 4096;
  return asked.opcode == FUSE_INIT && write(server, &answer, sizeof answer) == sizeof answer;
}

bool isAsked(int server) {
  pollfd watched{server, POLLIN, 0};
  return poll(&watched, 1, 0) == 1 && (watched.revents & POLLIN) != 0;
}

TEST(AgentProgram, AScanThatHangsInAFileSystemKeepsItFromEndingForALimitedTimeOnly) {
  AgentTree tree({.group = "", .start = false, .uid = {}});
  std::filesystem::create_directory(tree.data() + "/hung");
  const platform::Descriptor server(open("/dev/fuse", O_RDWR | O_CLOEXEC));
  if (const std::string why = testsupport::whyNoOwnMounts(); !server || !why.empty()) {
    GTEST_SKIP() << "needs /dev/fuse and mounts of its own: " << why;
  }
  const auto mountIt = [&] {
    const std::string options = "fd=" + std::to_string(server.get()) + ",rootmode=40000,user_id=0,group_id=0";
    return mount("hung", (tree.data() + "/hung").c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
  };
  const auto endDuringAScan = [&] {
    ASSERT_TRUE(takeGreeting(server.get()));
    tree.start();
    PeerConsole console(tree);
    ASSERT_TRUE(console.startScan({tree.data()}, slowly())["status"].asBool());
    ASSERT_TRUE(waitFor([&] { return isAsked(server.get()); }));
    tree.kill(SIGTERM);
    EXPECT_EQ(1, tree.agent().wait(std::chrono::seconds(40)));
  };
  EXPECT_TRUE(agent::withOwnMounts(mountIt, endDuringAScan));
}

TEST_F(AgentTasks, AfterAKillDuringAScanItsOwnerHearsStateFiveAndTheNextCallWorks) {
  PeerConsole console(tree);
  const std::string token = startBusy(console);
  tree.kill(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, tree.wait());
  EXPECT_THROW(console.call("getBusList", Json::Value()), std::runtime_error);
  tree.start();
  ASSERT_TRUE(console.waitForState(TaskState::kAborted, token)) << tree.log();
  EXPECT_THAT(console.last("reportBusStatus")["detail"].asString(), HasSubstr("started again"));
  EXPECT_EQ(0U, console.call("getBusList", Json::Value()).size());
  tree.kill(SIGTERM);
  EXPECT_EQ(0, tree.wait());
  tree.start();
  tree.write("small/file", "x");
  const std::string next = console.startScan({tree.data() + "/small"})["token_id"].asString();
  EXPECT_TRUE(console.waitForState(TaskState::kFinished, next));
  const std::vector<TaskState> seen = console.states(token);
  EXPECT_EQ(1, std::count(seen.begin(), seen.end(), TaskState::kAborted));
}

TEST_F(AgentTasks, AnEndedTaskIsNotToldOfAfterARestart) {
  PeerConsole console(tree);
  tree.write("file", "x");
  const std::string token = console.startScan({tree.data()})["token_id"].asString();
  ASSERT_TRUE(console.waitForState(TaskState::kFinished, token));
  ASSERT_TRUE(waitFor([&] { return console.call("getBusList", Json::Value()).empty(); }));
  tree.kill(SIGTERM);
  ASSERT_EQ(0, tree.wait());
  tree.start();
  console.call("getBusList", Json::Value());
  EXPECT_THAT(console.states(token),
              ElementsAre(TaskState::kCreated, TaskState::kStarted, TaskState::kFinished));
}

TEST_F(AgentTasks, WhenTheOwnerIsGoneNothingReachesTheNextConsole) {
  std::string token;
  {
    PeerConsole first(tree);
    token = startBusy(first);
  }
  PeerConsole second(tree);
  const std::string file = tree.write("own/eicar.com", eicar());
  const Json::Value refused = second.startScan({tree.data() + "/own"});
  EXPECT_TRUE(second.waitForState(TaskState::kSameModeExists, refused["token_id"].asString()));
  EXPECT_TRUE(second.control(kStop, token));
  ASSERT_TRUE(waitFor([&] { return second.call("getBusList", Json::Value()).empty(); }));
  const std::string own = second.startScan({tree.data() + "/own"})["token_id"].asString();
  ASSERT_TRUE(second.waitForState(TaskState::kFinished, own));
  for (const auto& notice : second.messages()) {
    EXPECT_NE(token, notice.params["token_id"].asString()) << notice.method;
  }
  EXPECT_EQ(file, second.last("reportRiskFixInfo")["risk_info"]["item"].asString());
}

TEST_F(AgentTasks, AConsoleThatDoesNotReadHoldsUpNeitherItsScanNorAnother) {
  PeerConsole stalled(tree);
  for (int i = 0; i < 300; ++i) {
    tree.write("many/" + std::to_string(i), eicar());
  }
  const Json::Value answer = stalled.startScan({tree.data() + "/many"});
  ASSERT_TRUE(answer["status"].asBool());
  stalled.process().kill(SIGSTOP);
  const std::string log = answer["token_id"].asString() + " finished";
  EXPECT_TRUE(waitFor([&] { return tree.log().find(log) != std::string::npos; }));
  stalled.process().kill(SIGCONT);
  EXPECT_TRUE(stalled.waitForState(TaskState::kFinished, answer["token_id"].asString()));
  EXPECT_EQ(300U, stalled.messages("reportRiskFixInfo").size());
}

TEST_F(AgentTasks, AFastScanTellsItsStagesInPairs) {
  PeerConsole console(tree);
  const std::string token =
      console.startScan({}, jsonOf(R"({"scan_type":0,"parallelism":1})"))["token_id"].asString();
  ASSERT_TRUE(waitFor([&] { return !console.messages("reportScanBusStage").empty(); }));
  EXPECT_EQ(0, console.messages("reportScanBusStage")[0].params["stage"].asInt());
  EXPECT_TRUE(console.messages("reportScanBusStage")[0].params["datail"].isString());
  ASSERT_TRUE(waitFor([&] { return console.messages("reportScanBusStage").size() >= 3; }));
  console.control(kStop, token);
  EXPECT_TRUE(console.waitForState(TaskState::kAborted, token) ||
              console.waitForState(TaskState::kFinished, token));
  const auto stages = console.messages("reportScanBusStage");
  EXPECT_EQ(1, stages[1].params["stage"].asInt());
  EXPECT_EQ(2, stages[2].params["stage"].asInt());
}

TEST(AgentOfAUser, ServesThatUserWithThatUsersRights) {
  AgentTree tree({.group = "", .start = true, .uid = kUser});
  Process::Options user;
  user.uid = kUser;
  user.gid = kUser;
  PeerConsole console(tree, user);
  tree.write("readable", eicar());
  const std::string hidden = tree.write("roots", eicar());
  ASSERT_EQ(0, chmod(hidden.c_str(), 0600));
  const Json::Value answer = console.startScan({tree.data()});
  ASSERT_TRUE(answer["status"].asBool()) << answer.toStyledString();
  ASSERT_TRUE(console.waitForState(TaskState::kFinished, answer["token_id"].asString()));
  EXPECT_EQ(1U, console.messages("reportRiskInfo").size());
  EXPECT_EQ(1, console.last("reportScanBusOverView")["overview"]["failed_item_count"].asInt());
}

/// A second user on the bus, admitted by a supplementary group.
class AgentSecondUser : public ::testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& content, uid_t uid, mode_t mode) {
    const std::string path = tree.write(name, content);
    EXPECT_EQ(0, chown(path.c_str(), uid, 0));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
  void scan(PeerConsole& console, const std::vector<std::string>& items, const char* changes) {
    const Json::Value answer = console.startScan(items, jsonOf(changes));
    ASSERT_TRUE(answer["status"].asBool()) << answer.toStyledString() << tree.log();
    ASSERT_TRUE(console.waitForState(TaskState::kFinished, answer["token_id"].asString()));
  }
  /// A process of root makes the call and then ends.
  Json::Value callAsRoot(const std::string& method, const Json::Value& params) {
    Json::Value request = jsonOf(R"({"jsonrpc":"2.0","id":1})");
    request["method"] = method;
    request["params"] = params;
    const std::string text = testsupport::jsonText(request);
    Process process({tree.program("lunetctl"), "--runtime", tree.path(), "call", lunet::kAgentGuid, text});
    EXPECT_EQ(0, process.wait()) << process.err();
    return jsonOf(process.out())["result"];
  }
  AgentTree tree{{.group = secondUsersGroup(), .start = true, .uid = {}}};
  PeerConsole user{tree, secondUser()};
};

TEST_F(AgentSecondUser, WhatHeCannotReadIsAnErrorAndNotReadForHim) {
  const std::string hidden = file("hidden", eicar(), 0, 0600);
  const std::string open = file("open", eicar(), 0, 0644);
  scan(user, {tree.data()}, "{}");
  const auto risks = user.messages("reportRiskInfo");
  ASSERT_EQ(1U, risks.size());
  EXPECT_EQ(open, risks[0].params["risk_info"]["item"].asString());
  EXPECT_EQ(1, user.last("reportScanBusOverView")["overview"]["failed_item_count"].asInt());
  EXPECT_THAT(tree.log(), HasSubstr(hidden + ": not scanned: Permission denied"));
}

TEST_F(AgentSecondUser, APathHeCannotOpenIsStateMinusOne) {
  const std::string hidden = file("hidden", eicar(), 0, 0600);
  const Json::Value answer = user.startScan({hidden});
  EXPECT_FALSE(answer["status"].asBool());
  EXPECT_THAT(answer["detail"].asString(), HasSubstr("Permission denied"));
}

TEST_F(AgentSecondUser, WhatHeCouldNotRemoveHimselfIsNotQuarantinedForHim) {
  const std::string foreign = file("foreign", eicar(), 0, 0644);
  const std::string ownHere = file("own-in-foreign-folder", eicar(), kUser, 0644);
  const std::string ownThere = file("user/own", eicar(), kUser, 0644);
  ASSERT_EQ(0, chown((tree.data() + "/user").c_str(), kUser, 0));
  scan(user, {tree.data()}, R"({"fix_method":0})");
  EXPECT_TRUE(std::filesystem::exists(foreign));
  EXPECT_TRUE(std::filesystem::exists(ownHere));
  EXPECT_FALSE(std::filesystem::exists(ownThere)) << tree.log();
  std::set<int> results;
  for (const auto& notice : user.messages("reportRiskFixInfo")) {
    const bool own = notice.params["risk_info"]["item"].asString() == ownThere;
    EXPECT_EQ(json::toNumber(own ? json::HandleResult::kQuarantined : json::HandleResult::kFailed),
              notice.params["risk_repair_result"]["handle_result"].asInt());
  }
}

TEST_F(AgentSecondUser, SeesAndControlsHisOwnTasksOnly) {
  Json::Value params = slowly();
  params["scan_type"] = json::toNumber(json::ScanMode::kCustom);
  params["fix_method"] = json::toFixMethod(json::Handling::kReportOnly);
  params["items"].append(tree.busyFolder());
  Json::Value request = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":""})");
  request["params"] = params;
  const std::string token = callAsRoot("startScanTask", request)["token_id"].asString();
  ASSERT_EQ(1U, callAsRoot("getBusList", Json::Value()).size());
  EXPECT_EQ(0U, user.call("getBusList", Json::Value()).size());
  EXPECT_FALSE(user.control(kStop, token));
  EXPECT_EQ(1U, callAsRoot("getBusList", Json::Value()).size());
  Json::Value stop = jsonOf(R"({"action":1,"detail":"","mark":8,"payload":null,"source":1})");
  stop["token_id"] = token;
  EXPECT_TRUE(callAsRoot("ctlBus", stop).asBool());
  ASSERT_TRUE(waitFor([&] { return callAsRoot("getBusList", Json::Value()).empty(); }));

  const std::string own = user.startScan({tree.busyFolder()}, slowly())["token_id"].asString();
  EXPECT_EQ(1U, user.call("getBusList", Json::Value()).size());
  EXPECT_TRUE(user.control(kStop, own));
  EXPECT_TRUE(user.waitForState(TaskState::kAborted, own));
}

TEST_F(AgentSecondUser, MaySeeHisOwnQuarantinedItemsOnly) {
  file("user/own", eicar(), kUser, 0644);
  ASSERT_EQ(0, chown((tree.data() + "/user").c_str(), kUser, 0));
  file("roots/file", eicar(), 0, 0644);
  Json::Value request = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":""})");
  request["params"] = jsonOf(R"({"scan_type":2,"fix_method":0})");
  request["params"]["items"].append(tree.data());
  callAsRoot("startScanTask", request);
  ASSERT_TRUE(waitFor([&] { return callAsRoot("getIsolationInfo", Json::Value()).size() == 2; }))
      << tree.log();
  EXPECT_EQ(1U, user.call("getIsolationInfo", Json::Value()).size());
}

TEST_F(AgentSecondUser, AMemberOfTheGroupMayNotChangeSettings) {
  EXPECT_FALSE(
      user.call("setAVConfig", jsonOf(R"({"config_str":"{\"Common\":{\"SkipSize\":3}}","config_type":0,
                                                 "request_source":1})"))
          .asBool());
}

TEST_F(AgentSecondUser, WithoutTheGroupHeIsNotLetIn) {
  Process::Options options = secondUser();
  options.groups = {};
  Process stranger({tree.program("lunetctl"), "--runtime", tree.path(), "call", lunet::kAgentGuid,
                    R"({"jsonrpc":"2.0","id":1,"method":"getBusList"})"},
                   options);
  EXPECT_NE(0, stranger.wait());
  EXPECT_NE("", stranger.err()) << "it ran";
  EXPECT_EQ("", stranger.out());
}

}  // namespace
