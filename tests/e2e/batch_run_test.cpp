// Whole unattended runs on the real bus, with an agent that the test plays.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "json/Values.h"
#include "platform/Descriptor.h"
#include "support/InstallTree.h"
#include "support/LunetctlAgent.h"

namespace {

using json::TaskState;
using testing::HasSubstr;
using testing::Not;
using testsupport::InstallTree;
using testsupport::LunetctlAgent;
using testsupport::Process;

class BatchRun : public testing::Test {
 protected:
  /// Starts a run; the quick console has short waits.
  void start(const char* program = "tavcli", const std::vector<std::string>& more = {},
             const std::string& second = "") {
    std::vector<std::string> command{std::string(TAV_BIN_DIR) + "/" + program, "-scanpath", scanned_,
                                     "-logpath", report_};
    command.insert(command.end(), more.begin(), more.end());
    Process::Options options = tree_.options();
    options.environment["TAV_TEST_SECOND_MS"] = second;
    console_ = std::make_unique<Process>(command, options);
  }
  int exitCode() { return console_->wait().value_or(-1); }
  std::string report() const { return testsupport::readFile(report_); }

  InstallTree tree_;
  std::unique_ptr<LunetctlAgent> agent_ = std::make_unique<LunetctlAgent>(tree_);
  std::string scanned_ = tree_.path();
  std::string report_ = tree_.at("report");
  std::unique_ptr<Process> console_;
};

TEST_F(BatchRun, OfACleanFolderEnds0AndLeavesAReport) {
  start();
  agent_->acceptScan();
  agent_->overview(12, 0);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(report(),
              testing::StartsWith("病毒查杀状态：1\n查杀路径：" + scanned_ +
                                  "\n本次扫描文件数量：12\n染毒文件数量：0\n病毒数量：0\n查杀时间：2"));
  EXPECT_EQ(console_->err(), "");
}

TEST_F(BatchRun, WithDetectionsEnds1AndNamesEachFile) {
  start();
  agent_->acceptScan();
  agent_->repair("/data/a/eicar.com", "Eicar", 68, json::HandleResult::kReportedOnly);
  agent_->repair("/data/b.zip", "Other", 1234, json::HandleResult::kQuarantined);
  agent_->overview(12, 2);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 1);
  EXPECT_THAT(report(), HasSubstr("染毒文件数量：2\n病毒数量：2\n"));
  EXPECT_THAT(report(),
              HasSubstr("\n染毒文件名：eicar.com\n染毒文件全路径：/data/a/eicar.com\n文件大小：68\n"
                        "病毒名称：Eicar\n病毒处理结果：3\n\n染毒文件名：b.zip\n染毒文件全路径：/data/b.zip\n"
                        "文件大小：1234\n病毒名称：Other\n病毒处理结果：1\n\n"));
}

TEST_F(BatchRun, TellsHowManyEntriesCouldNotBeScannedOnStandardErrorAlone) {
  start();
  agent_->acceptScan();
  agent_->overview(12, 0, "", 3);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_EQ(console_->err(),
            "tavcli: entries that could not be scanned: 3; see " + tree_.at("log/tavagentd.log") + "\n");
  EXPECT_THAT(console_->out(), testing::EndsWith("\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010000\n"));
  EXPECT_THAT(report(), HasSubstr("本次扫描文件数量：12\n染毒文件数量：0\n病毒数量：0\n"));
}

