#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "bin/CContainerMgr.h"
#include "jsonrpchelper/Holders.h"
#include "platform/CLogDebug.h"
#include "platform/Text.h"
#include "support/InstallTree.h"
#include "support/ScriptedAgent.h"
#include "support/Wait.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

class ContainerManager : public testing::Test {
 protected:
  ContainerManager() {
    config_ = tavcli::containerConfigFor(tree_.path() + "/");
    config_.uuid = CUuid::generate();
  }
  ~ContainerManager() override {
    manager_.reset();
    CLogDebug::Close();
  }

  CContainerMgr& manager() {
    if (!manager_) {
      manager_ = std::make_unique<CContainerMgr>(config_);
    }
    return *manager_;
  }
  void needAgent() { agent_ = std::make_unique<testsupport::ScriptedAgent>(tree_.path()); }
  bool init() {
    return printing([this] { return manager().init(); });
  }
  bool start() {
    return printing([this] { return manager().start(); });
  }
  testsupport::InstallTree tree_;
  std::unique_ptr<testsupport::ScriptedAgent> agent_;
  tavcli::ContainerConfig config_;
  std::string out_;
  std::string err_;

 private:
  template <class Step>
  bool printing(Step step) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool result = step();
    out_ = testing::internal::GetCapturedStdout();
    err_ = testing::internal::GetCapturedStderr();
    return result;
  }
  std::unique_ptr<CContainerMgr> manager_;
};

TEST_F(ContainerManager, InitialisesAndPrintsTheLogSummaryOnly) {
  EXPECT_TRUE(init());
  EXPECT_THAT(out_, testing::StartsWith("=====initLog=====\n"));
  EXPECT_THAT(out_, EndsWith("logBackupMaxNum:5\n"));
  EXPECT_EQ(err_, "");
}

TEST_F(ContainerManager, InitialisedAlreadyRefusesToInitialise) {
  ASSERT_TRUE(init());
  EXPECT_FALSE(init());
  EXPECT_EQ(out_, "");
}

TEST_F(ContainerManager, NotInitialisedRefusesToStart) {
  EXPECT_FALSE(start());
  EXPECT_EQ(out_, "");
}

TEST_F(ContainerManager, NotInitialisedRefusesToUninit) {
  EXPECT_FALSE(manager().uninit());
}

TEST_F(ContainerManager, UninitTwiceReturnsFalseTheSecondTime) {
  ASSERT_TRUE(init());
  EXPECT_TRUE(manager().uninit());
  EXPECT_FALSE(manager().uninit());
}

TEST_F(ContainerManager, CanBeInitialisedAgainAfterUninit) {
  needAgent();
  ASSERT_TRUE(init() && start());
  manager().stop();
  ASSERT_TRUE(manager().uninit());
  EXPECT_TRUE(init());
  EXPECT_TRUE(start());
  manager().stop();
}

TEST_F(ContainerManager, StartedServesAndHasAClientForTheAgent) {
  needAgent();
  ASSERT_TRUE(init());
  EXPECT_EQ(jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr)
      << "not before start";
  ASSERT_TRUE(start());
  EXPECT_EQ(out_ + err_, "");
  EXPECT_NE(jsonrpchelper::endpoint(), nullptr);
  EXPECT_NE(jsonrpchelper::serverHelper(), nullptr);
  EXPECT_NE(jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
  EXPECT_EQ(agent_->notifyText("{}"), lunet::kOk) << "the console's address is open";
  manager().stop();
}

TEST_F(ContainerManager, StoppedServesNoMoreAndHasNoClients) {
  needAgent();
  ASSERT_TRUE(init() && start());
  manager().stop();
  EXPECT_EQ(jsonrpchelper::serverHelper(), nullptr);
  EXPECT_EQ(jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid), nullptr);
}

TEST_F(ContainerManager, UninitialisedIsOffTheBus) {
  needAgent();
  ASSERT_TRUE(init() && start());
  manager().stop();
  manager().uninit();
  EXPECT_EQ(jsonrpchelper::endpoint(), nullptr);
  EXPECT_NE(agent_->notifyText("{}"), lunet::kOk);
}

TEST_F(ContainerManager, UninitClosesTheDebugLog) {
  ASSERT_TRUE(init());
  EXPECT_NE(CLogDebug::Instance(), nullptr);
  manager().uninit();
  EXPECT_EQ(CLogDebug::Instance(), nullptr);
}

TEST_F(ContainerManager, WithoutAnAgentPrintsConnectToLunetFailedAndSaysHowToStartIt) {
  ASSERT_TRUE(init());
  EXPECT_FALSE(start());
  EXPECT_EQ(out_, "connect to lunet failed\n");
  EXPECT_THAT(err_, HasSubstr(tree_.path() + "/bin/tavagentd"));
  EXPECT_THAT(tree_.debugLog(), HasSubstr("start:"));
  EXPECT_THAT(tree_.debugLog(), HasSubstr("connect to lunet failed"));
}

TEST_F(ContainerManager, AfterAFailedStartCanStartOnceTheAgentIsThere) {
  ASSERT_TRUE(init());
  ASSERT_FALSE(start());
  needAgent();
  EXPECT_TRUE(start());
  manager().stop();
}

TEST_F(ContainerManager, WhoseAddressIsTakenPrintsCreateConEndpointFailed) {
  needAgent();
  CContainerMgr other(config_);
  testing::internal::CaptureStdout();
  ASSERT_TRUE(other.init() && other.start());
  testing::internal::GetCapturedStdout();
  ASSERT_TRUE(init());
  EXPECT_FALSE(start());
  EXPECT_EQ(out_, "createConEndpoint failed\n");
  EXPECT_THAT(tree_.debugLog(), HasSubstr("createConEndpoint failed"));
  other.stop();
}

