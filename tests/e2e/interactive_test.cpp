// The prompt without a terminal: the lines come through a pipe.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "json/Values.h"
#include "support/InstallTree.h"
#include "support/LunetctlAgent.h"

namespace {

using json::TaskState;
using testing::HasSubstr;
using testing::Not;
using testsupport::InstallTree;
using testsupport::LunetctlAgent;
using testsupport::Process;

class PipedConsole : public testing::Test {
 protected:
  void start() {
    console_ = tree_.console();
    ASSERT_TRUE(console_->waitForOut(kLastLoaded)) << console_->out() << console_->err();
  }
  /// The output after the lines of the start.
  std::string answer() const {
    const std::string out = console_->out();
    return out.substr(out.find(kLastLoaded) + std::string_view(kLastLoaded).size());
  }
  /// Runs the lines to the end of input.
  std::string run(const std::string& lines) {
    start();
    console_->write(lines);
    console_->closeInput();
    exit_ = console_->wait().value_or(-1);
    return answer();
  }
  std::string historyFile() const { return tree_.at("home/tavcli/cli.history"); }

  static constexpr const char* kLastLoaded = "[Load Command] Trust\n";
  InstallTree tree_;
  LunetctlAgent agent_{tree_};
  std::unique_ptr<Process> console_;
  int exit_ = -1;
};

TEST_F(PipedConsole, StartsWithItsMarkItsLogSummaryAndItsModules) {
  run("");
  EXPECT_EQ(console_->out(),
            "Container[A4F72BA6-6DE6-44D4-B955-5A880273427E] single process mark create success\n"
            "=====initLog=====\nloglevel:1\nlogSize:1048576\nlogName:tavcli\nlogPath:" +
                tree_.at("log/") +
                "/\nlogBackupMaxNum:5\n[Load Command] Cache\n[Load Command] Config\n[Load Command] Isolate\n"
                "[Load Command] Scan\n[Load Command] Trust\n");
  EXPECT_EQ(exit_, 0);
}

TEST_F(PipedConsole, WritesNoPrompt) {
  EXPECT_THAT(run("\n \n"), Not(HasSubstr("TAV>")));
}

TEST_F(PipedConsole, RecordsItsPidInTheMark) {
  start();
  const std::string mark =
      testsupport::readFile(tree_.at("run/lunet/A4F72BA6-6DE6-44D4-B955-5A880273427E.mark"));
  EXPECT_EQ(mark, "pid=" + std::to_string(console_->pid()) + "\n");
}

TEST_F(PipedConsole, AMessageNestedTooDeepIsInTheLogThatTheShippedSettingsGive) {
  tree_.setDebugConfig(testsupport::readFile(TAV_SOURCE_DIR "/packaging/etc/debug/cli_debug.conf"));
  start();
  const auto sender = tree_.start(
      "lunetctl", {"--runtime", tree_.path(), "send", testsupport::kConsoleAddress, std::string(3000, '[')});
  EXPECT_EQ(sender->wait(), 0) << sender->err();
  EXPECT_TRUE(testsupport::waitFor([&] {
    return tree_.debugLog().find("is not read: it is no JSON, or nested too deep") != std::string::npos;
  })) << tree_.debugLog();
}

TEST_F(PipedConsole, EndOfInputSavesTheHistoryAndExits0) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\n");
  run("");
  EXPECT_EQ(exit_, 0);
  EXPECT_EQ(testsupport::readFile(historyFile()), "SCAN SHOW\n");
}

TEST_F(PipedConsole, ExitEndsTheLoopSavesTheHistoryAndExits0) {
  start();
  console_->write("exit\nSCAN SHOW\n");
  EXPECT_EQ(console_->wait(), 0);
  EXPECT_TRUE(std::filesystem::exists(historyFile()));
  EXPECT_EQ(answer(), "");
}

TEST_F(PipedConsole, ExitInCapitalsDoesNotEndTheLoop) {
  EXPECT_THAT(run("EXIT\nCACHE\n"), HasSubstr("缺少必要选项:"));
}

TEST_F(PipedConsole, ExitWithABlankBehindItDoesNotEndTheLoop) {
  EXPECT_THAT(run("exit \nCACHE\n"), HasSubstr("缺少必要选项:"));
}

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

TEST_F(PipedConsole, HistoryIsExecutedByTheShellAndThenListedByTheLoop) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\n");
  EXPECT_EQ(countOf(run("history\n"), "SCAN SHOW"), 2U);
}

TEST_F(PipedConsole, HistoryInCapitalsIsListedByTheShellOnly) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\n");
  EXPECT_EQ(countOf(run("HISTORY\n"), "SCAN SHOW"), 1U);
}