TEST_F(BatchRun, LeavesAPrivateReport) {
  start();
  agent_->acceptScan();
  agent_->state(TaskState::kFinished);
  exitCode();
  struct stat file {};
  ASSERT_EQ(lstat(report_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600U);
}

TEST_F(BatchRun, PrintsStatesProgressAndTheExitValuesOnly) {
  start();
  agent_->acceptScan();
  agent_->state(TaskState::kCreated);
  agent_->state(TaskState::kStarted);
  agent_->progress(50);
  agent_->overview(1, 0, "/data/current");
  agent_->repair("/data/x", "Eicar", 68, json::HandleResult::kReportedOnly);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  const std::string out = console_->out();
  const std::size_t loaded = out.find("[Load Command] Trust\n");
  ASSERT_NE(loaded, std::string::npos) << out;
  EXPECT_EQ(out.substr(loaded),
            "[Load Command] Trust\nFixMethod is 2, handle is 1\n\n扫描任务初始化\n\n扫描任务开始: "
            "\n\n扫描进度: 50%\n"
            "\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010000\n");
}

TEST_F(BatchRun, SendsTheScanThatItsOptionsName) {
  start();
  const Json::Value params = agent_->acceptScan();
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_EQ(params["items"].size(), 1U);
  EXPECT_EQ(params["items"][0].asString(), scanned_);
  EXPECT_EQ(params["scan_type"].asInt(), json::toNumber(json::ScanMode::kCustom));
  EXPECT_EQ(params["fix_method"].asInt(), json::toFixMethod(json::Handling::kReportOnly));
}

TEST_F(BatchRun, HandlesAutomaticallyWhenTheAgentsSettingsSaySo) {
  start();
  const Json::Value params = agent_->acceptScan(3);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_EQ(params["fix_method"].asInt(), json::toFixMethod(json::Handling::kAutomatic));
  EXPECT_THAT(report(), HasSubstr("病毒查杀状态：2\n"));
  EXPECT_THAT(console_->out(), HasSubstr("FixMethod is 3, handle is 2\n"));
}

TEST_F(BatchRun, OfARelativePathScansTheConsolesFolder) {
  scanned_ = ".";
  start();
  const Json::Value params = agent_->acceptScan();
  agent_->state(TaskState::kFinished);
  exitCode();
  EXPECT_EQ(std::filesystem::path(params["items"][0].asString()).lexically_normal(), tree_.at("bin") + "/");
}

TEST_F(BatchRun, OfAPathThatIsNotUtf8NamesTheVeryFolder) {
  scanned_ = tree_.at("d\xff");
  std::filesystem::create_directory(scanned_);
  start();
  const Json::Value params = agent_->acceptScan();
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_EQ(params["items"][0].asString(), tree_.at("d\xef\x9f\xbf"));  // U+F7FF
  EXPECT_THAT(report(), HasSubstr("查杀路径：" + tree_.at("d\\xff") + "\n"));
}

struct Ending {
  const char* name;
  TaskState state;
  const char* text;
};

/// The states that end a run before the regular end of its task.
class BatchRunEndedBy : public BatchRun, public testing::WithParamInterface<Ending> {};

TEST_P(BatchRunEndedBy, WithoutDetectionsGives0AndAReport) {
  start();
  agent_->acceptScan();
  agent_->overview(3, 0);
  agent_->state(GetParam().state, "the reason");
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(report(), HasSubstr("本次扫描文件数量：3\n"));
  EXPECT_THAT(console_->out(), testing::EndsWith(std::string("\n\n") + GetParam().text + "\n"));
  EXPECT_THAT(console_->err(), HasSubstr("the reason")) << "the exit status does not tell";
}

TEST_P(BatchRunEndedBy, WithDetectionsGives1AndAReport) {
  start();
  agent_->acceptScan();
  agent_->repair("/data/x", "Eicar", 68, json::HandleResult::kReportedOnly);
  agent_->overview(3, 1);
  agent_->state(GetParam().state);
  EXPECT_EQ(exitCode(), 1);
  EXPECT_THAT(report(), HasSubstr("染毒文件全路径：/data/x\n"));
}

const Ending kEndings[] = {{"StateMinus1", TaskState::kNotCreated, "扫描任务创建失败"},
                           {"State3", TaskState::kPaused, "扫描任务已暂停"},
                           {"State5", TaskState::kAborted, "扫描任务已中止"}};
INSTANTIATE_TEST_SUITE_P(Batch, BatchRunEndedBy, testing::ValuesIn(kEndings),
                         [](const auto& row) { return row.param.name; });

TEST_F(BatchRun, ThatMeetsABusyAgentGivesTheCommandAgainAndSucceeds) {
  start("tavcli_quick");
  agent_->acceptScan();
  agent_->state(TaskState::kSameModeExists);
  agent_->acceptScan();
  agent_->overview(3, 0);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(console_->out(), HasSubstr("\n已存在同种类型扫描任务\n"));
  EXPECT_THAT(console_->out(), HasSubstr("\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010000\n"));
  EXPECT_THAT(report(), HasSubstr("本次扫描文件数量：3\n"));
}

TEST_F(BatchRun, WithoutAnyStateEndsWithItsTimeoutAndGives0) {
  start("tavcli_quick", {"-timeout", "20"});
  agent_->acceptScan();
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(console_->err(), HasSubstr("20 seconds"));
  EXPECT_FALSE(std::filesystem::exists(report_));
}

TEST_F(BatchRun, WhoseScanEndsInItsLastWaitGives0AndTellsTheOutcome) {
  start("tavcli", {"-timeout", "5"});
  agent_->acceptScan();
  agent_->repair("/data/x", "Eicar", 68, json::HandleResult::kReportedOnly);
  agent_->overview(12, 1);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0) << "the timeout of 5 seconds is used up by the wait of 10";
  EXPECT_EQ(console_->err(), "tavcli: the scan of " + scanned_ +
                                 " was over in the last wait of the timeout of 5 seconds: infected files 1, "
                                 "report " +
                                 report_ + "\n");
  EXPECT_THAT(report(), HasSubstr("染毒文件全路径：/data/x\n"));
}

