// The end of an unattended run that cannot start: its standard output and its exit status.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/InstallTree.h"
#include "support/LunetctlAgent.h"

namespace {

using testsupport::InstallTree;
using testsupport::LunetctlAgent;
using testsupport::Process;

constexpr const char* kMark = "run/lunet/A4F72BA6-6DE6-44D4-B955-5A880273427E.mark";

class BatchFailure : public testing::Test {
 protected:
  void run(const std::vector<std::string>& arguments, const char* program = "tavcli") {
    const std::unique_ptr<Process> process = tree_.start(program, arguments);
    exit_ = process->wait().value_or(-1);
    out_ = process->out();
    err_ = process->err();
  }
  std::vector<std::string> fullArguments() const { return {"-scanpath", tree_.path(), "-logpath", report()}; }
  std::string report() const { return tree_.at("report"); }

  /// Starts a console that holds the mark until the end of the test.
  void holdTheMark() {
    agent_ = std::make_unique<LunetctlAgent>(tree_);
    holder_ = tree_.console();
    ASSERT_TRUE(holder_->waitForOut("[Load Command] Trust")) << holder_->out() << holder_->err();
  }

  InstallTree tree_;
  std::unique_ptr<LunetctlAgent> agent_;
  std::unique_ptr<Process> holder_;
  int exit_ = -1;
  std::string out_;
  std::string err_;
};

TEST_F(BatchFailure, ScanPathMissingPrintsGetScanpathFailedAndExits2) {
  run({"-logpath", report()});
  EXPECT_EQ(out_, "get scanpath failed.\n");
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, ASingleUnknownWordPrintsGetScanpathFailedAndExits2) {
  run({"unknown"});
  EXPECT_EQ(out_, "get scanpath failed.\n");
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, ScanPathAlonePrintsGetLogpathFailedAndExits2) {
  run({"-scanpath", "/x"});
  EXPECT_EQ(out_, "get logpath failed.\n");
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, ScanPathThatDoesNotExistExits2Silently) {
  run({"-scanpath", tree_.at("absent"), "-logpath", report()});
  EXPECT_EQ(out_ + err_, "");
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, ScanPathThatDoesNotExistAndHoldsABlankExits2Silently) {
  run({"-scanpath", tree_.at("absent one"), "-logpath", report()});
  EXPECT_EQ(out_ + err_, "");
  EXPECT_EQ(exit_, 2);
}

/// A run that is started in a removed folder.
class WithoutACurrentFolder : public BatchFailure {
 protected:
  void runThere(const std::vector<std::string>& words) {
    std::vector<std::string> command{"/bin/sh", "-c",
                                     "mkdir ../gone && cd ../gone && rmdir ../gone && exec \"$0\" \"$@\"",
                                     std::string(TAV_BIN_DIR) + "/tavcli"};
    command.insert(command.end(), words.begin(), words.end());
    Process process(command, tree_.options());
    exit_ = process.wait().value_or(-1);
    out_ = process.out();
    err_ = process.err();
  }
};

TEST_F(WithoutACurrentFolder, ABadCommandLineIsAllThatIsTold) {
  runThere({"hello"});
  EXPECT_EQ(out_, "get scanpath failed.\n");
  EXPECT_EQ(exit_, 2);
}

TEST_F(WithoutACurrentFolder, AMissingScanPathExits2Silently) {
  runThere({"-scanpath", tree_.at("absent"), "-logpath", report()});
  EXPECT_EQ(out_ + err_, "");
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, LogPathThatExistsExits2Silently) {
  tree_.write("report", "old");
  run(fullArguments());
  EXPECT_EQ(out_ + err_, "");
  EXPECT_EQ(exit_, 2);
  EXPECT_EQ(testsupport::readFile(report()), "old");
}

TEST_F(BatchFailure, WhiteSpaceInTheScanPathExits2AndNamesIt) {
  std::filesystem::create_directory(tree_.at("a b"));
  run({"-scanpath", tree_.at("a b"), "-logpath", report()});
  EXPECT_EQ(out_, "");
  EXPECT_NE(err_.find(tree_.at("a b")), std::string::npos) << err_;
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, LogPathInAMissingFolderExits2AndNamesIt) {
  run({"-scanpath", tree_.path(), "-logpath", tree_.at("absent/report")});
  EXPECT_EQ(out_, "");
  EXPECT_NE(err_.find(tree_.at("absent")), std::string::npos) << err_;
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, AMarkThatCannotBeMadePrintsSingleTagFailedAndExits2) {
  std::filesystem::create_directories(tree_.at("run"));
  std::filesystem::create_directory(tree_.at("run/lunet"));
  std::filesystem::create_directory(tree_.at(kMark));
  run(fullArguments());
  EXPECT_EQ(out_, "singleTag failed\n");
  EXPECT_NE(err_.find("mark"), std::string::npos) << err_;
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, Timeout0PrintsBSuccessFailedAndExits3WithoutAnotherConsole) {
  auto arguments = fullArguments();
  arguments.insert(arguments.end(), {"-timeout", "0"});
  run(arguments);
  EXPECT_EQ(out_, "bSuccess failed\n");
  EXPECT_EQ(exit_, 3);
}

TEST_F(BatchFailure, AMarkHeldBeyondTheTimeoutPrintsBSuccessFailedAndExits3) {
  holdTheMark();
  auto arguments = fullArguments();
  arguments.insert(arguments.end(), {"-timeout", "60"});
  run(arguments, "tavcli_quick");
  EXPECT_EQ(out_, "bSuccess failed\n");
  EXPECT_EQ(exit_, 3);
}

TEST_F(BatchFailure, TimeoutAsTheLastWordIsIgnoredAndTheRunGoesOn) {
  auto arguments = fullArguments();
  arguments.emplace_back("-timeout");
  run(arguments);
  EXPECT_NE(out_.find("connect to lunet failed\ninit afx failed\n"), std::string::npos) << out_;
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, UuidGenerationThatFailsPrintsUuidGenFailedAndExits2) {
  Process::Options options = tree_.options();
  options.environment["TAV_TEST_NO_UUID"] = "1";
  std::vector<std::string> command = fullArguments();
  command.insert(command.begin(), std::string(TAV_BIN_DIR) + "/tavcli_quick");
  Process process(command, options);
  EXPECT_EQ(process.wait(), 2);
  EXPECT_EQ(process.out(), "uuid gen failed.\n");
}

TEST_F(BatchFailure, AMissingAgentPrintsInitAfxFailedAndExits2AndSaysHowToStartIt) {
  run(fullArguments());
  EXPECT_TRUE(out_.ends_with("connect to lunet failed\ninit afx failed\n")) << out_;
  EXPECT_NE(err_.find("tavagentd"), std::string::npos) << err_;
  EXPECT_EQ(exit_, 2);
}

TEST_F(BatchFailure, ABusLibraryThatCannotBeLoadedIsToldBehindWhatWasPrintedBefore) {
  std::filesystem::remove(tree_.busLibrary());
  std::vector<std::string> command{"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1",
                                   std::string(TAV_BIN_DIR) + "/tavcli"};
  for (const std::string& word : fullArguments()) {
    command.push_back(word);
  }
  Process process(command, tree_.options());
  EXPECT_EQ(process.wait(), 2);
  const std::string all = process.out();
  const std::size_t summary = all.find("=====initLog=====");
  const std::size_t why = all.find("\ntavcli: the bus library is not loaded: ");
  EXPECT_LT(summary, why) << all;
  EXPECT_LT(why, all.find("\ninitLunet failed\ninit afx failed\n")) << all;
  EXPECT_EQ(all.find("dlopen"), std::string::npos) << all;
}

TEST_F(BatchFailure, AMissingBusLibraryPrintsInitLunetFailedAndExits2) {
  std::filesystem::remove(tree_.busLibrary());
  run(fullArguments());
  EXPECT_TRUE(out_.ends_with("initLunet failed\ninit afx failed\n")) << out_;
  EXPECT_EQ(exit_, 2);
}

class AttendedFailure : public BatchFailure {};

TEST_F(AttendedFailure, AMarkHeldByAnotherConsolePrintsIsRunningAndExits0) {
  holdTheMark();
  run({});
  EXPECT_EQ(out_, "Container[A4F72BA6-6DE6-44D4-B955-5A880273427E] is Running\n");
  EXPECT_EQ(exit_, 0);
}

TEST_F(AttendedFailure, AMarkHeldIsSeenWhateverTheEnvironment) {
  holdTheMark();
  Process::Options options = tree_.options();
  options.environment = {{"HOME", "/nonexistent"},
                         {"TMPDIR", "/var/tmp"},
                         {"XDG_RUNTIME_DIR", tree_.at("other")},
                         {"XDG_STATE_HOME", tree_.at("other")}};
  Process second({std::string(TAV_BIN_DIR) + "/tavcli"}, options);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_NE(second.out().find("is Running"), std::string::npos);
}

TEST_F(AttendedFailure, AMarkLeftByAKilledConsoleIsFree) {
  holdTheMark();
  holder_->kill(SIGKILL);
  holder_->wait();
  holder_ = tree_.console();
  EXPECT_TRUE(holder_->waitForOut("single process mark create success"));
}

TEST_F(AttendedFailure, AMarkThatCannotBeMadePrintsCreateFailedAndExits255) {
  std::filesystem::create_directories(tree_.at(kMark));
  run({});
  EXPECT_EQ(out_, "Container[A4F72BA6-6DE6-44D4-B955-5A880273427E] single process mark create failed\n");
  EXPECT_EQ(exit_, 255);
}

TEST_F(AttendedFailure, UuidGenerationThatFailsExits255WithoutAMessageOfItsOwn) {
  Process::Options options = tree_.options();
  options.environment["TAV_TEST_NO_UUID"] = "1";
  Process process({std::string(TAV_BIN_DIR) + "/tavcli_quick"}, options);
  EXPECT_EQ(process.wait(), 255);
  EXPECT_EQ(process.out(),
            "Container[A4F72BA6-6DE6-44D4-B955-5A880273427E] single process mark create success\n");
  EXPECT_EQ(process.err(), "");
}

TEST_F(AttendedFailure, AMissingBusLibraryIsInTheDebugLogAndExits255) {
  std::filesystem::remove(tree_.busLibrary());
  run({});
  EXPECT_TRUE(out_.ends_with("initLunet failed\ninit afx failed\n")) << out_;
  EXPECT_NE(tree_.debugLog().find("dlopen failed: "), std::string::npos) << tree_.debugLog();
  EXPECT_NE(tree_.debugLog().find("initLunet failed"), std::string::npos);
  EXPECT_EQ(exit_, 255);
}

TEST_F(AttendedFailure, ABusLibraryWithoutItsEntryPointIsInTheDebugLog) {
  std::filesystem::remove(tree_.busLibrary());
  std::filesystem::copy_file(testsupport::someSharedObject(), tree_.busLibrary());
  run({});
  EXPECT_TRUE(out_.ends_with("initLunet failed\ninit afx failed\n")) << out_;
  EXPECT_NE(tree_.debugLog().find("dlsym CreateInstance failed: "), std::string::npos) << tree_.debugLog();
}

TEST_F(AttendedFailure, ABusLibraryThatOthersCanWriteIsNotLoaded) {
  std::filesystem::permissions(tree_.busLibrary(), std::filesystem::perms(0666));
  run({});
  EXPECT_TRUE(out_.ends_with("initLunet failed\ninit afx failed\n")) << out_;
  EXPECT_NE(err_.find("libLunetClientMgr.so"), std::string::npos) << err_;
  EXPECT_NE(tree_.debugLog().find("libLunetClientMgr.so"), std::string::npos);
}

TEST_F(AttendedFailure, ATreeThatOthersCanWriteIsNotUsed) {
  ASSERT_EQ(chmod(tree_.path().c_str(), 0777), 0);
  run({});
  EXPECT_TRUE(out_.ends_with("initLunet failed\ninit afx failed\n")) << out_;
  EXPECT_NE(err_.find(tree_.path()), std::string::npos) << err_;
  EXPECT_FALSE(std::filesystem::exists(tree_.at("run"))) << "nothing is made in such a tree";
  EXPECT_EQ(tree_.debugLog(), "") << "and nothing written: links in it could lead anywhere";
}

TEST_F(AttendedFailure, AMissingDebugConfigurationPrintsInitLogFailedAndExits255) {
  std::filesystem::remove(tree_.at("etc/debug/cli_debug.conf"));
  run({});
  EXPECT_TRUE(out_.ends_with("No valid logdebug configuration file " + tree_.at("etc/debug/cli_debug.conf") +
                             "\ninitLog failed\ninit afx failed\n"))
      << out_;
  EXPECT_EQ(exit_, 255);
}

TEST_F(AttendedFailure, ABrokenBusConfigurationPrintsInitLunetFailed) {
  tree_.setBusConfig("{");
  run({});
  EXPECT_TRUE(out_.ends_with("initLunet failed\ninit afx failed\n")) << out_;
  EXPECT_NE(err_.find("cli_lunet.conf"), std::string::npos) << err_;
}

TEST_F(AttendedFailure, AnAddressTakenElsewherePrintsCreateConEndpointFailed) {
  agent_ = std::make_unique<LunetctlAgent>(tree_);
  const LunetctlAgent squatter(tree_, testsupport::kConsoleAddress);
  run({});
  EXPECT_TRUE(out_.ends_with("createConEndpoint failed\ninit afx failed\n")) << out_;
  EXPECT_EQ(exit_, 255);
}

}  // namespace
