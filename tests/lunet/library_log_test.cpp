#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <mutex>
#include <vector>

#include "BusFixture.h"
#include "Log.h"
#include "lunet/LogLevels.h"

using namespace lunettest;
using lunet::BusLogLevel;
using lunet::Log;
using testsupport::readFile;
namespace fs = std::filesystem;

namespace {

std::mutex recordsMutex;
std::vector<std::pair<int, std::string>> records;

void note(int level, const char* text) {
  const std::lock_guard lock(recordsMutex);
  records.emplace_back(level, text);
}

}  // namespace

class LogTest : public testing::Test {
 protected:
  LogTest() {
    records.clear();
    settings.path = dir.at("logs//tavcli/tavcli.ipc.log");
    settings.backupPath = dir.at("logs//tavcli/backup");
    settings.level = BusLogLevel::kEverything;
    settings.name = "uuid-1";
  }
  std::string file() const { return readFile(settings.path); }

  testsupport::TempDir dir;
  Log::Settings settings;
  Log log;
};

TEST_F(LogTest, ARecordIsALineWithTimeLevelProcessAndText) {
  log.open(settings);
  log.write(BusLogLevel::kWarning, "something happened");
  EXPECT_THAT(file(),
              testing::MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9:]+\\.[0-9]+ \\[1\\] \\[[0-9]+ uuid-1\\] "
                                    "something happened\n"));
}

TEST_F(LogTest, TheTimeOfARecordIsTheLocalTimeAtWhichItIsWritten) {
  log.open(settings);
  const std::time_t before = std::time(nullptr);
  log.write(BusLogLevel::kError, "x");
  const std::time_t after = std::time(nullptr);
  std::tm fields{};
  fields.tm_isdst = -1;
  ASSERT_NE(strptime(file().c_str(), "%Y-%m-%d %H:%M:%S", &fields), nullptr);
  const std::time_t written = std::mktime(&fields);
  EXPECT_GE(written, before);
  EXPECT_LE(written, after);
}

TEST_F(LogTest, ALinkOnThePathThatIsChangedLaterDoesNotMoveTheLog) {
  fs::create_directories(dir.at("first"));
  fs::create_directories(dir.at("second"));
  fs::create_directory_symlink(dir.at("first"), dir.at("logs"));
  settings.path = dir.at("logs/tavcli.ipc.log");
  settings.backupPath = dir.at("old");
  log.open(settings);
  log.write(BusLogLevel::kError, "one");
  fs::remove(dir.at("logs"));
  fs::create_directory_symlink(dir.at("second"), dir.at("logs"));
  fs::resize_file(dir.at("first/tavcli.ipc.log"), static_cast<std::uintmax_t>(Log::kFileBytes));
  log.write(BusLogLevel::kError, "two");
  EXPECT_NE(readFile(dir.at("first/tavcli.ipc.log")).find("two"), std::string::npos);
  EXPECT_TRUE(fs::is_empty(dir.at("second")));
}

TEST_F(LogTest, BothFoldersAreMadeForItsUserOnly) {
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  for (const char* folder : {"logs/tavcli", "logs/tavcli/backup"}) {
    struct stat st {};
    ASSERT_EQ(stat(dir.at(folder).c_str(), &st), 0) << folder;
    EXPECT_EQ(st.st_mode & 07777u, 0700u) << folder;
  }
}

TEST_F(LogTest, OneUsersRecordsAreLimitedSoThatNoneMovesOthersOutOfTheLog) {
  log.setCallback(note);
  log.open(settings);
  log.writeOf(0, BusLogLevel::kError, "the first record");
  for (int i = 0; i < 100000; ++i) {
    log.writeOf(60100, BusLogLevel::kError, "a connection is refused");
  }
  log.writeOf(60101, BusLogLevel::kError, "the last record");
  EXPECT_EQ(records.size(), Log::kLinesAMinute + 2);
  for (const char* text :
       {"the first record", "further lines about this user are left out", "the last record"}) {
    EXPECT_NE(file().find(text), std::string::npos) << text;
  }
}

class LogLevelTest : public LogTest, public testing::WithParamInterface<int> {};

