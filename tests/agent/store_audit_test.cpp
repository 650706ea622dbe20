// The audit record: changes in full, refusals counted.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <thread>

#include "StoreFixture.h"
#include "engine/Digest.h"
#include "store/AuditLog.h"
#include "support/FileCalls.h"

namespace agent {
namespace {

using store::AuditLog;
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testsupport::readFile;

constexpr uid_t kMember = 1000;

class AuditTest : public testing::Test {
 protected:
  AuditTest() {
    options_.now = [this] { return now_; };
    reopen();
  }
  void reopen() {
    log_.reset();
    log_ = std::make_unique<AuditLog>(folder_.path(), options_);
  }
  static CallerId root() { return {.uid = 0, .gid = 0, .groups = {}, .pid = 1}; }
  static CallerId user(uid_t uid) { return {.uid = uid, .gid = 100, .groups = {}, .pid = 42}; }
  void change(const std::string& object) { log_->add(root(), "act", object, "done"); }
  void refuse(uid_t uid, const std::string& action = "act") {
    log_->refuse(user(uid), action, "thing", "refused: not allowed");
  }
  std::string changes() const { return readFile(changesFile()); }
  std::string changesFile() const { return folder_.at("audit.log"); }
  std::vector<std::string> refusals() const {
    std::ifstream file(folder_.at("audit-refusals.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }
  std::string lastRefusal() const {
    const std::vector<std::string> lines = refusals();
    return lines.empty() ? "" : lines.back();
  }

  testsupport::TempDir folder_;
  store::AuditOptions options_;
  std::chrono::steady_clock::time_point now_ = std::chrono::steady_clock::now();
  std::unique_ptr<AuditLog> log_;
};

TEST_F(AuditTest, AnEntryIsOneLineWithTheTimeInUtcAndControlCharactersVisible) {
  log_->add(user(kMember), "restore", "/tmp/a\n\x1b[31m\"b", "done");
  log_->add({}, "start", "", "ok");
  EXPECT_THAT(changes(), AllOf(HasSubstr("Z uid=1000 gid=100 pid=42 action=\"restore\" "
                                         "object=\"/tmp/a\\n\\x1b[31m\\\"b\" outcome=\"done\"\n"),
                               EndsWith("Z agent action=\"start\" object=\"\" outcome=\"ok\"\n")));
  const std::string text = changes();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  std::tm fields{};
  ASSERT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields), nullptr);
  EXPECT_NEAR(static_cast<double>(timegm(&fields)), static_cast<double>(std::time(nullptr)), 60);
}

TEST_F(AuditTest, IsOnlyAppendedToOverRestarts) {
  change("one");
  reopen();
  change("two");
  EXPECT_THAT(changes(), ContainsRegex("one(.|\n)*two"));
}

TEST_F(AuditTest, TenThousandRefusedCallsMoveNoChangeOutOfTheRecordAndAreTwoLines) {
  options_.keeping = {.fileBytes = 4096, .age = std::chrono::hours(0), .floorBytes = 0};
  reopen();
  change("the change");
  for (int i = 0; i < 10000; ++i) {
    refuse(kMember);
  }
  now_ += AuditLog::kWindow;
  log_->settle();
  EXPECT_THAT(changes(), HasSubstr("the change"));
  EXPECT_THAT(refusals(), ElementsAre(EndsWith(" uid=1000 gid=100 pid=42 action=\"act\" object=\"thing\" "
                                               "outcome=\"refused: not allowed\""),
                                      EndsWith(" uid=1000 action=\"refused calls\" object=\"\" "
                                               "outcome=\"9999 more: act 9999\"")));
}

TEST_F(AuditTest, EachUserHasALineAMinuteAndAfterAQuietMinuteALineAtOnce) {
  refuse(kMember);
  refuse(kMember + 1);
  refuse(kMember, "restore");
  refuse(kMember, "change region");
  EXPECT_EQ(refusals().size(), 2U);
  now_ += AuditLog::kWindow;
  refuse(kMember);
  EXPECT_THAT(lastRefusal(), HasSubstr("2 more: change region 1, restore 1"));
  now_ += AuditLog::kWindow;
  log_->settle();
  EXPECT_THAT(lastRefusal(), HasSubstr("1 more: act 1"));
  now_ += AuditLog::kWindow;
  refuse(kMember);
  EXPECT_THAT(lastRefusal(), HasSubstr("refused: not allowed"));
  EXPECT_EQ(refusals().size(), 5U);
}

TEST_F(AuditTest, TheRefusalsOfAnUnfinishedMinuteAreWrittenAtTheEnd) {
  refuse(kMember);
  refuse(kMember);
  log_.reset();
  EXPECT_THAT(lastRefusal(), HasSubstr("1 more: act 1"));
}

TEST_F(AuditTest, UsersBeyondTheLimitAreCountedTogetherAndSoAreActions) {
  for (std::size_t i = 0; i < AuditLog::kMostUsers + 100; ++i) {
    refuse(static_cast<uid_t>(kMember + i));
  }
  EXPECT_EQ(refusals().size(), AuditLog::kMostUsers + 1);
  for (std::size_t i = 0; i < AuditLog::kMostActions + 100; ++i) {
    refuse(kMember, "action " + std::to_string(i));
  }
  log_.reset();
  EXPECT_THAT(refusals(),
              AllOf(testing::Contains(HasSubstr(" other users action=\"refused calls\" object=\"\" "
                                                "outcome=\"99 more: act 99\"")),
                    testing::Contains(HasSubstr("others 100"))));
}

TEST_F(AuditTest, AFieldHasAtMost512BytesAndWasCutWithTheHashOfTheWhole) {
  const std::string fits(store::kMaxFieldBytes, 'x');
  const std::string large(5 << 20, 'x');
  const std::string unreadable(300, '\x01');  // four characters each
  change(fits);
  EXPECT_THAT(changes(), HasSubstr("object=\"" + fits + "\" "));
  change(large);
  EXPECT_THAT(changes(),
              HasSubstr("object=\"" + fits + "\"...(5242880 bytes, sha256 " + sha256Of(large) + ") "));
  change(unreadable);
  EXPECT_THAT(changes(), HasSubstr("\\x01\"...(300 bytes, sha256 " + sha256Of(unreadable) + ") "));
  std::ifstream file(changesFile());
  for (std::string line; std::getline(file, line);) {
    EXPECT_LT(line.size(), store::kMaxFieldBytes + 300);
  }
}

TEST_F(AuditTest, ALineIsSyncedBeforeTheCallReturns) {
  testsupport::FileCalls calls;
  change("x");
  refuse(kMember);
  EXPECT_THAT(calls.seen(), ElementsAre("write audit.log", "sync audit.log", "write audit-refusals.log",
                                        "sync audit-refusals.log"));
}

TEST_F(AuditTest, ACutLastLineIsNotContinued) {
  log_.reset();
  folder_.write("audit.log", "2026-01-31T00:00:00Z uid=0 gid=0 pid=1 action=\"cu");
  reopen();
  change("next");
  EXPECT_THAT(changes(), ContainsRegex("action=\"cu\n[^\n]*next[^\n]*\n$"));
}

TEST_F(AuditTest, AFullFileGetsANumberAndNothingIsDeletedBeforeItsTime) {
  options_.keeping.fileBytes = 300;
  reopen();
  for (int i = 0; i < 40; ++i) {
    change(std::to_string(i));
  }
  std::string all;
  for (int number = 30; number > 0; --number) {
    const std::string file = readFile(changesFile() + "." + std::to_string(number));
    EXPECT_LE(file.size(), 300U);
    all += file;
  }
  all += changes();
  std::size_t at = 0;
  for (int i = 0; i < 40; ++i) {
    at = all.find("object=\"" + std::to_string(i) + "\"", at);
    ASSERT_NE(at, std::string::npos) << i;
  }
}

TEST_F(AuditTest, OldFilesAreDeletedAsLongAsTheOthersHoldTheFloor) {
  log_.reset();
  for (const auto& [name, days] : {std::pair{"audit.log.1", 0},
                                   {"audit.log.2", 10},
                                   {"audit.log.3", 40},
                                   {"audit.log.4", 50},
                                   {"audit.log.5", 60}}) {
    const std::string path = folder_.write(name, std::string(100, 'x'));
    const timespec then{std::time(nullptr) - days * 86400L, 0};
    const std::array<timespec, 2> times{then, then};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
  }
  options_.keeping = {.fileBytes = 300, .age = std::chrono::hours(24 * 30), .floorBytes = 300};
  reopen();
  EXPECT_TRUE(std::filesystem::exists(changesFile() + ".3")) << "old, but part of the floor";
  EXPECT_FALSE(std::filesystem::exists(changesFile() + ".4"));
  EXPECT_FALSE(std::filesystem::exists(changesFile() + ".5"));
  options_.keeping.floorBytes = 0;
  reopen();
  EXPECT_TRUE(std::filesystem::exists(changesFile() + ".2")) << "young";
  EXPECT_FALSE(std::filesystem::exists(changesFile() + ".3"));
}

TEST_F(AuditTest, ARotationThatEndedHalfwayLosesNoFile) {
  log_.reset();
  folder_.write("audit.log", std::string(290, 'a') + "\n");
  folder_.write("audit.log.2", "two\n");
  options_.keeping.fileBytes = 300;
  reopen();
  change("new");
  EXPECT_THAT(readFile(changesFile() + ".1"), HasSubstr("aaa"));
  EXPECT_EQ(readFile(changesFile() + ".2"), "two\n");
  EXPECT_THAT(changes(), HasSubstr("new"));
}

TEST_F(AuditTest, ALineLongerThanAFileStandsAlone) {
  options_.keeping.fileBytes = 100;
  reopen();
  change(std::string(150, 'x'));
  EXPECT_THAT(changes(), HasSubstr("xxx"));
  EXPECT_FALSE(std::filesystem::exists(changesFile() + ".1")) << "an empty file is not kept";
}

TEST_F(AuditTest, EachFileIsForTheAgentsUserOnlyAlsoAfterARotation) {
  const mode_t before = ::umask(0);
  options_.keeping.fileBytes = 100;
  reopen();
  change("one");
  change("two");
  refuse(kMember);
  ::umask(before);
  for (const char* name : {"audit.log", "audit.log.1", "audit-refusals.log"}) {
    struct stat st {};
    EXPECT_EQ(::stat(folder_.at(name).c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 07777, 0600U) << name;
  }
}

TEST_F(AuditTest, IsNotWrittenThroughALink) {
  log_.reset();
  std::filesystem::remove(changesFile());
  const std::string victim = folder_.write("victim", "precious");
  ASSERT_EQ(::symlink(victim.c_str(), changesFile().c_str()), 0);
  reopen();
  change("one");
  EXPECT_EQ(readFile(victim), "precious");
}

TEST_F(AuditTest, WhatAFullDiskRefusesIsWrittenInOrderOnceThereIsSpace) {
  {
    testsupport::FileCalls calls;
    calls.fail("write audit", "", ENOSPC);
    change("first");
    change("second");
    refuse(kMember);
    EXPECT_EQ(changes(), "");
    EXPECT_TRUE(refusals().empty());
  }
  log_->settle();
  EXPECT_THAT(changes(), MatchesRegex("[^\n]*first[^\n]*\n[^\n]*second[^\n]*\n"));
  EXPECT_EQ(refusals().size(), 1U);
}

TEST_F(AuditTest, ALineThatCannotBeSyncedIsWrittenOnceLater) {
  {
    testsupport::FileCalls calls;
    calls.fail("sync audit.log", "", EIO);
    change("only");
  }
  change("next");
  EXPECT_THAT(changes(), MatchesRegex("[^\n]*only[^\n]*\n[^\n]*next[^\n]*\n"));
}

TEST_F(AuditTest, OfTheLinesThatWaitForSpaceALimitedNumberIsKeptAndTheOthersAreCounted) {
  {
    testsupport::FileCalls calls;
    calls.fail("write audit.log", "", ENOSPC);
    for (std::size_t i = 0; i < store::AuditFile::kMostWaiting + 5; ++i) {
      change("number " + std::to_string(i));
    }
  }
  change("after");
  EXPECT_THAT(changes(),
              AllOf(HasSubstr("\"number 0\""), HasSubstr("\"number 999\""), Not(HasSubstr("\"number 1000\"")),
                    HasSubstr("\n5 lines are lost"), HasSubstr("\"after\"")));
}

TEST_F(AuditTest, IsWrittenOnceItsFolderIsThere) {
  const std::string missing = folder_.at("missing");
  AuditLog log(missing, options_);
  log.add(root(), "early", "", "");
  ASSERT_EQ(::mkdir(missing.c_str(), 0700), 0);
  log.settle();
  EXPECT_THAT(readFile(missing + "/audit.log"), HasSubstr("early"));
}

TEST_F(AuditTest, TheLinesOfSeveralThreadsDoNotMix) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < 50; ++i) {
        change(std::string(100, 'x'));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::ifstream log(changesFile());
  int count = 0;
  for (std::string line; std::getline(log, line); ++count) {
    EXPECT_THAT(line, EndsWith("outcome=\"done\""));
  }
  EXPECT_EQ(count, 200);
}

/// The datagram socket of a journal or syslog.
class SystemLogTest : public AuditTest {
 protected:
  SystemLogTest() {
    options_.systemLog = folder_.at("log");
    reopen();
  }
  void listen() {
    socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    options_.systemLog.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  std::string received() {
    std::array<char, 4096> text{};
    const ssize_t size = ::recv(socket_.get(), text.data(), text.size(), 0);
    return size < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(size));
  }
  platform::Descriptor socket_;
};

TEST_F(SystemLogTest, GetsEachLineOnceItListens) {
  change("nobody listens");
  listen();
  change("x");
  refuse(kMember);
  EXPECT_THAT(received(), MatchesRegex("<85>[A-Z][a-z]+ [ 0-9]+ [0-9:]+ tavagentd\\[[0-9]+\\]: "
                                       ".*Z uid=0 gid=0 pid=1 action=\"act\" object=\"x\" outcome=\"done\""));
  EXPECT_THAT(received(), AllOf(testing::StartsWith("<84>"), HasSubstr("refused: not allowed")));
  EXPECT_EQ(received(), "");
}

TEST_F(SystemLogTest, ThatReadsNothingIsNotWaitedFor) {
  listen();
  for (int i = 0; i < 2000; ++i) {
    change("line " + std::to_string(i));
  }
  EXPECT_THAT(changes(), HasSubstr("line 1999"));
}

}  // namespace
}  // namespace agent
