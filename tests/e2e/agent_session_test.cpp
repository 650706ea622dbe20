// A user's session with the installed programs, once with lines through a pipe and once at the prompt of a
// terminal.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <set>

#include "e2e/AgentTree.h"
#include "support/Pty.h"
#include "support/Samples.h"
#include "support/Wait.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using testsupport::AgentTree;
using testsupport::Process;
using testsupport::PtyProgram;
using testsupport::waitFor;

/// A console that takes lines and gives text.
class Session {
 public:
  virtual ~Session() = default;
  virtual void type(const std::string& line) = 0;
  virtual std::string text() = 0;  ///< the output so far, with plain line ends
  virtual std::optional<int> end() = 0;
};

class PipedSession : public Session {
 public:
  explicit PipedSession(const AgentTree& tree) : console_(tree.console("tavcli", {})) {}
  void type(const std::string& line) override { console_->write(line + "\n"); }
  std::string text() override { return console_->out(); }
  std::optional<int> end() override {
    console_->closeInput();
    return console_->wait();
  }

 private:
  std::unique_ptr<Process> console_;
};

class PromptSession : public Session {
 public:
  explicit PromptSession(const AgentTree& tree) {
    PtyProgram::Options options;
    options.cols = 300;
    options.rows = 50;
    options.workingDir = tree.at("bin");
    options.environment = {{"XDG_STATE_HOME", tree.at("home")}, {"CKORVIX_CLOG_LEVEL", ""}};
    program_ =
        std::make_unique<PtyProgram>(std::vector<std::string>{std::string(TAV_BIN_DIR) + "/tavcli"}, options);
    EXPECT_TRUE(program_->waitForPrompt("TAV>")) << program_->screen().text();
  }
  void type(const std::string& line) override { program_->type(line + "\r"); }
  std::string text() override {
    program_->waitUntil([](const auto&) { return false; }, std::chrono::milliseconds(1));
    std::string plain = program_->written();
    plain.erase(std::remove(plain.begin(), plain.end(), '\r'), plain.end());
    return plain;
  }
  std::optional<int> end() override {
    program_->type("exit\r");
    return program_->wait();
  }

 private:
  std::unique_ptr<PtyProgram> program_;
};

/// The attributes that a restore brings back.
struct FileState {
  std::string sha256;
  mode_t mode;
  uid_t uid;
  gid_t gid;
  std::array<std::int64_t, 4> times;  ///< access and modification: seconds, nanoseconds
  bool operator==(const FileState&) const = default;
};

void PrintTo(const FileState& state, std::ostream* out) {
  *out << state.sha256 << " mode " << std::oct << state.mode << std::dec << " owner " << state.uid << ":"
       << state.gid << " times";
  for (const std::int64_t part : state.times) {
    *out << " " << part;
  }
}

FileState stateOf(const std::string& path) {
  struct stat now {};
  EXPECT_EQ(0, lstat(path.c_str(), &now)) << path;
  Process sum({"sha256sum", path});
  EXPECT_EQ(0, sum.wait()) << sum.err();
  // Reading it was an access, too.
  const std::array<timespec, 2> times{now.st_atim, now.st_mtim};
  EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times.data(), 0));
  return {sum.out().substr(0, 64),
          now.st_mode,
          now.st_uid,
          now.st_gid,
          {now.st_atim.tv_sec, now.st_atim.tv_nsec, now.st_mtim.tv_sec, now.st_mtim.tv_nsec}};
}

class OperatorsSession : public ::testing::TestWithParam<bool> {
 protected:
  void start() {
    session_ = GetParam() ? std::unique_ptr<Session>(std::make_unique<PromptSession>(tree))
                          : std::make_unique<PipedSession>(tree);
  }
  /// Waits until the console has written `awaited`. Returns the output from the line on.
  std::string run(const std::string& line, const std::string& awaited) {
    const std::size_t mark = session_->text().size();
    session_->type(line);
    std::string answer;
    EXPECT_TRUE(waitFor([&] {
      answer = session_->text().substr(mark);
      return answer.find(awaited) != std::string::npos;
    })) << line
        << "\n"
        << answer << tree.log();
    return answer;
  }
  std::string scan() { return run("SCAN START HANDLE AUTO MODE CUSTOM PATH " + tree.data(), "扫描结束"); }
  std::string isolated(int count) {
    return run("ISOLATION REPORT", "隔离区当前存在 " + std::to_string(count) + " 项");
  }
  /// The id of a path in the report.
  static std::string uidOf(const std::string& report, const std::string& path) {
    const std::size_t at = report.find("文件路径 : " + path + "\n");
    const std::string label = "UID标识 : ";
    const std::size_t begin = report.rfind(label, at) + label.size();
    return at == std::string::npos ? "" : report.substr(begin, report.find('\n', begin) - begin);
  }
  /// Writes a detection with content, mode, owner and times of its own.
  std::string writeTestFile(int number) {
    const std::string path =
        tree.write("a" + std::to_string(number % 5) + "/b" + std::to_string(number % 3) + "/文件" +
                       std::to_string(number % 2) + "/test" + std::to_string(number),
                   testsupport::genericSample() + " " + std::to_string(number));
    const auto id = static_cast<uid_t>(20000 + number);
    EXPECT_EQ(0, chown(path.c_str(), id, id + 1));
    EXPECT_EQ(0, chmod(path.c_str(), static_cast<mode_t>(0400 + number)));
    const timespec times[] = {{1000000000 + number, 123456789}, {1100000000 + number, 987654321 - number}};
    EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
    return path;
  }