TEST_P(LogLevelTest, KeepsTheRecordsUpToItselfInFileAndCallbackAlike) {
  settings.level = static_cast<Log::Level>(GetParam());
  log.setCallback(note);
  log.open(settings);
  for (int level = 0; level <= 3; ++level) {
    log.write(static_cast<Log::Level>(level), "record of level " + std::to_string(level));
  }
  ASSERT_EQ(records.size(), static_cast<std::size_t>(GetParam() + 1));
  for (int level = 0; level <= 3; ++level) {
    const std::string text = "record of level " + std::to_string(level);
    EXPECT_EQ(file().find(text) != std::string::npos, level <= GetParam());
    if (level <= GetParam()) {
      EXPECT_EQ(records[static_cast<std::size_t>(level)], std::make_pair(level, text));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, LogLevelTest, testing::Values(-1, 0, 1, 2, 3), [](const auto& level) {
  return level.param < 0 ? "Nothing" : "Level" + std::to_string(level.param);
});

TEST_F(LogTest, AFullFileIsRotatedIntoTheBackupFolderAndFiveAreKept) {
  log.open(settings);
  const std::string text(100000, 'r');
  for (int i = 0; i < 80; ++i) {
    log.write(BusLogLevel::kError, text);
  }
  EXPECT_LE(static_cast<std::int64_t>(fs::file_size(settings.path)), Log::kFileBytes);
  std::size_t kept = 0;
  for (const auto& entry : fs::directory_iterator(settings.backupPath)) {
    EXPECT_LE(static_cast<std::int64_t>(entry.file_size()), Log::kFileBytes);
    ++kept;
  }
  EXPECT_EQ(kept, 5u);
  EXPECT_TRUE(fs::exists(settings.backupPath + "/tavcli.ipc.log.1"));
}

TEST_F(LogTest, TheRecordThatFindsTheFileFullStandsInTheNewFile) {
  log.open(settings);
  const std::string full(static_cast<std::size_t>(Log::kFileBytes) - 1000, 'r');
  log.write(BusLogLevel::kError, full);
  log.write(BusLogLevel::kError, "the next record" + std::string(1000, ' '));
  EXPECT_NE(file().find("the next record"), std::string::npos);
  EXPECT_NE(readFile(settings.backupPath + "/tavcli.ipc.log.1").find(full), std::string::npos);
}

TEST_F(LogTest, TwoProcessesOnOneFileRotateItOnce) {
  Log second;
  log.open(settings);
  second.open(settings);
  second.write(BusLogLevel::kError, "early");
  const std::string text(100000, 'r');
  for (int i = 0; i < 11; ++i) {
    log.write(BusLogLevel::kError, text);
  }
  second.write(BusLogLevel::kError, "after the other's rotation " + text);
  second.write(BusLogLevel::kError, "late");
  EXPECT_NE(file().find("late"), std::string::npos);
  EXPECT_FALSE(fs::exists(settings.backupPath + "/tavcli.ipc.log.2"));
}

TEST_F(LogTest, TwoProcessesOnOneFileOverwriteNothing) {
  Log second;
  log.open(settings);
  second.open(settings);
  log.write(BusLogLevel::kError, "one");
  second.write(BusLogLevel::kError, "two");
  log.write(BusLogLevel::kError, "three");
  EXPECT_THAT(file(), testing::ContainsRegex("one\n.* two\n.* three\n$"));
}

TEST_F(LogTest, AFullFileWithoutAFolderOfOldOnesIsEmptied) {
  settings.backupPath = "";
  log.open(settings);
  log.write(BusLogLevel::kError, "the first record");
  struct stat first {};
  ASSERT_EQ(stat(settings.path.c_str(), &first), 0);
  const std::string text(100000, 'r');
  for (int i = 0; i < 15; ++i) {
    log.write(BusLogLevel::kError, text);
  }
  EXPECT_LE(static_cast<std::int64_t>(fs::file_size(settings.path)), Log::kFileBytes);
  EXPECT_EQ(file().find("the first record"), std::string::npos);
  struct stat last {};
  ASSERT_EQ(stat(settings.path.c_str(), &last), 0);
  EXPECT_EQ(last.st_ino, first.st_ino) << "not moved to anywhere";
  const platform::Descriptor other(open(settings.path.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0) << "another process would wait to empty its full file";
}

TEST_F(LogTest, AFullFileThatCannotBeMovedIsEmptied) {
  for (int number = 1; number <= Log::kBackups; ++number) {
    dir.write("logs/tavcli/backup/tavcli.ipc.log." + std::to_string(number) + "/file", "");
  }
  log.open(settings);
  const std::string text(100000, 'r');
  for (int i = 0; i < 15; ++i) {
    log.write(BusLogLevel::kError, text);
  }
  EXPECT_LE(static_cast<std::int64_t>(fs::file_size(settings.path)), Log::kFileBytes);
}

TEST_F(LogTest, AClosedLogTakesNothing) {
  log.setCallback(note);
  log.open(settings);
  log.close();
  log.write(BusLogLevel::kError, "x");
  EXPECT_TRUE(records.empty());
  EXPECT_FALSE(fs::exists(settings.path));
}

TEST_F(LogTest, AFifoIsNeitherWaitedForNorWritten) {
  fs::create_directories(dir.at("logs/tavcli"));
  ASSERT_EQ(mkfifo(dir.at("logs/tavcli/tavcli.ipc.log").c_str(), 0600), 0);
  log.open(settings);
  log.write(BusLogLevel::kError, "nobody reads");
  const platform::Descriptor reader(
      open(dir.at("logs/tavcli/tavcli.ipc.log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  log.write(BusLogLevel::kError, "somebody reads");
  char byte = 0;
  EXPECT_EQ(read(reader.get(), &byte, 1), 0);
}

TEST_F(LogTest, ControlCharactersAreMadeVisible) {
  log.setCallback(note);
  log.open(settings);
  log.write(BusLogLevel::kError, "a\nforged line\x1b[31m");
  EXPECT_NE(file().find("a\\nforged line\\x1b[31m"), std::string::npos) << file();
  EXPECT_EQ(records[0].second, "a\\nforged line\\x1b[31m");
}

TEST_F(LogTest, AFolderThatCannotBeMadeCostsTheFileOnly) {
  dir.write("logs", "a file in the way");
  log.setCallback(note);
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  EXPECT_EQ(records.size(), 1u);
}

TEST_F(LogTest, TheFileIsWrittenOnceItsFolderCanBeMade) {
  dir.write("logs", "a file in the way");
  log.open(settings);
  log.write(BusLogLevel::kError, "lost");
  fs::remove(dir.at("logs"));
  log.write(BusLogLevel::kError, "kept");
  EXPECT_NE(file().find("kept"), std::string::npos);
}

TEST_F(LogTest, ALinkIsNotFollowed) {
  fs::create_directories(dir.at("logs/tavcli"));
  dir.write("precious", "content");
  fs::create_symlink(dir.at("precious"), dir.at("logs/tavcli/tavcli.ipc.log"));
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  EXPECT_EQ(readFile(dir.at("precious")), "content");
}

TEST_F(LogTest, AFolderThatOthersMayWriteCostsTheFileOnly) {
  const std::string name = fs::path(dir.path()).filename().string() + ".log";  // no other file has this name
  settings.path = dir.at("logs/tavcli/" + name);
  fs::create_directories(dir.at("logs/tavcli"));
  ASSERT_EQ(chmod(dir.at("logs").c_str(), 0777), 0);
  log.setCallback(note);
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  EXPECT_FALSE(fs::exists(settings.path));
  EXPECT_FALSE(fs::exists("/" + name));
  EXPECT_EQ(records.size(), 1u);
}

TEST_F(LogTest, AFolderThatIsALinkToWhereOthersMayWriteCostsTheFileOnly) {
  fs::create_directories(dir.at("open"));
  ASSERT_EQ(chmod(dir.at("open").c_str(), 01777), 0);
  fs::create_directories(dir.at("logs"));
  fs::create_symlink(dir.at("open"), dir.at("logs/tavcli"));
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  EXPECT_FALSE(fs::exists(dir.at("open/tavcli.ipc.log")));
}

TEST_F(LogTest, AFolderBehindAnotherUsersLinkGetsNoFile) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link to a second user";
  }
  fs::create_directories(dir.at("roots"));
  fs::create_symlink("roots", dir.at("logs"));
  ASSERT_EQ(lchown(dir.at("logs").c_str(), 12345, 12345), 0);
  log.setCallback(note);
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  EXPECT_TRUE(fs::is_empty(dir.at("roots")));
  EXPECT_EQ(records.size(), 1u);
}

TEST_F(LogTest, TheFileIsItsUsersOwn) {
  log.open(settings);
  log.write(BusLogLevel::kError, "x");
  struct stat st {};
  ASSERT_EQ(stat(settings.path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777u, 0600u);
}

TEST(BusLogLevels, EachHasItsLevelInTheDebugLogAndAnUnknownOneTheMostVerbose) {
  EXPECT_EQ(lunet::fromBus(0), LogLevel::kError);
  EXPECT_EQ(lunet::fromBus(1), LogLevel::kWarning);
  EXPECT_EQ(lunet::fromBus(2), LogLevel::kInfo);
  EXPECT_EQ(lunet::fromBus(3), LogLevel::kDebug);
  EXPECT_EQ(lunet::fromBus(4), LogLevel::kDebug);
  EXPECT_EQ(lunet::fromBus(-1), LogLevel::kDebug);
}

class LibraryLogTest : public BusTest {};

TEST_F(LibraryLogTest, TheConfigurationsLogIsWrittenAndGoesToTheCallback) {
  records.clear();
  Client client(config("\"log_path\":\"" + tree.at("log//tavcli/tavcli.ipc.log") +
                       "\",\"log_backup_path\":\"" + tree.at("log//tavcli/backup") + "\",\"log_level\":2"),
                "container-uuid");
  client->SetLogCallback(note);
  { Endpoint endpoint(client, lunet::parseGuid(lunet::kAgentGuid)); }
  const std::string file = readFile(tree.at("log/tavcli/tavcli.ipc.log"));
  EXPECT_NE(file.find("container-uuid"), std::string::npos);
  const std::lock_guard lock(recordsMutex);
  ASSERT_FALSE(records.empty());
  for (const auto& [level, text] : records) {
    EXPECT_LE(level, 2);
    EXPECT_NE(file.find(text), std::string::npos) << text;
  }
}

TEST_F(LibraryLogTest, ALogFolderThatCannotBeWrittenCostsTheLogOnly) {
  tree.write("log", "a file");
  Client client(config("\"log_path\":\"" + tree.at("log/x.log") + "\",\"log_level\":3"));
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
}
