// Going to the background, in a process of the test's own that does so.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <system_error>

#include "service/Daemon.h"
#include "service/Options.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace agent {
namespace {

using testsupport::readFile;
using testsupport::waitFor;

class Daemons : public ::testing::Test {
 protected:
  ~Daemons() override {
    if (daemon() > 1) {
      kill(daemon(), SIGKILL);
    }
  }
  /// The exit status of the process that starts a daemon with this body.
  int start(const std::function<void(Daemon&)>& body) {
    caller_ = fork();
    if (caller_ == 0) {
      const int streams = open(dir_.write("streams", "the caller's").c_str(), O_RDWR);
      dup2(streams, STDIN_FILENO);
      dup2(streams, STDOUT_FILENO);
      Daemon daemon;
      // Under another name first, so that it is there whole.
      dir_.write("facts.new", facts());
      std::filesystem::rename(dir_.at("facts.new"), dir_.at("facts"));
      body(daemon);
      _exit(77);
    }
    int status = -1;
    EXPECT_EQ(waitpid(caller_, &status, 0), caller_);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  /// In the daemon: "pid session folder input output pipes-that-a-program-would-inherit".
  static std::string facts() {
    const auto target = [](int fd) {
      return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    };
    int inherited = 0;
    for (int fd = 3; fd < 64; ++fd) {
      const int flags = fcntl(fd, F_GETFD);
      inherited += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return std::to_string(getpid()) + " " + std::to_string(getsid(0)) + " " +
           std::filesystem::current_path().string() + " " + target(0) + " " + target(1) + " " +
           std::to_string(inherited);
  }
  std::string fact(int number) const {
    std::istringstream words(readFile(dir_.at("facts")));
    std::string word;
    for (int i = 0; i <= number; ++i) {
      words >> word;
    }
    return word;
  }
  pid_t daemon() const { return static_cast<pid_t>(std::strtol(fact(0).c_str(), nullptr, 10)); }

  testsupport::TempDir dir_;
  pid_t caller_ = -1;
};

void waitForever() {
  for (;;) {
    pause();
  }
}

TEST_F(Daemons, LeaveTheirCallerItsSessionFolderAndStreams) {
  EXPECT_EQ(start([](Daemon& daemon) {
              daemon.ready();
              waitForever();
            }),
            kExitOk);
  ASSERT_GT(daemon(), 1);
  EXPECT_EQ(kill(daemon(), 0), 0) << "it goes on";
  EXPECT_NE(daemon(), caller_);
  EXPECT_NE(fact(1), std::to_string(getsid(0))) << "a session of its own";
  EXPECT_NE(fact(1), fact(0)) << "which it does not lead: no terminal can become its own";
  EXPECT_EQ(fact(2), "/");
  EXPECT_EQ(fact(3), "/dev/null");
  EXPECT_EQ(fact(4), "/dev/null");
  EXPECT_EQ(fact(5), "0");
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + fact(0) + "/fd/2").string(), "/dev/null");
}

TEST_F(Daemons, CanWriteToTheirOutputStreams) {
  EXPECT_EQ(start([this](Daemon& daemon) {
              daemon.ready();
              const bool taken = write(STDOUT_FILENO, "x", 1) == 1 && write(STDERR_FILENO, "x", 1) == 1;
              dir_.write("taken", taken ? "both" : "not both");
              waitForever();
            }),
            kExitOk);
  ASSERT_TRUE(waitFor([this] { return !readFile(dir_.at("taken")).empty(); }));
  EXPECT_EQ(readFile(dir_.at("taken")), "both");
}

TEST_F(Daemons, HoldNoDescriptorOnceTheyAreReady) {
  EXPECT_EQ(start([this](Daemon& daemon) {
              daemon.ready();
              int held = 0;
              for (int fd = 3; fd < 64; ++fd) {
                held += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
              }
              dir_.write("held", std::to_string(held));
              waitForever();
            }),
            kExitOk);
  ASSERT_TRUE(waitFor([this] { return !readFile(dir_.at("held")).empty(); }));
  EXPECT_EQ(readFile(dir_.at("held")), "0");
}

TEST_F(Daemons, ThatFailGiveTheirCallerTheirExitCode) {
  EXPECT_EQ(start([](Daemon& daemon) { daemon.failed(kExitOtherRuns); }), kExitOtherRuns);
}

TEST_F(Daemons, ThatEndWithoutAWordAreAFailure) {
  EXPECT_EQ(start([](Daemon&) { _exit(kExitOk); }), kExitFailed);
}

// The limit of processes does not bind root.
TEST(Daemon, IsAnExceptionWhereNoProcessCanBeForked) {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0)) {
      _exit(2);
    }
    try {
      const Daemon daemon;
    } catch (const std::system_error& error) {
      _exit(error.code().value() == EAGAIN ? 42 : 3);
    }
    _exit(4);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 42);
}

TEST_F(Daemons, ThatAreReadyCannotFailTheirCallerAnyMore) {
  EXPECT_EQ(start([](Daemon& daemon) {
              daemon.ready();
              daemon.failed(kExitFailed);
              waitForever();
            }),
            kExitOk);
}

}  // namespace
}  // namespace agent
