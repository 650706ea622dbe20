#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform/CLog.h"
#include "platform/CLogDebug.h"
#include "support/TempDir.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testsupport::readFile;
using testsupport::TempDir;

class DebugLog : public testing::Test {
 protected:
  void configure(const std::string& path, const std::string& level = "1") {
    CLogDebug* log = CLogDebug::Create();
    log->SetProperty(CLogDebug::kPath, path);
    log->SetProperty(CLogDebug::kName, "unit");
    log->SetProperty(CLogDebug::kLevel, level);
    // Properties outlive Close.
    log->SetProperty(CLogDebug::kSize, "1048576");
    log->SetProperty(CLogDebug::kBackupCount, "5");
  }
  void TearDown() override { CLogDebug::Close(); }
  std::string content() const { return readFile(dir_.at("unit.log")); }
  TempDir dir_;
};

TEST_F(DebugLog, RecordsCarrySourceFunctionAndLine) {
  configure(dir_.path() + "//");
  CLogDebug::LogPrintV(LogLevel::kError, "here.cpp", "doIt", 42, "cannot %s %d", "open", 7);
  CLogDebug::LogPrintStr(LogLevel::kDebug, "here.cpp", "doIt", 43, "100% plain");
  EXPECT_THAT(content(), HasSubstr("ERROR here.cpp:doIt:42 cannot open 7\n"));
  EXPECT_THAT(content(), HasSubstr("DEBUG here.cpp:doIt:43 100% plain\n"));
}

TEST_F(DebugLog, RecordsBelowTheLevelAreNotWritten) {
  configure(dir_.path(), "3");
  EXPECT_FALSE(CLogDebug::CheckLogLevel(LogLevel::kInfo));
  EXPECT_TRUE(CLogDebug::CheckLogLevel(LogLevel::kWarning));
  CLogDebug::LogPrintStr(LogLevel::kInfo, "s", "f", 1, "quiet");
  CLogDebug::LogPrintStr(LogLevel::kWarning, "s", "f", 1, "loud");
  EXPECT_THAT(content(), Not(HasSubstr("quiet")));
  EXPECT_THAT(content(), HasSubstr("loud"));
}

TEST_F(DebugLog, ARecordCannotForgeASecondLine) {
  configure(dir_.path());
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "a\nERROR forged\x1b[2J");
  EXPECT_THAT(content(), HasSubstr("a\\nERROR forged\\x1b[2J\n"));
}

TEST_F(DebugLog, TheFileIsRotatedAndOnlySoManyBackupsAreKept) {
  configure(dir_.path());
  CLogDebug::Instance()->SetProperty(CLogDebug::kSize, "1000");
  CLogDebug::Instance()->SetProperty(CLogDebug::kBackupCount, "2");
  for (int i = 0; i < 100; ++i) {
    CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", i, std::string(100, 'x'));
  }
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    EXPECT_LE(entry.file_size(), 1000u);
    ++files;
  }
  EXPECT_EQ(files, 3u);
}

TEST_F(DebugLog, WithNoBackupsTheFileAloneIsKept) {
  configure(dir_.path());
  CLogDebug::Instance()->SetProperty(CLogDebug::kSize, "1000");
  CLogDebug::Instance()->SetProperty(CLogDebug::kBackupCount, "0");
  for (int i = 0; i < 100; ++i) {
    CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", i, std::string(100, 'x'));
  }
  EXPECT_LE(content().size(), 1000u);
  const std::filesystem::directory_iterator files(dir_.path());
  EXPECT_EQ(std::distance(begin(files), end(files)), 1);
}