  AgentTree tree{{.group = "", .start = true, .uid = {}, .dataOnDisk = true}};
  std::unique_ptr<Session> session_;
};

TEST_P(OperatorsSession,
       QuarantinesTwoHundredFilesRestoresTwoAndTheTrustedOneIsSkippedUntilItIsTrustedNoMore) {
  constexpr int kFiles = 200;
  std::vector<std::string> paths;
  for (int i = 0; i < kFiles; ++i) {
    paths.push_back(writeTestFile(i));
  }
  const std::string plain = paths[17];
  const std::string trusted = paths[118];
  const FileState plainBefore = stateOf(plain);
  const FileState trustedBefore = stateOf(trusted);
  const auto there = [&] {
    return std::count_if(paths.begin(), paths.end(),
                         [](const auto& p) { return std::filesystem::exists(p); });
  };
  start();

  scan();
  EXPECT_EQ(0, there());
  const std::string report = isolated(kFiles);
  ASSERT_NE("", uidOf(report, plain)) << report;
  ASSERT_NE("", uidOf(report, trusted)) << report;

  session_->type("ISOLATION RESTORE TRUST OFF ITEMID UID " + uidOf(report, plain));
  isolated(kFiles - 1);
  EXPECT_EQ(plainBefore, stateOf(plain));
  session_->type("ISOLATION RESTORE TRUST ON ITEMID UID " + uidOf(report, trusted));
  isolated(kFiles - 2);
  EXPECT_EQ(trustedBefore, stateOf(trusted));
  EXPECT_EQ(2, there());

  const std::string again = scan();
  EXPECT_THAT(again, HasSubstr("文件路径 : " + plain + "\n"));
  EXPECT_THAT(again, Not(HasSubstr("文件路径 : " + trusted + "\n")));
  EXPECT_FALSE(std::filesystem::exists(plain));
  EXPECT_EQ(trustedBefore, stateOf(trusted));

  EXPECT_THAT(run("TRUSTREGION REPORT", "否决区当前存在 0 项"),
              AllOf(HasSubstr("项 : " + trusted + "\n"), HasSubstr("类型 : 文件路径\n行为 : 信任\n"),
                    HasSubstr("信任区当前存在 1 项\n")));
  session_->type("TRUSTREGION MODIFY ACTION DEL TYPE FILE ITEM NAME " + trusted);
  EXPECT_THAT(run("TRUSTREGION REPORT", "否决区当前存在 0 项"), HasSubstr("信任区当前存在 0 项\n"));
  EXPECT_THAT(scan(), HasSubstr("文件路径 : " + trusted + "\n"));
  EXPECT_EQ(0, there());
  isolated(kFiles);
  EXPECT_EQ(0, session_->end());
}

INSTANTIATE_TEST_SUITE_P(, OperatorsSession, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "AtThePrompt" : "ByPipedLines"; });

/// Tells the files of a folder that were read since the last question.
class ReadFiles {
 public:
  explicit ReadFiles(const std::string& folder) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_LE(0, inotify_add_watch(fd_, folder.c_str(), IN_ACCESS));
  }
  ~ReadFiles() { close(fd_); }
  ReadFiles(const ReadFiles&) = delete;
  ReadFiles& operator=(const ReadFiles&) = delete;

  std::set<std::string> take() const {
    std::set<std::string> names;
    alignas(inotify_event) std::array<char, 16384> buffer;
    for (ssize_t got = 0; (got = read(fd_, buffer.data(), buffer.size())) > 0;) {
      for (ssize_t at = 0; at < got;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        if (event->len > 0 && (event->mask & IN_ISDIR) == 0) {
          names.insert(event->name);
        }
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    return names;
  }

 private:
  int fd_;
};

class ScanCacheSession : public OperatorsSession {
 protected:
  /// Scans until the console shows so many: the cache does not remember files of the last moment.
  bool scanUntilShown(int files) {
    const std::string wanted = "当前存在" + std::to_string(files) + "项扫描缓存";
    return waitFor([&] {
      scan();
      return run("CACHE SHOW SCANCACHE", "项扫描缓存").find(wanted) != std::string::npos;
    });
  }
};

TEST_P(ScanCacheSession, CountsItsFilesATouchedOneIsScannedAgainAloneAndEmptiedAllAre) {
  for (const char* name : {"one", "two", "three", "four", "five"}) {
    tree.write(name, std::string("clean ") + name);
  }
  start();
  EXPECT_THAT(run("CACHE SHOW SCANCACHE", "项扫描缓存"), HasSubstr("  当前存在0项扫描缓存\n"));
  ASSERT_TRUE(scanUntilShown(5));

  const ReadFiles read(tree.data());
  scan();
  EXPECT_THAT(read.take(), IsEmpty());
  ASSERT_EQ(0, utimensat(AT_FDCWD, (tree.data() + "/three").c_str(), nullptr, 0));
  scan();
  EXPECT_THAT(read.take(), ElementsAre("three"));

  session_->type("CACHE CLEAN SCANCACHE");
  EXPECT_THAT(run("CACHE SHOW SCANCACHE", "项扫描缓存"), HasSubstr("  当前存在0项扫描缓存\n"));
  scan();
  EXPECT_EQ(5U, read.take().size());
  EXPECT_EQ(0, session_->end());
}

INSTANTIATE_TEST_SUITE_P(, ScanCacheSession, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "AtThePrompt" : "ByPipedLines"; });

}  // namespace
