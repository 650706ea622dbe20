#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "service/Callers.h"
#include "service/Options.h"
#include "service/SignatureWatch.h"
#include "service/Tree.h"
#include "support/TempDir.h"
#include "task/RunningPrograms.h"

namespace agent {
namespace {

using ::testing::HasSubstr;

TEST(Options, WithoutArgumentsTheTreeAboveTheProgramIsServedInTheForeground) {
  Options options;
  std::string why;
  ASSERT_TRUE(parseOptions({}, &options, &why));
  EXPECT_EQ(Options::Action::kServe, options.action);
  EXPECT_FALSE(options.daemon);
  EXPECT_EQ(ownTree(), options.installDir);
  EXPECT_EQ("/var/lib/clamav", options.systemSignatures);
}

TEST(Options, EachOptionIsRead) {
  Options options;
  std::string why;
  ASSERT_TRUE(parseOptions(
      {"--install-dir", "/some//tree/", "--daemon", "--system-signatures", "/db", "--log-level", "1"},
      &options, &why));
  EXPECT_EQ("/some/tree", options.installDir);
  EXPECT_TRUE(options.daemon);
  EXPECT_EQ("/db", options.systemSignatures);
  EXPECT_EQ(1, options.logLevel);
  Options status;
  ASSERT_TRUE(parseOptions({"--status"}, &status, &why));
  EXPECT_EQ(Options::Action::kStatus, status.action);
}

TEST(Options, ARelativeTreeIsMadeAbsolute) {
  Options options;
  std::string why;
  ASSERT_TRUE(parseOptions({"--install-dir", "tree"}, &options, &why));
  EXPECT_EQ('/', options.installDir.front());
  EXPECT_THAT(options.installDir, HasSubstr("/tree"));
}

class BadArguments : public ::testing::TestWithParam<std::pair<const char*, std::vector<std::string>>> {};
TEST_P(BadArguments, AreRefusedWithALine) {
  Options options;
  std::string why;
  EXPECT_FALSE(parseOptions(GetParam().second, &options, &why));
  EXPECT_FALSE(why.empty());
}
INSTANTIATE_TEST_SUITE_P(
    Rows, BadArguments,
    ::testing::Values(std::pair("Unknown", std::vector<std::string>{"--nonsense"}),
                      std::pair("ValueMissing", std::vector<std::string>{"--install-dir"}),
                      std::pair("ValueEmpty", std::vector<std::string>{"--install-dir", ""}),
                      std::pair("TwoActions", std::vector<std::string>{"--status", "--version"}),
                      std::pair("LogLevelFive", std::vector<std::string>{"--log-level", "5"}),
                      std::pair("LogLevelText", std::vector<std::string>{"--log-level", "all"}),
                      std::pair("Word", std::vector<std::string>{"start"})),
    [](const auto& row) { return std::string(row.param.first); });

TEST(Options, TheHelpNamesEveryOption) {
  for (const char* name : {"--install-dir DIR", "--system-signatures DIR", "--log-level N", "--daemon",
                           "--status", "--version", "--help"}) {
    EXPECT_THAT(usage(), HasSubstr(name));
  }
}

TEST(Tree, ATreeWithoutABusConfigurationHasTheDefaults) {
  const testsupport::TempDir dir;
  BusSettings settings;
  std::string why;
  ASSERT_TRUE(readBusSettings(Tree(dir.path()), "name", &settings, &why));
  EXPECT_EQ("", settings.group);
  EXPECT_EQ(0U, settings.socketDir.rfind(dir.path(), 0));
  EXPECT_THAT(settings.clientConfig, HasSubstr("\"runtime_path\":\"" + dir.path()));
}

TEST(Tree, ABusConfigurationThatIsNoJsonIsAnErrorThatNamesIt) {
  const testsupport::TempDir dir;
  const std::string file = dir.write("etc/communication/cli_lunet.conf", "{broken");
  BusSettings settings;
  std::string why;
  EXPECT_FALSE(readBusSettings(Tree(dir.path()), "name", &settings, &why));
  EXPECT_THAT(why, HasSubstr(file));
}

TEST(Tree, ABusConfigurationThatOthersMayWriteIsAnErrorThatNamesIt) {
  const testsupport::TempDir dir;
  const std::string file = dir.write("etc/communication/cli_lunet.conf", "{}");
  ASSERT_EQ(0, chmod(file.c_str(), 0666));
  BusSettings settings;
  std::string why;
  EXPECT_FALSE(readBusSettings(Tree(dir.path()), "name", &settings, &why));
  EXPECT_THAT(why, HasSubstr(file + " can be written by others"));
}

TEST(MayChange, RootTheAgentsUserAndTheGroupMayOthersMayNot) {
  const gid_t group = 60200;
  EXPECT_TRUE(mayChange({0, 0, {}, 1}, std::nullopt));
  EXPECT_TRUE(mayChange({geteuid(), 5, {}, 1}, std::nullopt));
  EXPECT_TRUE(mayChange({60100, group, {}, 1}, group));
  EXPECT_TRUE(mayChange({60100, 5, {7, group}, 1}, group));
  EXPECT_FALSE(mayChange({60100, 5, {7}, 1}, group));
  EXPECT_FALSE(mayChange({60100, group, {}, 1}, std::nullopt));
}

TEST(CallerIdOf, AProcessThatRunsForAnotherUserByNowLendsNoGroups) {
  lunet::PeerIdentity process{};
  process.pid = getpid();
  process.uid = geteuid();
  process.gid = getegid();
  process.startTicks = processStartTicks(getpid());
  const CallerId own = callerIdOf(process);
  EXPECT_EQ(own.groups.size(), static_cast<std::size_t>(getgroups(0, nullptr)));
  process.uid += 4321;
  EXPECT_TRUE(callerIdOf(process).groups.empty());
}

TEST(GroupByName, AnUnknownGroupIsNoneAndSaid) {
  std::string why;
  EXPECT_FALSE(groupByName("no-such-group-here", &why));
  EXPECT_THAT(why, HasSubstr("no-such-group-here"));
  EXPECT_FALSE(groupByName("", &why));
  EXPECT_EQ("", why);
  EXPECT_EQ(0U, groupByName("root", &why));
}

TEST(SignatureWatch, AChangeIsToldOnceWhenItHasSettled) {
  const testsupport::TempDir dir;
  dir.write("a.ndb", "one");
  SignatureWatch watch({dir.path(), dir.at("absent")});
  EXPECT_FALSE(watch.changed());
  dir.write("b.ndb", "two");
  EXPECT_FALSE(watch.changed());  // still being written, perhaps
  EXPECT_TRUE(watch.changed());
  EXPECT_FALSE(watch.changed());
  dir.write("b.ndb", "longer now");
  EXPECT_FALSE(watch.changed());
  dir.write("b.ndb", "and longer still");
  EXPECT_FALSE(watch.changed());
  EXPECT_TRUE(watch.changed());
}

}  // namespace
}  // namespace agent
