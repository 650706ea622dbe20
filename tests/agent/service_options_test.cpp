#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "platform/ProcessStat.h"
#include "service/BusLink.h"
#include "service/Callers.h"
#include "service/Options.h"
#include "service/SignatureWatch.h"
#include "support/Reason.h"
#include "support/TempDir.h"
#include "task/RunningPrograms.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
using ::testsupport::reasonOf;

TEST(Options, WithoutArgumentsTheTreeAboveTheProgramIsServedInTheForeground) {
  const Options options = parseOptions({}).value();
  EXPECT_EQ(Options::Action::kServe, options.action);
  EXPECT_FALSE(options.daemon);
  EXPECT_EQ(ownTree(), options.installDir);
  EXPECT_EQ("/var/lib/clamav", options.systemSignatures);
}

TEST(Options, EachOptionIsRead) {
  const Options options = parseOptions({"--install-dir", "/some//tree/", "--daemon", "--system-signatures",
                                        "/db", "--log-level", "1"})
                              .value();
  EXPECT_EQ("/some/tree", options.installDir);
  EXPECT_TRUE(options.daemon);
  EXPECT_EQ("/db", options.systemSignatures);
  EXPECT_EQ(LogLevel::kDebug, options.logLevel);
  EXPECT_EQ(Options::Action::kStatus, parseOptions({"--status"}).value().action);
}

TEST(Options, TheLogLevelsGoFromOneToFour) {
  for (const LogLevel level : {LogLevel::kDebug, LogLevel::kInfo, LogLevel::kWarning, LogLevel::kError}) {
    const std::string number = std::to_string(static_cast<int>(level));
    EXPECT_EQ(level, parseOptions({"--log-level", number}).value().logLevel) << number;
  }
}

TEST(Options, RelativeFoldersAreMadeAbsolute) {
  const std::string here = std::filesystem::current_path().string();
  const Options options = parseOptions({"--install-dir", "tree", "--system-signatures", "db"}).value();
  EXPECT_EQ(here + "/tree", options.installDir);
  EXPECT_EQ(here + "/db", options.systemSignatures);
}

class BadArguments : public ::testing::TestWithParam<std::pair<const char*, std::vector<std::string>>> {};
TEST_P(BadArguments, AreRefusedWithALine) {
  const auto options = parseOptions(GetParam().second);
  ASSERT_FALSE(options);
  EXPECT_FALSE(options.error().empty());
}
INSTANTIATE_TEST_SUITE_P(
    Rows, BadArguments,
    ::testing::Values(std::pair("Unknown", std::vector<std::string>{"--nonsense"}),
                      std::pair("ValueMissing", std::vector<std::string>{"--install-dir"}),
                      std::pair("ValueEmpty", std::vector<std::string>{"--install-dir", ""}),
                      std::pair("NoSignatures", std::vector<std::string>{"--system-signatures", ""}),
                      std::pair("TwoActions", std::vector<std::string>{"--status", "--version"}),
                      std::pair("LogLevelFive", std::vector<std::string>{"--log-level", "5"}),
                      std::pair("LogLevelZero", std::vector<std::string>{"--log-level", "0"}),
                      std::pair("LogLevelOfTwoDigits", std::vector<std::string>{"--log-level", "22"}),
                      std::pair("LogLevelText", std::vector<std::string>{"--log-level", "all"}),
                      std::pair("Word", std::vector<std::string>{"start"}),
                      std::pair("Empty", std::vector<std::string>{""}),
                      std::pair("EmptyWithAValue", std::vector<std::string>{"", "/tree"}),
                      std::pair("DashesAlone", std::vector<std::string>{"--", "/tree"}),
                      std::pair("Beginning", std::vector<std::string>{"--stat"}),
                      std::pair("BeginningWithAValue", std::vector<std::string>{"--install", "/tree"}),
                      std::pair("LongerThanAnOption", std::vector<std::string>{"--statuses"}),
                      std::pair("OtherLetterCase", std::vector<std::string>{"--STATUS"})),
    [](const auto& row) { return std::string(row.param.first); });