TEST_F(ContainerManager, WithoutItsDebugConfigurationPrintsInitLogFailed) {
  std::filesystem::remove(config_.debugConfigFile);
  EXPECT_FALSE(init());
  EXPECT_EQ(out_, "No valid logdebug configuration file " + config_.debugConfigFile + "\ninitLog failed\n");
}

TEST_F(ContainerManager, WithoutTheBusLibraryHasTheDlopenLineInTheDebugLog) {
  std::filesystem::remove(tree_.busLibrary());
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
  EXPECT_THAT(tree_.debugLog(), HasSubstr("dlopen failed: "));
  EXPECT_THAT(tree_.debugLog(), HasSubstr("initLunet failed"));
  EXPECT_EQ(err_, "tavcli: the bus library is not loaded: cannot resolve " + tree_.busLibrary() +
                      ": No such file or directory\n");
}

TEST_F(ContainerManager, WithALibraryWithoutCreateInstanceHasTheDlsymLineInTheDebugLog) {
  const std::string other = testsupport::someSharedObject();
  ASSERT_NE(other, "");
  std::filesystem::remove(tree_.busLibrary());
  std::filesystem::copy_file(other, tree_.busLibrary());
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
  EXPECT_THAT(tree_.debugLog(), HasSubstr("dlsym CreateInstance failed: "));
  EXPECT_EQ(err_, "tavcli: the bus library is not loaded: " + tree_.busLibrary() +
                      " is damaged or of another version: install the tree again\n");
}

TEST_F(ContainerManager, WithALibraryThatIsNoneHasTheDlopenLineInTheDebugLogOnly) {
  tree_.write("lib/modules/libLunetClientMgr.so", "no shared object");
  EXPECT_FALSE(init());
  EXPECT_THAT(tree_.debugLog(), HasSubstr("dlopen failed: "));
  EXPECT_EQ(err_, "tavcli: the bus library is not loaded: " + tree_.busLibrary() +
                      " is damaged or of another version: install the tree again\n");
}

TEST_F(ContainerManager, DoesNotLoadALibraryThatOthersCanWrite) {
  std::filesystem::permissions(tree_.busLibrary(), std::filesystem::perms(0646));
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
  EXPECT_THAT(err_, HasSubstr(tree_.busLibrary()));
  EXPECT_THAT(tree_.debugLog(), HasSubstr(tree_.busLibrary()));
}

TEST_F(ContainerManager, DoesNotUseABusConfigurationThatOthersCanWrite) {
  std::filesystem::permissions(config_.busConfigFile, std::filesystem::perms(0646));
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
  EXPECT_THAT(err_, HasSubstr("the bus configuration is not used: " + config_.busConfigFile));
}

TEST_F(ContainerManager, WithoutAGuidFails) {
  config_.guid.clear();
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
}

TEST_F(ContainerManager, WithoutTheBusConfigurationFails) {
  std::filesystem::remove(config_.busConfigFile);
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
  EXPECT_THAT(err_, HasSubstr(config_.busConfigFile));
}

TEST_F(ContainerManager, WithABusConfigurationThatTheLibraryRefusesFails) {
  tree_.setBusConfig(R"({"group":"no-such-group-here"})");
  EXPECT_FALSE(init());
  EXPECT_THAT(out_, EndsWith("\ninitLunet failed\n"));
}

TEST_F(ContainerManager, HasTheBusLogBesideItsOwn) {
  tree_.setBusConfig(R"({"log_level":1,"connect_timeout_ms":50})");
  ASSERT_TRUE(init());
  start();
  EXPECT_THAT(testsupport::readFile(tree_.at("log/tavcli/tavcli.ipc.log")), HasSubstr("agent"));
  EXPECT_THAT(tree_.debugLog(), HasSubstr("lunetLogCallback")) << "the bus's records reach the debug log too";
}

TEST_F(ContainerManager, SeesTheAgentGoAndComeBack) {
  needAgent();
  ASSERT_TRUE(init() && start());
  EXPECT_TRUE(manager().agentAnswers());
  agent_->leave();
  EXPECT_FALSE(manager().agentAnswers());
  agent_->join();
  EXPECT_TRUE(manager().agentAnswers());
  EXPECT_TRUE(agent_->calls().empty()) << "the look is no message";
  manager().stop();
}

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

TEST_F(ContainerManager, LooksAtAnAgentThatIsAwayForNoTimeAndNotesItOnce) {
  tree_.setBusConfig(R"({"log_level":1})");
  needAgent();
  ASSERT_TRUE(init() && start());
  agent_->leave();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    EXPECT_FALSE(manager().agentAnswers());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(countOf(testsupport::readFile(tree_.at("log/tavcli/tavcli.ipc.log")), "is not reached"), 1U);
  EXPECT_EQ(countOf(tree_.debugLog(), "is not reached"), 1U);
  manager().stop();
}

TEST_F(ContainerManager, DestroyedTakesEverythingDown) {
  needAgent();
  {
    CContainerMgr manager(config_);
    testing::internal::CaptureStdout();
    ASSERT_TRUE(manager.init() && manager.start());
    testing::internal::GetCapturedStdout();
    manager.stop();
  }
  EXPECT_NE(agent_->notifyText("{}"), lunet::kOk);
}

}  // namespace