TEST_F(BatchRun, WithoutAPlaceForItsDebugLogSaysSoInALineThatThePagesTellOf) {
  std::filesystem::permissions(tree_.at("log"), std::filesystem::perms(0777));
  start();
  agent_->acceptScan();
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(console_->err(), testing::StartsWith("tavcli: no debug log is written: "));
  for (const char* page : {"/docs/batch.md", "/docs/console.md"}) {
    EXPECT_THAT(testsupport::readFile(std::string(TAV_SOURCE_DIR) + page),
                HasSubstr("`no debug log is written: …`"))
        << page;
  }
}

TEST_F(BatchRun, IgnoresStatesThatAreNotItsTasks) {
  start();
  agent_->acceptScan();
  agent_->state(TaskState::kFinished, "", "");                              // no token
  agent_->state(TaskState::kFinished, "", "token", json::BusinessType{1});  // another kind of task
  agent_->state(TaskState{7});
  agent_->state(TaskState{-2});
  agent_->overview(3, 0);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(report(), HasSubstr("本次扫描文件数量：3\n"));
}

TEST_F(BatchRun, TellsTheLossOfTheAgentAndItsReturnAndEndsWithState5) {
  start("tavcli_quick", {}, "200");
  agent_->acceptScan();
  agent_->state(TaskState::kStarted);
  ASSERT_TRUE(console_->waitForOut("扫描任务开始"));
  agent_->kill();
  ASSERT_TRUE(console_->waitForErr("the agent is gone"));
  agent_ = std::make_unique<LunetctlAgent>(tree_);
  ASSERT_TRUE(console_->waitForErr("the agent answers again"));
  agent_->state(TaskState::kAborted, "the agent was restarted");
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(console_->out(), HasSubstr("扫描任务已中止"));
  EXPECT_TRUE(std::filesystem::exists(report_));
}

TEST_F(BatchRun, WhoseReportsPlaceIsTakenMeanwhileTellsTheCounts) {
  start();
  agent_->acceptScan();
  std::filesystem::create_directory(report_);
  agent_->repair("/data/x", "Eicar", 68, json::HandleResult::kReportedOnly);
  agent_->overview(3, 1);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 1) << "the outcome stays true";
  EXPECT_THAT(console_->err(), HasSubstr("files scanned 3, infected 1"));
}

TEST_F(BatchRun, WithoutAReaderOfItsOutputStillWritesTheReport) {
  Process::Options options = tree_.options();
  Process console({"/bin/sh", "-c",
                   std::string("exec ") + TAV_BIN_DIR + "/tavcli -scanpath " + scanned_ + " -logpath " +
                       report_ + " 2>/dev/null | true"},
                  options);
  agent_->acceptScan();
  agent_->state(TaskState::kStarted);
  agent_->state(TaskState::kFinished);
  EXPECT_TRUE(testsupport::waitFor([this] { return std::filesystem::exists(report_); }));
}

