// The process that restores a file, and the agent's end of the channel.

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <new>
#include <thread>

#include "QuarantineFixture.h"
#include "platform/Descriptor.h"
#include "store/RestoreChild.h"
#include "store/RestoreSteps.h"
#include "support/Wait.h"

namespace {
std::atomic<bool> gKillReachesNobody{false};
std::atomic<int> gKills{0};
}  // namespace

/// Replaces the function of the C library: a test cannot have a file system that holds a killed process.
extern "C" int kill(pid_t pid, int signal) noexcept {
  ++gKills;
  return gKillReachesNobody ? 0 : static_cast<int>(syscall(SYS_kill, pid, signal));
}

namespace agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using store::RestoreChild;
using store::RestoreStage;
using testing::HasSubstr;
using testsupport::waitFor;

/// A number in memory that a process and its children share.
class SharedNumber {
 public:
  SharedNumber()
      : number_(new (::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<int>(0)) {}
  ~SharedNumber() { ::munmap(number_, sizeof *number_); }
  SharedNumber(const SharedNumber&) = delete;
  SharedNumber& operator=(const SharedNumber&) = delete;
  std::atomic<int>& operator*() const { return *number_; }

 private:
  std::atomic<int>* number_;
};

std::atomic<int>* gSignals = nullptr;  ///< counted by countSignal
void countSignal(int /*signal*/) {
  ++*gSignals;
}

class RestoreChildTest : public QuarantineTest {
 protected:
  void SetUp() override {
    QuarantineTest::SetUp();
    gSignals = &*signals_;
    meta_.size = 1;
    meta_.mode = 0600;
    job_.meta = &meta_;
    job_.folder = folder_.at("files");
    job_.name = "a";
    job_.temporaryName = ".tav-a";
    job_.privileged = true;
  }
  void TearDown() override {
    gKillReachesNobody = false;
    QuarantineTest::TearDown();
  }
  static bool noChildIsLeft() { return ::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }
  /// The agent's end: the only socket with close-on-exec. Else -1.
  static int channelOfTheChild() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int fd = std::stoi(entry.path().filename());
      std::error_code gone;
      if (std::filesystem::read_symlink(entry.path(), gone).string().starts_with("socket:") &&
          (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) {
        return fd;
      }
    }
    return -1;
  }
  /// The child stops at that step and reports its pid.
  void stopAt(const std::string& step) {
    before(step, [this] {
      *child_ = ::getpid();
      ::raise(SIGSTOP);
    });
  }
  /// Signals interrupt the waits of this process until the fixture ends. The child waits at that step for
  /// some of them.
  void interruptUntil(const std::string& step) {
    struct sigaction action {};
    action.sa_handler = countSignal;
    ASSERT_EQ(::sigaction(SIGALRM, &action, &oldAction_), 0);
    before(step, [this] {
      const int until = *signals_ + 5;
      EXPECT_TRUE(waitFor([&] { return *signals_ >= until; }));
    });
    const itimerval often{{0, 5000}, {0, 5000}};
    ASSERT_EQ(::setitimer(ITIMER_REAL, &often, nullptr), 0);
  }
  void noMoreSignals() {
    const itimerval none{};
    ::setitimer(ITIMER_REAL, &none, nullptr);
    ::sigaction(SIGALRM, &oldAction_, nullptr);
  }

  SharedNumber signals_, child_;
  store::ItemMeta meta_;
  store::RestoreJob job_;
  struct sigaction oldAction_ {};
};

TEST_F(RestoreChildTest, WithoutTheFinalWordNothingIsRestoredAndNoProcessIsLeft) {
  {
    RestoreChild child(job_, seconds(20));
    EXPECT_TRUE(child.send("x"));
  }
  EXPECT_TRUE(noChildIsLeft());
  EXPECT_THAT(namesIn(at("")), testing::IsEmpty());
}

TEST_F(RestoreChildTest, AnotherFinalWordRestoresNothing) {
  RestoreChild child(job_, seconds(20));
  EXPECT_TRUE(child.send("xD"));
  EXPECT_EQ(child.report().stage, RestoreStage::kAborted);
  EXPECT_THAT(namesIn(at("")), testing::IsEmpty());
}

TEST_F(RestoreChildTest, LessContentThanTheFileHadRestoresNothing) {
  meta_.size = 3;
  RestoreChild child(job_, seconds(20));
  EXPECT_TRUE(child.send("xy"));
  EXPECT_EQ(child.report().stage, RestoreStage::kAborted);
  EXPECT_THAT(namesIn(at("")), testing::IsEmpty());
}