TEST(Options, ARelativeTreeIsRefusedWhereTheFolderItIsSeenFromIsGone) {
  const testsupport::TempDir dir;
  const pid_t child = fork();
  if (child == 0) {
    const std::string gone = dir.at("gone");
    const bool there = mkdir(gone.c_str(), 0700) == 0 && chdir(gone.c_str()) == 0 && rmdir(gone.c_str()) == 0;
    _exit(!there ? 2 : parseOptions({"--install-dir", "tree"}) ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(Options, TheHelpNamesEveryOption) {
  for (const char* name : {"--install-dir DIR", "--system-signatures DIR", "--log-level N", "--daemon",
                           "--status", "--version", "--help"}) {
    EXPECT_THAT(usage(), HasSubstr(name));
  }
}

TEST(Tree, ATreeWithoutABusConfigurationHasTheDefaults) {
  const testsupport::TempDir dir;
  const BusSettings settings = readBusSettings(platform::InstallTree(dir.path()), "name").value();
  EXPECT_EQ("", settings.group);
  EXPECT_EQ(0U, settings.socketDir.rfind(dir.path(), 0));
  EXPECT_THAT(settings.clientConfig, HasSubstr("\"runtime_path\":\"" + dir.path()));
  EXPECT_THAT(settings.clientConfig, HasSubstr("\"log_level\":1")) << "warnings and errors";
}

TEST(Tree, ABusConfigurationThatIsNoJsonIsAnErrorThatNamesIt) {
  const testsupport::TempDir dir;
  const std::string file = dir.write("etc/communication/cli_lunet.conf", "{broken");
  EXPECT_THAT(reasonOf(readBusSettings(platform::InstallTree(dir.path()), "name")), HasSubstr(file));
}

TEST(Tree, ABusConfigurationThatOthersMayWriteIsAnErrorThatNamesIt) {
  const testsupport::TempDir dir;
  const std::string file = dir.write("etc/communication/cli_lunet.conf", "{}");
  ASSERT_EQ(0, chmod(file.c_str(), 0666));
  EXPECT_THAT(reasonOf(readBusSettings(platform::InstallTree(dir.path()), "name")),
              HasSubstr(file + " can be written by others"));
}

TEST(Tree, ABusConfigurationThatCannotBeReadOrIsNoObjectIsAnError) {
  const testsupport::TempDir dir;
  const std::string file = dir.write("etc/communication/cli_lunet.conf", "[]");
  EXPECT_THAT(reasonOf(readBusSettings(platform::InstallTree(dir.path()), "name")), HasSubstr(file));
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EXPECT_THAT(reasonOf(readBusSettings(platform::InstallTree(dir.path()), "name")), HasSubstr(file));
}

TEST(Tree, TheFilesLogLevelIsTurnedIntoTheLibrarys) {
  const testsupport::TempDir dir;
  for (const auto& [level, librarys] : {std::pair{0, "-1"},
                                        {1, "3"},
                                        {2, "2"},
                                        {3, "1"},
                                        {4, "0"},
                                        {6, "0"},
                                        {7, "-1"},
                                        {1000, "-1"},
                                        {-1, "-1"},
                                        {-1000000, "-1"}}) {
    dir.write("etc/communication/cli_lunet.conf", "{\"log_level\":" + std::to_string(level) + "}");
    const BusSettings settings = readBusSettings(platform::InstallTree(dir.path()), "name").value();
    EXPECT_THAT(settings.clientConfig, HasSubstr(std::string("\"log_level\":") + librarys)) << level;
  }
}

TEST(IsMember, AreRootTheAgentsUserAndTheGroupAndNobodyElse) {
  const gid_t group = 60200;
  EXPECT_TRUE(isMember({0, 0, {}, 1}, std::nullopt));
  EXPECT_TRUE(isMember({geteuid(), 5, {}, 1}, std::nullopt));
  EXPECT_TRUE(isMember({60100, group, {}, 1}, group));
  EXPECT_TRUE(isMember({60100, 5, {7, group}, 1}, group));
  EXPECT_FALSE(isMember({60100, 5, {7}, 1}, group));
  EXPECT_FALSE(isMember({60100, group, {}, 1}, std::nullopt));
}

TEST(CallerIdOf, AProcessThatRunsForAnotherUserByNowLendsNoGroups) {
  lunet::PeerIdentity process{};
  process.pid = getpid();
  process.uid = geteuid();
  process.gid = getegid();
  process.startTicks = platform::processStat(getpid())->startTicks;
  const CallerId own = callerIdOf(process);
  EXPECT_EQ(own.groups.size(), static_cast<std::size_t>(getgroups(0, nullptr)));
  process.uid += 4321;
  EXPECT_TRUE(callerIdOf(process).groups.empty());
}

TEST(GroupByName, AnUnknownGroupIsNoneAndSaid) {
  EXPECT_THAT(groupByName("no-such-group-here").error(), HasSubstr("no-such-group-here"));
  EXPECT_EQ(std::nullopt, groupByName("").value());
  EXPECT_EQ(0U, groupByName("root").value());
}

TEST(SignatureWatch, AChangeIsReportedOnceWhenItHasSettled) {
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

/// One file, of which one thing changes at a time.
class WatchedFile : public ::testing::Test {
 protected:
  WatchedFile() {
    dir_.write("a.ndb", "content");
    setTime(file_, 1000, 5);
    std::filesystem::create_hard_link(file_, other_);  // keeps the inode from being used again
    watch_.emplace(std::vector<std::string>{dir_.path()});
  }
  static void setTime(const std::string& path, time_t seconds, long nanoseconds) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  bool seen() {
    watch_->changed();
    return watch_->changed();
  }
  testsupport::TempDir dir_;
  testsupport::TempDir elsewhere_;
  const std::string file_ = dir_.at("a.ndb");
  const std::string other_ = elsewhere_.at("kept");
  std::optional<SignatureWatch> watch_;
};

TEST_F(WatchedFile, OfAnotherSizeIsSeen) {
  dir_.write("a.ndb", "longer content");
  setTime(file_, 1000, 5);
  EXPECT_TRUE(seen());
}

TEST_F(WatchedFile, OfAnotherSecondOrNanosecondIsSeen) {
  setTime(file_, 1001, 5);
  EXPECT_TRUE(seen());
  setTime(file_, 1001, 6);
  EXPECT_TRUE(seen());
}

TEST_F(WatchedFile, ThatIsAnotherOneIsSeen) {
  dir_.write("new", "content");
  setTime(dir_.at("new"), 1000, 5);
  std::filesystem::rename(dir_.at("new"), file_);
  EXPECT_TRUE(seen());
}

TEST_F(WatchedFile, OfAnotherNameIsSeen) {
  std::filesystem::rename(file_, dir_.at("b.ndb"));
  EXPECT_TRUE(seen());
}

TEST_F(WatchedFile, BesideWhichAFolderAppearsHasNotChanged) {
  std::filesystem::create_directory(dir_.at("folder"));
  EXPECT_FALSE(seen());
}

}  // namespace
}  // namespace agent
