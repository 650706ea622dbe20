// Restores whose child is stopped by its user, or hangs in a file system of the user.

#include <sys/file.h>

#include <chrono>
#include <csignal>
#include <fstream>

#include "QuarantineFixture.h"
#include "platform/Descriptor.h"
#include "support/Wait.h"

namespace agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testsupport::waitFor;

class StalledRestoreTest : public QuarantineTest {
 protected:
  void SetUp() override {
    QuarantineTest::SetUp();
    store_.reset();
    store_ = Store::open(stateDir(), std::chrono::milliseconds(200));
  }
  /// Quarantines a file of the second user in a folder of the same user.
  std::string takeOthers(const std::string& name, const std::string& content) {
    std::filesystem::create_directories(at("theirs"));
    EXPECT_EQ(::chown(at("theirs").c_str(), kOther, kOther), 0);
    const std::string path = write("theirs/" + name, content);
    EXPECT_EQ(::chown(path.c_str(), kOther, kOther), 0);
    return take(path);
  }
  static void stopTheChild() {
    before("file made", [] { ::raise(SIGSTOP); });
  }
  static std::string stateOf(const std::string& pid) {
    const std::string stat = testsupport::readFile("/proc/" + pid + "/stat");
    const std::size_t close = stat.rfind(") ");
    return close == std::string::npos ? "" : stat.substr(close + 2, 1);
  }
  static bool stopped(const std::string& pid) { return !pid.empty() && stateOf(pid) == "T"; }
  /// Gone, or dead and not yet collected by its new parent.
  static bool dead(const std::string& pid) { return stateOf(pid).empty() || stateOf(pid) == "Z"; }
};

class StoppedChildTest : public StalledRestoreTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(StoppedChildTest, FailsTheRestoreKeepsTheItemAndTheNextRestoreGoesWell) {
  const std::string content = testsupport::noise(GetParam());
  const std::string uuid = takeOthers("a", content);
  stopTheChild();
  const auto result = restore(uuid, other());
  EXPECT_FALSE(result);
  EXPECT_THAT(lineOf(result), HasSubstr("had been stopped"));
  EXPECT_EQ(uuidOf(at("theirs/a")), uuid);
  EXPECT_THAT(vaultFiles(), ElementsAre(uuid + ".item"));
  EXPECT_FALSE(std::filesystem::exists(at("theirs/a")));
  store::stepHook = nullptr;
  reopen();  // with the default patience
  EXPECT_TRUE(restore(uuid, other()));
  EXPECT_EQ(testsupport::readFile(at("theirs/a")), content);
}

// Smaller and larger than the channel's buffer.
INSTANTIATE_TEST_SUITE_P(Sizes, StoppedChildTest, testing::Values(10, 4 << 20),
                         [](const auto& size) { return std::to_string(size.param) + "Bytes"; });

TEST_F(StalledRestoreTest, AChildThatStopsBehindItsLastStepIsEndedToo) {
  const std::string uuid = takeOthers("a", "content");
  before("file placed", [] { ::raise(SIGSTOP); });
  EXPECT_FALSE(restore(uuid, other()));
  EXPECT_EQ(uuidOf(at("theirs/a")), uuid) << "both stand: no report said that the file was back";
}

TEST_F(StalledRestoreTest, BehindOneThatStandsStillTheOthersAreNotTried) {
  const std::string first = takeOthers("a", "one"), second = takeOthers("b", "two");
  stopTheChild();
  const auto outcomes = store().quarantine().restore({first, second}, false, false, "", other());
  ASSERT_EQ(outcomes.size(), 2U);
  EXPECT_THAT(lineOf(outcomes[0].result), HasSubstr("had been stopped"));
  EXPECT_THAT(lineOf(outcomes[1].result), HasSubstr("not tried"));
  EXPECT_EQ(items().size(), 2U);
}

TEST_F(StalledRestoreTest, AStoppedChildEndsWithItsAgent) {
  const std::string uuid = takeOthers("a", "content");
  const std::string pidFile = at("theirs/pid");
  store_.reset();
  const pid_t agent = ::fork();
  if (agent == 0) {
    reopen();
    before("file made", [&] {
      std::ofstream(pidFile) << ::getpid() << std::flush;
      ::raise(SIGSTOP);
    });
    restore(uuid, other());
    ::_exit(1);
  }
  EXPECT_TRUE(waitFor([&] { return stopped(testsupport::readFile(pidFile)); }));
  ::kill(agent, SIGKILL);
  ASSERT_EQ(::waitpid(agent, nullptr, 0), agent);
  const std::string child = testsupport::readFile(pidFile);
  const bool ended = waitFor([&] { return dead(child); });
  EXPECT_TRUE(ended);
  if (!ended && !child.empty()) {
    ::kill(std::stoi(child), SIGKILL);
  }
  reopen();
  EXPECT_EQ(uuidOf(at("theirs/a")), uuid);
}

TEST_F(StalledRestoreTest, TheChildHoldsNoDescriptorOfTheAgent) {
  const std::string uuid = takeOthers("a", "content");
  const platform::Descriptor mark(::open(folder_.at("mark").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(mark.get(), LOCK_EX), 0);
  const int held = mark.get();
  before("file made", [held] {
    if (::fcntl(held, F_GETFD) >= 0) {
      ::_exit(1);
    }
  });
  EXPECT_TRUE(waitFor([&] { return restore(uuid, other()).has_value(); }));
}

}  // namespace
}  // namespace agent