TEST_F(RestoreChildTest, ASignalWhileItIsSentToCostsNothing) {
  meta_.size = 4 << 20;
  interruptUntil("file made");
  RestoreChild child(job_, seconds(20));
  EXPECT_TRUE(child.send(std::string(meta_.size, 'x')) && child.commit());
  noMoreSignals();
  EXPECT_EQ(child.report().stage, RestoreStage::kDone);
}

TEST_F(RestoreChildTest, ASignalWhileItIsWaitedForCostsNothing) {
  interruptUntil("file placed");
  RestoreChild child(job_, seconds(20));
  EXPECT_TRUE(child.send("x") && child.commit());
  EXPECT_EQ(child.report().stage, RestoreStage::kDone);
  noMoreSignals();
}

TEST_F(RestoreChildTest, OneThatTookNothingForTooLongIsSentNothingMore) {
  meta_.size = std::uint64_t{1} << 40;
  stopAt("file made");
  RestoreChild child(job_, milliseconds(100));
  EXPECT_FALSE(child.send(std::string(4 << 20, 'x')));
  ASSERT_TRUE(waitFor([this] { return *child_ > 0; }));
  ASSERT_EQ(::kill(*child_, SIGCONT), 0);
  EXPECT_FALSE(child.send("x"));
  EXPECT_EQ(child.report().stage, RestoreStage::kStalled);
}

TEST_F(RestoreChildTest, AllThatIsSentTogetherHasALimit) {
  meta_.size = 60 << 20;
  const milliseconds patience(200);
  RestoreChild child(job_, patience);
  bool heard = true;
  const auto limit = std::chrono::steady_clock::now() + seconds(20);
  while (heard && std::chrono::steady_clock::now() < limit) {
    heard = child.send("x");
  }
  EXPECT_FALSE(heard) << "it took every byte at once, and yet too long in all";
  EXPECT_EQ(child.report().stage, RestoreStage::kStalled);
}

TEST_F(RestoreChildTest, AFileOfAGigabyteHasMoreTime) {
  meta_.size = std::uint64_t{1} << 30;
  const milliseconds patience(100);
  RestoreChild child(job_, patience);
  const auto end = std::chrono::steady_clock::now() + 2 * patience;
  while (std::chrono::steady_clock::now() < end) {
    ASSERT_TRUE(child.send("x"));
    std::this_thread::sleep_for(milliseconds(5));  // the channel never fills
  }
}

TEST_F(RestoreChildTest, OneThatHasAllIsWaitedForAsLongAsOneThatTakesNothing) {
  before("file placed", [this] { EXPECT_TRUE(waitFor([this] { return *signals_ != 0; })); });
  RestoreChild child(job_, seconds(30));
  std::this_thread::sleep_for(milliseconds(20));  // uses up some of the time for all calls
  EXPECT_TRUE(child.send("x") && child.commit());
  timeval limit{};
  std::thread look([&, channel = channelOfTheChild()] {
    EXPECT_TRUE(waitFor([&] {
      socklen_t size = sizeof limit;
      return ::getsockopt(channel, SOL_SOCKET, SO_RCVTIMEO, &limit, &size) == 0 &&
             (limit.tv_sec != 0 || limit.tv_usec != 0);
    }));
    *signals_ = 1;
  });
  EXPECT_EQ(child.report().stage, RestoreStage::kDone);
  look.join();
  EXPECT_EQ(limit.tv_sec, 30);
}

TEST_F(RestoreChildTest, LooksForAnExistingFileBeforeItTakesAnything) {
  write("a", "in the way");
  before("file made", [this] { ++*signals_; });
  RestoreChild child(job_, seconds(20));
  EXPECT_EQ(child.report().stage, RestoreStage::kExists);
  EXPECT_EQ(*signals_, 0);
}