/// Runs whose standard output is a pipe that is full from the beginning.
class BatchRunOnAFullPipe : public BatchRun {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    pipe_ = platform::Descriptor(open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(pipe_);
    const std::string filler(4096, '.');
    while (write(pipe_.get(), filler.data(), filler.size()) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
  }
  void startOnIt(const std::string& timeout, const std::string& more = "") {
    Process::Options options = tree_.options();
    options.environment["TAV_TEST_SECOND_MS"] = "10";
    const std::string command = std::string("exec ") + TAV_BIN_DIR + "/tavcli_quick -scanpath " + scanned_ +
                                " -logpath " + report_ + " -timeout " + timeout + " >" + path_ + more;
    console_ = std::make_unique<Process>(std::vector<std::string>{"/bin/sh", "-c", command}, options);
  }
  /// Everything that the pipe holds now.
  std::string taken() {
    std::string all;
    char piece[4096];
    for (ssize_t count = 0; (count = read(pipe_.get(), piece, sizeof piece)) > 0;) {
      all.append(piece, static_cast<std::size_t>(count));
    }
    return all;
  }

  std::string path_ = tree_.at("full");
  platform::Descriptor pipe_;
};

TEST_F(BatchRunOnAFullPipe, EndsBySigterm) {
  startOnIt("86400");
  agent_->acceptScan();
  agent_->state(TaskState::kStarted);
  console_->kill(SIGTERM);
  EXPECT_EQ(exitCode(), 128 + SIGTERM);
  EXPECT_FALSE(std::filesystem::exists(report_));
}

TEST_F(BatchRunOnAFullPipe, EndsWithItsTimeoutAndTellsSo) {
  startOnIt("20");
  agent_->acceptScan();
  agent_->state(TaskState::kStarted);
  EXPECT_EQ(exitCode(), 0);
  EXPECT_THAT(console_->err(), HasSubstr("20 seconds"));
}

TEST_F(BatchRunOnAFullPipe, EndsWithItsTimeoutAlsoWhenItsErrorsGoThere) {
  startOnIt("20", " 2>&1");
  agent_->acceptScan();
  agent_->state(TaskState::kStarted);
  EXPECT_EQ(exitCode(), 0);
}

TEST_F(BatchRunOnAFullPipe, LeavesItsReportAndEndsWithItsTimeout) {
  startOnIt("100");
  agent_->acceptScan();
  agent_->repair("/data/x", "Eicar", 68, json::HandleResult::kReportedOnly);
  agent_->overview(3, 1);
  agent_->state(TaskState::kFinished);
  EXPECT_EQ(exitCode(), 1);
  EXPECT_THAT(report(), HasSubstr("染毒文件全路径：/data/x\n"));
}

TEST_F(BatchRunOnAFullPipe, WaitsAfterItsEndForAReaderAndLosesNothing) {
  startOnIt("86400");
  agent_->acceptScan();
  for (int percent = 0; percent < 100; ++percent) {
    agent_->progress(percent);
  }
  agent_->state(TaskState::kFinished);
  ASSERT_TRUE(testsupport::waitFor([this] { return std::filesystem::exists(report_); }));
  ASSERT_TRUE(console_->running()) << "its output is not written";
  std::string all;
  ASSERT_TRUE(testsupport::waitFor([&] {
    all += taken();
    return !console_->running();
  }));
  all += taken();
  EXPECT_THAT(all, HasSubstr("\n扫描进度: 0%\n"));
  EXPECT_THAT(all, HasSubstr("\n扫描进度: 99%\n"));
  EXPECT_THAT(all, testing::EndsWith("\n扫描结束\nexitvalue1 = 0x0\nexitvalue2 = 0x20010000\n"));
  EXPECT_EQ(exitCode(), 0);
}

TEST_F(BatchRunOnAFullPipe, EndsBySigtermAlsoWhileItWaitsForAReader) {
  startOnIt("86400");
  agent_->acceptScan();
  agent_->state(TaskState::kFinished);
  ASSERT_TRUE(testsupport::waitFor([this] { return std::filesystem::exists(report_); }));
  console_->kill(SIGTERM);
  EXPECT_EQ(exitCode(), 128 + SIGTERM);
}

class BatchRunSignal : public BatchRun, public testing::WithParamInterface<int> {};

TEST_P(BatchRunSignal, EndsItAndLeavesTheReportsPlaceAlone) {
  start();
  agent_->acceptScan();
  agent_->state(TaskState::kStarted);
  ASSERT_TRUE(console_->waitForOut("扫描任务开始"));
  console_->kill(GetParam());
  EXPECT_EQ(exitCode(), 128 + GetParam());
  EXPECT_FALSE(std::filesystem::exists(report_));
  // The link was taken down: nothing of the console's is left on the bus.
  const auto list = tree_.start("lunetctl", {"--runtime", tree_.path(), "list"});
  EXPECT_EQ(list->wait(), 0);
  EXPECT_THAT(list->out(), Not(HasSubstr(testsupport::kConsoleAddress)));
}

INSTANTIATE_TEST_SUITE_P(Batch, BatchRunSignal, testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const auto& row) { return std::string("Sig") + sigabbrev_np(row.param); });

}  // namespace