TEST_F(PipedConsole, AMissingHistoryFileIsNoError) {
  EXPECT_EQ(run(""), "");
  EXPECT_EQ(console_->err(), "");
  struct stat file {};
  ASSERT_EQ(stat(historyFile().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600U);
}

TEST_F(PipedConsole, ARefusedLineIsReportedAndTheNextOneIsRead) {
  EXPECT_EQ(countOf(run("CACHE\nCACHE\n"), "缺少必要选项:"), 2U);
  EXPECT_EQ(exit_, 0);
}

TEST_F(PipedConsole, QuitEndsAtOnceWithoutSavingTheHistory) {
  start();
  console_->write("QUIT now\nCACHE\n");
  EXPECT_EQ(console_->wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(historyFile()));
  EXPECT_EQ(answer(), "");
  const auto list = tree_.start("lunetctl", {"--runtime", tree_.path(), "list"});
  list->wait();
  EXPECT_THAT(list->out(), Not(HasSubstr(testsupport::kConsoleAddress))) << "the link was taken down";
}

TEST_F(PipedConsole, StartsAScanAndShowsItsNotifications) {
  start();
  console_->write("scan start handle auto mode fast\n");
  const LunetctlAgent::Message call = agent_.waitForCall("startScanTask");
  EXPECT_EQ(call.params["params"]["scan_type"].asInt(), json::toNumber(json::ScanMode::kFast));
  Json::Value accepted;
  accepted["status"] = true;
  agent_.answer(call, accepted);
  agent_.state(TaskState::kStarted);
  agent_.overview(3, 1, "/data/x");
  agent_.repair("/data/x", "Eicar", 68, json::HandleResult::kQuarantined);
  agent_.state(TaskState::kFinished);
  ASSERT_TRUE(console_->waitForOut("扫描结束"));
  EXPECT_THAT(answer(), testing::StartsWith(
                            "\n扫描任务开始: \n\n当前检测项: /data/x\n\n已检测项: 3\n\n已检出异常项: 1\n"
                            "风险项名称 : Eicar\n处理结果 : \n修复时间 : 1970-01-01"));
  EXPECT_THAT(answer(), testing::EndsWith("----------------------------------------\n\n扫描结束\n"));
  EXPECT_THAT(answer(), Not(HasSubstr("exitvalue")));
}

TEST_F(PipedConsole, SurvivesTheLossOfTheAgentAndUsesTheNextOne) {
  start();
  agent_.kill();
  console_->write("SCAN SHOW\nCACHE\n");
  ASSERT_TRUE(console_->waitForOut("缺少必要选项:"));
  LunetctlAgent next(tree_);
  console_->write("SCAN SHOW\n");
  Json::Value tasks(Json::arrayValue);
  tasks[0]["token_id"] = "abc";
  tasks[0]["type"] = json::toNumber(json::BusinessType::kScan);
  next.answer(next.waitForCall("getBusList"), tasks);
  EXPECT_TRUE(console_->waitForOut("Task: abc is running\n"));
}

class PipedConsoleSignal : public PipedConsole, public testing::WithParamInterface<int> {};

TEST_P(PipedConsoleSignal, EndsTheLoopAsEndOfInputDoes) {
  tree_.write("home/tavcli/cli.history", "SCAN SHOW\n");
  start();
  console_->write("CACHE\n");
  ASSERT_TRUE(console_->waitForOut("缺少必要选项:"));
  console_->kill(GetParam());
  EXPECT_EQ(console_->wait(), 0);
  EXPECT_EQ(testsupport::readFile(historyFile()), "SCAN SHOW\n");
  const auto list = tree_.start("lunetctl", {"--runtime", tree_.path(), "list"});
  list->wait();
  EXPECT_THAT(list->out(), Not(HasSubstr(testsupport::kConsoleAddress)));
}

TEST_P(PipedConsoleSignal, EndsAListOfRequestsBehindTheOneThatWaits) {
  start();
  console_->write("CONFIG SHOW\n");
  const LunetctlAgent::Message first = agent_.waitForCall("getAVConfig");
  console_->kill(GetParam());
  agent_.answer(first, "{}");
  EXPECT_EQ(console_->wait(), 0);
  EXPECT_EQ(agent_.callsTaken(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Interactive, PipedConsoleSignal, testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const auto& row) { return std::string("Sig") + sigabbrev_np(row.param); });

TEST_F(PipedConsole, LoadsFewLibraries) {
  start();
  std::set<std::string> loaded;
  std::istringstream maps(testsupport::readFile("/proc/" + std::to_string(console_->pid()) + "/maps"));
  for (std::string line; std::getline(maps, line);) {
    if (const std::size_t path = line.find('/');
        path != std::string::npos && line.find(".so") != std::string::npos) {
      loaded.insert(std::filesystem::path(line.substr(path)).filename());
    }
  }
  for (const std::string& library : loaded) {
    EXPECT_THAT(library, Not(testing::AnyOf(HasSubstr("curl"), HasSubstr("microhttpd"), HasSubstr("ssl"),
                                            HasSubstr("clamav"), HasSubstr("jsonrpc"))));
  }
#ifndef TAV_SANITIZED
  EXPECT_LE(loaded.size(), 12U) << testing::PrintToString(loaded);
#endif
}

}  // namespace