TEST_F(DebugLog, OnlyItsOwnerReadsTheFile) {
  const mode_t before = umask(0);
  configure(dir_.path());
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "private");
  umask(before);
  struct stat st {};
  ASSERT_EQ(stat(dir_.at("unit.log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

/// Another user who tries to open the log all the time, until the object ends. Counts the times that worked.
class Outsider {
 public:
  Outsider(const std::string& folder, gid_t group) {
    opened_ = static_cast<std::atomic<int>*>(
        mmap(nullptr, 2 * sizeof(*opened_), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    process_ = fork();
    if (process_ == 0) {
      const bool is = setgroups(0, nullptr) == 0 && setgid(group) == 0 && setuid(60100) == 0;
      while (is && getppid() != 1) {
        for (const char* name : {"/unit.log", "/unit.1.log"}) {
          const int file = open((folder + name).c_str(), O_RDONLY | O_CLOEXEC);
          *opened_ += file >= 0 ? 1 : 0;
          close(file);
          ++opened_[1];
        }
      }
      _exit(1);
    }
  }
  ~Outsider() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    munmap(opened_, 2 * sizeof(*opened_));
  }
  Outsider(const Outsider&) = delete;
  Outsider& operator=(const Outsider&) = delete;
  int opened() const { return opened_[0]; }
  int tried() const { return opened_[1]; }

 private:
  std::atomic<int>* opened_;  ///< how often it was opened, and tried
  pid_t process_;
};

TEST_F(DebugLog, NoOutsiderOpensItWhileItIsMadeAndRotates) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can be a second user";
  }
  const mode_t before = umask(022);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  ASSERT_TRUE(std::filesystem::create_directory(dir_.at("log")));
  ASSERT_EQ(chmod(dir_.at("log").c_str(), 0755), 0);
  configure(dir_.at("log"));
  CLogDebug::Instance()->SetProperty(CLogDebug::kSize, "1000");
  {
    const Outsider outsider(dir_.at("log"), 60100);
    const Outsider ofTheFoldersGroup(dir_.at("log"), 0);  // who may look into the folder, not into the log
    for (int i = 0; i < 300 || outsider.tried() < 10000 || ofTheFoldersGroup.tried() < 10000; ++i) {
      CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", i, std::string(900, 'x'));
    }
    EXPECT_EQ(outsider.opened(), 0);
    EXPECT_EQ(ofTheFoldersGroup.opened(), 0);
  }
  umask(before);
  struct stat st {};
  ASSERT_EQ(stat(dir_.at("log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0750U) << "closed to others; the group stays as the owner chose";
}

TEST_F(DebugLog, TheFoldersItMakesCanBeEnteredByTheirOwnerOnly) {
  const mode_t before = umask(0);
  configure(dir_.at("made/below"));
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "x");
  umask(before);
  for (const char* folder : {"made", "made/below"}) {
    struct stat st {};
    ASSERT_EQ(stat(dir_.at(folder).c_str(), &st), 0) << folder;
    EXPECT_EQ(st.st_mode & 07777, 0700u) << folder;
  }
}

TEST_F(DebugLog, PropertiesThatAreNoNumbersOrOutOfRangeChangeNothing) {
  configure(dir_.path(), "3");
  CLogDebug* log = CLogDebug::Instance();
  for (const char* text : {"", "x", "1x"}) {
    log->SetProperty(CLogDebug::kLevel, text);
    log->SetProperty(CLogDebug::kSize, text);
    log->SetProperty(CLogDebug::kBackupCount, text);
  }
  for (const char* text : {"0", "-5"}) {
    log->SetProperty(CLogDebug::kSize, text);
  }
  log->SetProperty(CLogDebug::kBackupCount, "-1");
  EXPECT_FALSE(CLogDebug::CheckLogLevel(LogLevel::kInfo));
  CLogDebug::LogPrintStr(LogLevel::kWarning, "s", "f", 1, "written");
  EXPECT_THAT(content(), HasSubstr("written"));
}

TEST_F(DebugLog, ASizeThatIsNoSizeLeavesTheOneBefore) {
  for (const char* text : {"0", "-1", "-1000", "", "x"}) {
    const std::string folder = dir_.at(std::string("size ") + text);
    configure(folder);
    CLogDebug::Instance()->SetProperty(CLogDebug::kSize, "1000");
    CLogDebug::Instance()->SetProperty(CLogDebug::kSize, text);
    for (int i = 0; i < 20; ++i) {
      CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", i, std::string(100, 'x'));
    }
    std::size_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      bytes += entry.file_size();
      EXPECT_LE(entry.file_size(), 1000U) << text;
    }
    EXPECT_GT(bytes, 2000U) << "nothing is lost: " << text;
  }
}

TEST_F(DebugLog, ANewPropertyHoldsFromTheNextRecordOn) {
  configure(dir_.path());
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "first");
  CLogDebug::Instance()->SetProperty(CLogDebug::kName, "second");
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "second");
  EXPECT_THAT(content(), Not(HasSubstr("second")));
  EXPECT_THAT(readFile(dir_.at("second.log")), HasSubstr("second"));
}

TEST_F(DebugLog, TheFileIsOpenedOnce) {
  configure(dir_.path());
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "first");
  std::filesystem::rename(dir_.at("unit.log"), dir_.at("moved.log"));
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "second");
  EXPECT_THAT(readFile(dir_.at("moved.log")), HasSubstr("second"));
  EXPECT_FALSE(std::filesystem::exists(dir_.at("unit.log")));
}

