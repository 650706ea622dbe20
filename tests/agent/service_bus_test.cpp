// The agent's link to the bus: a real bus in a private tree.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "lunet/ListenerAt.h"
#include "platform/CLog.h"
#include "platform/CLogDebug.h"
#include "service/BusLink.h"
#include "support/InstallTree.h"
#include "support/KeepLoaded.h"
#include "support/Reason.h"

namespace agent {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testsupport::reasonOf;

class BusLinks : public ::testing::Test {
 protected:
  BusSettings settings() const {
    return readBusSettings(platform::InstallTree(tree_.path()), "test").value();
  }
  /// What the work leaves in the agent's log.
  std::string logOf(const std::function<void()>& work) const {
    CLogDebug* log = CLogDebug::Create();
    log->SetProperty(CLogDebug::kPath, tree_.at("log") + "/");
    log->SetProperty(CLogDebug::kName, "agent");
    log->SetProperty(CLogDebug::kSize, "1000000");
    log->SetProperty(CLogDebug::kBackupCount, "1");
    log->SetProperty(CLogDebug::kLevel, std::to_string(static_cast<int>(LogLevel::kDebug)));
    work();
    CLogDebug::Close();
    return testsupport::readFile(tree_.at("log/agent.log"));
  }
  testsupport::InstallTree tree_;
};

TEST_F(BusLinks, WithoutTheLibrarySayWhich) {
  std::filesystem::remove(tree_.busLibrary());
  BusLink link;
  EXPECT_THAT(reasonOf(link.prepare(platform::InstallTree(tree_.path()), settings())),
              HasSubstr(tree_.busLibrary()));
}

TEST_F(BusLinks, WithALibraryThatIsNoneSaySo) {
  std::filesystem::remove(tree_.busLibrary());
  std::filesystem::copy_file(testsupport::someSharedObject(), tree_.busLibrary());
  std::filesystem::permissions(tree_.busLibrary(), std::filesystem::perms(0644));
  BusLink link;
  EXPECT_THAT(reasonOf(link.prepare(platform::InstallTree(tree_.path()), settings())),
              StartsWith("the bus library cannot be used: "));
}

TEST_F(BusLinks, WithALibraryThatGivesNoEndpointSaySo) {
  std::filesystem::copy_file(TAV_LIB_DIR "/liblunet_fake_no_endpoint.so", tree_.busLibrary(),
                             std::filesystem::copy_options::overwrite_existing);
  BusLink link;
  EXPECT_EQ(reasonOf(link.prepare(platform::InstallTree(tree_.path()), settings())),
            "the bus gives no endpoint");
}

TEST_F(BusLinks, WithSettingsThatTheLibraryDoesNotTakeSaySo) {
  BusSettings wrong = settings();
  wrong.clientConfig = "{broken";
  BusLink link;
  EXPECT_EQ(reasonOf(link.prepare(platform::InstallTree(tree_.path()), wrong)),
            "setting up the bus failed: bus error 0xe001000a");
}

TEST_F(BusLinks, AtAnAddressThatIsTakenSaySoAndGetItOnceItIsFree) {
  testsupport::keepLoadedForLeakSanitizer(tree_.busLibrary());
  BusLink second;
  {
    BusLink first;
    ASSERT_EQ(reasonOf(first.prepare(platform::InstallTree(tree_.path()), settings())), "");
    ASSERT_EQ(reasonOf(first.open(lunet::kAgentGuid)), "");
    ASSERT_EQ(reasonOf(second.prepare(platform::InstallTree(tree_.path()), settings())), "");
    EXPECT_EQ(reasonOf(second.open(lunet::kAgentGuid)),
              "another process has the agent's address on the bus of this tree");
    EXPECT_TRUE(lunet::listenerAt(settings().socketDir, lunet::parseGuid(lunet::kAgentGuid)));
  }
  EXPECT_FALSE(lunet::listenerAt(settings().socketDir, lunet::parseGuid(lunet::kAgentGuid)));
  EXPECT_EQ(reasonOf(second.open(lunet::kAgentGuid)), "");
}

TEST_F(BusLinks, HaveTheLibrarysLogInTheAgents) {
  testsupport::keepLoadedForLeakSanitizer(tree_.busLibrary());
  tree_.setBusConfig(R"({"log_level":1})");
  EXPECT_THAT(logOf([this] {
                BusLink link;
                ASSERT_EQ(reasonOf(link.prepare(platform::InstallTree(tree_.path()), settings())), "");
                ASSERT_EQ(reasonOf(link.open(lunet::kAgentGuid)), "");
              }),
              HasSubstr(":bus:"));
}

TEST_F(BusLinks, HaveTheMessagesThatAreRefusedInTheAgentsLog) {
  testsupport::keepLoadedForLeakSanitizer(tree_.busLibrary());
  EXPECT_THAT(logOf([this] {
                BusLink link;
                ASSERT_EQ(reasonOf(link.prepare(platform::InstallTree(tree_.path()), settings())), "");
                CLog::emit(CLogLevel::kError, "refused a message of %s", "a peer");
              }),
              AllOf(HasSubstr(":rpc:"), HasSubstr("refused a message of a peer")));
}

TEST_F(BusLinks, WhereThereCanBeNoAddressSaySo) {
  BusLink link;
  ASSERT_EQ(reasonOf(link.prepare(platform::InstallTree(tree_.path()), settings())), "");
  std::filesystem::remove_all(settings().socketDir);
  tree_.write(settings().socketDir.substr(tree_.path().size() + 1), "a file in the folder's place");
  EXPECT_THAT(reasonOf(link.open(lunet::kAgentGuid)),
              StartsWith("opening the agent's address failed: bus error 0xe001"));
}

}  // namespace
}  // namespace agent