TEST_F(RestoreChildTest, HasNoneOfTheAgentsStreamsAndHoldsItsBusyMark) {
  const platform::Descriptor mark(::open(at("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  job_.busyLock = mark.get();
  before("file made", [this, held = mark.get()] {
    struct stat st {};
    std::array<char, 100> target{};
    const auto size = ::readlink("/proc/self/fd/1", target.data(), target.size());
    const bool nowhere =
        std::string_view(target.data(), size > 0 ? static_cast<std::size_t>(size) : 0) == "/dev/null";
    *signals_ = nowhere && ::fstat(held, &st) == 0 ? 1 : 2;
  });
  RestoreChild child(job_, seconds(20));
  EXPECT_TRUE(child.send("x") && child.commit());
  EXPECT_EQ(child.report().stage, RestoreStage::kDone);
  EXPECT_EQ(*signals_, 1);
}

TEST_F(RestoreChildTest, WhoseAgentDiedBeforeItBeganRestoresNothing) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const platform::Descriptor agents(ends[0]);
  const pid_t another = ::getppid();
  ASSERT_EQ(::write(agents.get(), "xC", 2), 2);
  EXPECT_EQ(inChild([&] { store::runRestore(job_, ends[1], another); }), 0);
  ::close(ends[1]);
  store::RestoreReport report;
  ASSERT_EQ(::read(agents.get(), &report, sizeof report), static_cast<ssize_t>(sizeof report));
  EXPECT_EQ(report.stage, RestoreStage::kAborted);
  EXPECT_THAT(namesIn(at("")), testing::IsEmpty());
}

TEST_F(RestoreChildTest, WithoutAProcessForItTheRestoreIsRefused) {
  const auto refused = [this] {
    try {
      const RestoreChild child(job_, seconds(30));
    } catch (const store::StoreError& error) {
      return std::string(error.what()).starts_with("no process for the restore: ");
    }
    return false;
  };
  EXPECT_EQ(inChild([&] {
              const rlimit none{0, 0};  // root has no such limit
              const bool limited = ::setrlimit(RLIMIT_NPROC, &none) == 0 && ::setuid(kOther) == 0;
              ::_exit(limited && refused() ? 0 : 1);
            }),
            0);
}

TEST_F(RestoreChildTest, APatienceOfLessThanAMillisecondIsNoEndlessOne) {
  stopAt("file made");
  RestoreChild child(job_, milliseconds(0));
  EXPECT_FALSE(child.send(std::string(4 << 20, 'x')));
  EXPECT_EQ(child.report().stage, RestoreStage::kStalled);
  EXPECT_TRUE(noChildIsLeft());
}

TEST_F(RestoreChildTest, RunsNoHandlerOfTheAgentAndLeavesItsSignalsAsTheyWere) {
  struct sigaction action {};
  action.sa_handler = countSignal;
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &oldAction_), 0);
  sigset_t before, after;
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &before), 0);
  QuarantineTest::before("file made", [] { ::raise(SIGUSR1); });
  {
    RestoreChild child(job_, seconds(20));
    EXPECT_TRUE(child.send("x") && child.commit());
    EXPECT_EQ(child.report().stage, RestoreStage::kDone);
  }
  EXPECT_EQ(*signals_, 0);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &after), 0);
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    EXPECT_EQ(::sigismember(&before, signal), ::sigismember(&after, signal)) << signal;
  }
  ::sigaction(SIGUSR1, &oldAction_, nullptr);
}

TEST_F(RestoreChildTest, ItsChannelIsNotInherited) {
  const RestoreChild child(job_, seconds(20));
  EXPECT_GE(channelOfTheChild(), 0);
}

TEST_F(RestoreChildTest, OneThatTheSystemCollectedIsNotKilledByItsOldNumber) {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;  // as a parent may hand it down
  ASSERT_EQ(::sigaction(SIGCHLD, &ignore, &oldAction_), 0);
  before("file made", [this] { *child_ = ::getpid(); });
  {
    RestoreChild child(job_, seconds(20));
    EXPECT_TRUE(child.send("x") && child.commit());
    const auto isGone = [this] {
      return *child_ > 0 && !std::filesystem::exists("/proc/" + std::to_string(*child_));
    };
    EXPECT_TRUE(waitFor(isGone));
    const int killsBefore = gKills;
    EXPECT_EQ(child.report().stage, RestoreStage::kDone);
    EXPECT_EQ(gKills, killsBefore);
  }
  ::sigaction(SIGCHLD, &oldAction_, nullptr);
}

TEST_F(RestoreChildTest, OneThatDoesNotDieIsLeftBehindAndCollectedByTheNextRestore) {
  stopAt("file made");
  {
    RestoreChild child(job_, milliseconds(50));
    ASSERT_TRUE(waitFor([this] { return *child_ > 0; }));
    gKillReachesNobody = true;
    EXPECT_EQ(child.report().stage, RestoreStage::kStalled);
    gKillReachesNobody = false;
  }
  EXPECT_EQ(::waitpid(*child_, nullptr, WNOHANG), 0) << "it is still there";
  ASSERT_EQ(::kill(*child_, SIGKILL), 0);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(*child_), &info, WEXITED | WNOWAIT), 0);
  store::stepHook = nullptr;
  {
    RestoreChild next(job_, seconds(20));
    EXPECT_TRUE(next.send("x") && next.commit());
  }
  EXPECT_TRUE(noChildIsLeft());
}

}  // namespace
}  // namespace agent