TEST_F(DebugLog, AFolderThatCannotBeWrittenCostsTheLogOnly) {
  dir_.write("file", "");
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::create_directory(dir_.at("current"));
  std::filesystem::current_path(dir_.at("current"));
  configure(dir_.at("file/below"));
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "lost");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.at("current")));
  std::filesystem::current_path(before);
  EXPECT_NE(CLogDebug::Instance(), nullptr);
  EXPECT_FALSE(std::filesystem::exists("/unit.log")) << "nor is it written elsewhere";
}

/// A folder of another user, with a link under the name of the log.
class PlantedLink : public DebugLog, public testing::WithParamInterface<mode_t> {};

TEST_P(PlantedLink, InAFolderThatOthersCanWriteIsNotFollowed) {
  const std::string victim = dir_.write("victim", "as it was");
  ASSERT_EQ(chmod(victim.c_str(), 0644), 0);
  ASSERT_TRUE(std::filesystem::create_directory(dir_.at("open")));
  std::filesystem::create_symlink(victim, dir_.at("open/unit.log"));
  ASSERT_EQ(chmod(dir_.at("open").c_str(), GetParam()), 0);
  std::filesystem::create_directory_symlink(dir_.at("open"), dir_.at("link"));
  for (const char* folder : {"open", "link"}) {
    configure(dir_.at(folder));
    CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "lost");
    CLogDebug::Close();
    EXPECT_EQ(readFile(victim), "as it was") << folder;
    struct stat st {};
    ASSERT_EQ(stat(victim.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u) << folder;
  }
}
INSTANTIATE_TEST_SUITE_P(Modes, PlantedLink, testing::Values(0777, 0775, 01777), [](const auto& row) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", row.param);
  return std::string("Mode") + text;
});

TEST_F(DebugLog, AFolderOfAnotherUserCostsTheLogOnly) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder to a second user";
  }
  ASSERT_TRUE(std::filesystem::create_directory(dir_.at("theirs")));
  ASSERT_EQ(chown(dir_.at("theirs").c_str(), 54321, 54321), 0);
  configure(dir_.at("theirs"));
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "lost");
  EXPECT_TRUE(std::filesystem::is_empty(dir_.at("theirs")));
}

TEST_F(DebugLog, ThereIsNoInstanceAfterClose) {
  configure(dir_.path());
  CLogDebug::Close();
  EXPECT_EQ(CLogDebug::Instance(), nullptr);
  EXPECT_FALSE(CLogDebug::CheckLogLevel(LogLevel::kError));
  CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "lost");
  EXPECT_EQ(content(), "");
}

TEST_F(DebugLog, ManyThreadsWriteWholeLines) {
  configure(dir_.path());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) {
        CLogDebug::LogPrintStr(LogLevel::kError, "s", "f", 1, "whole");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::string text = content();
  std::size_t count = 0;
  for (std::size_t at = text.find("s:f:1 whole\n"); at != std::string::npos;
       at = text.find("s:f:1 whole\n", at + 1)) {
    ++count;
  }
  EXPECT_EQ(count, 200u);
}

std::vector<std::pair<int, std::string>> gRecords;

TEST(BaseLog, RecordsBelowTheLevelAreDroppedAndOthersReachTheCallback) {
  gRecords.clear();
  CLog::set_log_callback([](int level, const char* text) { gRecords.emplace_back(level, text); });
  CLog::set_log_level(CLogLevel::kWarning);
  CLog::emit(CLogLevel::kInfo, "no");
  CLog::emit(CLogLevel::kWarning, "yes %d", 1);
  CLog::emit(CLogLevel::kError, "%s", "too");
  CLog::set_log_callback(nullptr);
  CLog::emit(CLogLevel::kError, "nobody");
  CLog::set_log_level(CLogLevel::kError);
  EXPECT_THAT(gRecords, testing::ElementsAre(testing::Pair(2, "yes 1"), testing::Pair(3, "too")));
}

}  // namespace
