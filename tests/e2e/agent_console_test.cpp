// The installed console and the installed agent together.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "e2e/AgentTree.h"
#include "json/Values.h"
#include "support/ArchiveMaker.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace {

using json::TaskState;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testsupport::AgentTree;
using testsupport::eicar;
using testsupport::PeerConsole;
using testsupport::Process;
using testsupport::waitFor;

class ConsoleAndAgent : public ::testing::Test {
 protected:
  std::unique_ptr<Process> batch(const std::string& path, const std::string& program = "tavcli") {
    return tree.console(program, {"-scanpath", path, "-logpath", report});
  }
  std::string reportText() const { return testsupport::readFile(report); }
  std::unique_ptr<Process> prompt(const std::string& lines) {
    auto console = tree.console("tavcli", {});
    console->write(lines);
    console->closeInput();
    EXPECT_EQ(0, console->wait());
    return console;
  }

  ConsoleAndAgent() {
    std::filesystem::create_directory(tree.systemSignatures());
    std::ofstream(tree.systemSignatures() + "/a.ndb")
        << "Other.Trojan.One:0:*:6f6e65206f66207468652073797374656d73\n";
    tree.start();
  }

  AgentTree tree{{.group = "", .start = false, .uid = {}, .dataOnDisk = true}};
  const std::string report = tree.at("report");
};

TEST_F(ConsoleAndAgent, ABatchOverManyFilesEndsOneAndTheReportNamesEachFoundFile) {
  for (int i = 0; i < 300; ++i) {
    tree.write("d" + std::to_string(i % 7) + "/file" + std::to_string(i), "content " + std::to_string(i));
  }
  const std::vector<std::string> found{tree.write("plain.com", eicar()),
                                       tree.write("a/b/c/d/deep.com", eicar()),
                                       tree.write("文件夹/样本.txt", eicar())};
  const auto console = batch(tree.data());
  EXPECT_EQ(1, console->wait()) << console->err();
  const std::string text = reportText();
  for (const std::string& path : found) {
    EXPECT_THAT(text, HasSubstr("染毒文件全路径：" + path +
                                "\n文件大小：68\n病毒名称：TAV.Test.EICAR\n病毒处理结果：3\n"));
  }
  EXPECT_THAT(text, HasSubstr("本次扫描文件数量：303\n染毒文件数量：3\n病毒数量：3\n"));
  EXPECT_THAT(console->err(), IsEmpty());
}

TEST_F(ConsoleAndAgent, ABatchOverACleanFolderEndsZero) {
  tree.write("file", "clean");
  const auto console = batch(tree.data());
  EXPECT_EQ(0, console->wait()) << console->err();
  EXPECT_THAT(reportText(), HasSubstr("本次扫描文件数量：1\n染毒文件数量：0\n"));
}

TEST_F(ConsoleAndAgent, ABatchTellsOfAnEncryptedArchiveThatNobodyCouldLookInto) {
  tree.write("file", "clean");
  testsupport::ZipMember secret{"secret.txt", "nobody can read this text here"};
  secret.encryptedFlag = true;
  const std::string path = tree.write("secret.zip", testsupport::makeZip({secret}));
  const auto console = batch(tree.data());
  EXPECT_EQ(0, console->wait());
  EXPECT_THAT(reportText(), HasSubstr("本次扫描文件数量：1\n染毒文件数量：0\n"));
  EXPECT_EQ(console->err(),
            "tavcli: entries that could not be scanned: 1; see " + tree.at("log/tavagentd.log") + "\n");
  EXPECT_THAT(tree.log(), HasSubstr(path + ": not scanned: "));
}

TEST_F(ConsoleAndAgent, ABatchQuarantinesWhenTheSettingsSayAutomatic) {
  const std::string path = tree.write("eicar.com", eicar());
  prompt("CONFIG MODIFY SCAN HANDLING AUTO\n");
  const auto console = batch(tree.data());
  EXPECT_EQ(1, console->wait()) << console->err();
  EXPECT_THAT(reportText(), HasSubstr("病毒处理结果：1\n"));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_THAT(prompt("ISOLATION REPORT\n")->out(), HasSubstr("文件路径 : " + path + "\n"));
}

TEST_F(ConsoleAndAgent, AKillOfTheAgentDuringABatchEndsItWithStateFiveAfterTheRestart) {
  prompt("CONFIG MODIFY SCAN SCANCACHE OFF PARALLELISM COUNT 1\n");
  const auto console = batch(tree.busyFolder(), "tavcli_quick");
  ASSERT_TRUE(console->waitForOut("扫描任务开始")) << console->err();
  tree.kill(SIGKILL);
  tree.wait();
  tree.start();
  ASSERT_TRUE(console->waitForOut("扫描任务已中止")) << console->out() << console->err();
  EXPECT_EQ(0, console->wait());
  EXPECT_THAT(console->err(), Not(IsEmpty()));
}

TEST_F(ConsoleAndAgent, AfterSomebodyElsesScanABatchHasItsOwnOutcomeAndReport) {
  tree.write("infected/eicar.com", eicar());
  tree.write("own/clean", "clean");
  {
    // This scan would end while the batch waits. This scan finds something; the batch must not.
    PeerConsole other(tree);
    Json::Value changes;
    changes = testsupport::jsonOf(R"({"force_scan":true,"parallelism":1,"max_scan_sec":1})");
    const Json::Value answer = other.startScan({tree.data() + "/infected", tree.busyFolder()}, changes);
    ASSERT_TRUE(other.waitForState(TaskState::kStarted, answer["token_id"].asString()));
  }
  const auto console = batch(tree.data() + "/own", "tavcli_quick");
  EXPECT_EQ(0, console->wait()) << console->err();
  EXPECT_THAT(console->out(), HasSubstr("已存在同种类型扫描任务"));
  EXPECT_THAT(reportText(), HasSubstr("本次扫描文件数量：1\n染毒文件数量：0\n"));
  EXPECT_THAT(reportText(), Not(HasSubstr("eicar")));
}

TEST_F(ConsoleAndAgent, TrustIsShownHoldsAndIsTakenBack) {
  const std::string path = tree.write("eicar.com", eicar());
  const auto shown =
      prompt("TRUSTREGION MODIFY ACTION ADD TYPE FILE ITEM NAME " + path + "\nTRUSTREGION REPORT\n");
  EXPECT_THAT(shown->out(), HasSubstr("项 : " + path + "\n"));
  EXPECT_EQ(0, batch(tree.data())->wait());
  std::filesystem::remove(report);
  prompt("TRUSTREGION MODIFY ACTION DEL TYPE FILE ITEM NAME " + path + "\n");
  EXPECT_EQ(1, batch(tree.data())->wait());
}

TEST_F(ConsoleAndAgent, TheCacheIsShownAndEmptied) {
  tree.write("one", "x");
  EXPECT_TRUE(waitFor([&] {
    std::filesystem::remove(report);
    return batch(tree.data())->wait() == 0 &&
           prompt("CACHE SHOW SCANCACHE\n")->out().find("当前存在1项扫描缓存") != std::string::npos;
  }));
  EXPECT_THAT(prompt("CACHE CLEAN SCANCACHE\nCACHE SHOW SCANCACHE\n")->out(),
              HasSubstr("当前存在0项扫描缓存"));
}

TEST_F(ConsoleAndAgent, EverySettingsPageIsShown) {
  const auto shown = prompt("CONFIG SHOW\n");
  for (const char* title : {"基础扫描配置", "隔离区配置", "多引擎配置", "实时防护"}) {
    EXPECT_THAT(shown->out(), HasSubstr(title));
  }
}

}  // namespace
