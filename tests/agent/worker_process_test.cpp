// The bodies of the agent's child processes, each run in a child of the test.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>

#include "EngineFixture.h"
#include "worker/Messages.h"
#include "worker/SpawnerProcess.h"
#include "worker/WorkerProcess.h"

namespace agent {
namespace {

class Children : public testing::EngineFixture {
 protected:
  ~Children() override {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
  }
  /// Runs the body, with the other end of ours_, in a child.
  template <class Body>
  void start(Body body) {
    auto [ours, theirs] = Channel::pair().value();
    const pid_t parent = getpid();
    child_ = fork();
    if (child_ == 0) {
      ours.close();
      body(std::move(theirs), parent);
      _exit(99);
    }
    ours_ = std::move(ours);
  }
  int exitStatus() {
    int status = -1;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  platform::Descriptor file() const {
    return platform::Descriptor(open(dir().write("file", "some text").c_str(), O_RDONLY));
  }
  template <class M>
  std::optional<M> receive(const Channel& channel) const {
    Channel::Packet packet;
    return channel.receive(packet, true) == Channel::Received::kPacket ? decode<M>(packet.bytes)
                                                                       : std::nullopt;
  }

  pid_t child_ = -1;
  Channel ours_;
};

TEST_F(Children, HaveTheirNameEndWithTheirParentAndBlockNoSignal) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  start([](Channel, pid_t parent) {
    const bool alive = becomeChild("tav-name", parent);
    char name[17] = {};
    prctl(PR_GET_NAME, name);
    int deathSignal = 0;
    prctl(PR_GET_PDEATHSIG, &deathSignal);
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    _exit((alive ? 1 : 0) | (name == std::string("tav-name") ? 2 : 0) | (deathSignal == SIGKILL ? 4 : 0) |
          (sigismember(&now, SIGUSR1) == 0 ? 8 : 0));
  });
  sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(exitStatus(), 15);
}

TEST_F(Children, NoticeAnUnexpectedParent) {
  start([](Channel, pid_t parent) { _exit(becomeChild("tav-name", parent + 1) ? 1 : 0); });
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(Children, KeepOneDescriptorOpenUnderOneNumberWhateverItsNumberWas) {
  for (const int number : {3, 40}) {
    start([number](Channel theirs, pid_t) {
      const platform::Descriptor earlier = theirs.takeFd();
      const int fd = earlier.get() == number ? number : dup3(earlier.get(), number, O_CLOEXEC);
      platform::Descriptor kept = keepOnly(platform::Descriptor(fd));
      const bool inherited = (fcntl(3, F_GETFD) & FD_CLOEXEC) == 0;
      _exit(kept.get() == 3 && fcntl(3, F_GETFD) >= 0 && !inherited && fcntl(40, F_GETFD) < 0 ? 0 : 1);
    });
    EXPECT_EQ(exitStatus(), 0) << number;
  }
}

class WorkerProcesses : public Children {
 protected:
  void startWorker(const std::string& disk) {
    Engine& loaded = engine();
    const WorkerFolders folders{dir().at("worker-quick"), disk};
    start([&](Channel channel, pid_t) { runWorker(loaded, WorkerStart{std::move(channel), folders, {}}); });
  }
  /// Not the engine's folders.
  std::string disk() const {
    mkdir(dir().at("worker-quick").c_str(), 0700);
    mkdir(dir().at("worker-disk").c_str(), 0700);
    return dir().at("worker-disk");
  }
};

TEST_F(WorkerProcesses, SendHelloWithTheirPidfdAndEndWithTheirChannel) {
  startWorker(disk());
  Channel::Packet packet;
  ASSERT_EQ(ours_.receive(packet, true), Channel::Received::kPacket);
  const auto hello = decode<WorkerHello>(packet.bytes);
  ASSERT_TRUE(hello);
  EXPECT_EQ(hello->pid, child_);
  EXPECT_TRUE(packet.fd);
  ours_.close();
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(WorkerProcesses, EndWhenTheyReceiveAnUnknownMessage) {
  startWorker(disk());
  ASSERT_TRUE(receive<WorkerHello>(ours_));
  ASSERT_TRUE(ours_.send("nonsense", file().get()));
  EXPECT_FALSE(receive<ScanAnswer>(ours_));
  EXPECT_EQ(exitStatus(), 1);
}

TEST_F(WorkerProcesses, EndAtARequestWithoutAFile) {
  startWorker(disk());
  ASSERT_TRUE(receive<WorkerHello>(ours_));
  ASSERT_TRUE(ours_.send(encode(ScanRequest{})));
  EXPECT_FALSE(receive<ScanAnswer>(ours_));
  EXPECT_EQ(exitStatus(), 1);
}

TEST_F(WorkerProcesses, EndBeforeTheirHelloWithoutAFolder) {
  startWorker(dir().at("nowhere"));
  EXPECT_FALSE(receive<WorkerHello>(ours_));
  EXPECT_EQ(exitStatus(), 1);
}

TEST_F(WorkerProcesses, AnswerWithTheIdOfTheRequest) {
  startWorker(disk());
  ASSERT_TRUE(receive<WorkerHello>(ours_));
  ScanRequest request;
  request.id = 77;
  ASSERT_TRUE(ours_.send(encode(request), file().get()));
  const auto answer = receive<ScanAnswer>(ours_);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->id, 77U);
  EXPECT_EQ(answer->verdict.outcome, Outcome::kClean) << testing::describe(answer->verdict);
}

TEST_F(WorkerProcesses, UnpackOnlyInTheirFolders) {
  startWorker(disk());
  ASSERT_TRUE(receive<WorkerHello>(ours_));
  std::filesystem::remove_all(dir().at("worker-quick"));
  std::filesystem::remove_all(dir().at("worker-disk"));
  const std::string zip = dir().write("zip", testsupport::makeZip({{"test.com", testsupport::eicar()}}));
  ASSERT_TRUE(ours_.send(encode(ScanRequest{}), platform::Descriptor(open(zip.c_str(), O_RDONLY)).get()));
  const auto answer = receive<ScanAnswer>(ours_);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->verdict.outcome, Outcome::kError) << testing::describe(answer->verdict);
}

class SpawnerProcesses : public Children {
 protected:
  void startSpawner() {
    config_.shippedSignatures = testing::kShippedSignatures;
    config_.systemSignatures = dir().at("none");
    start([&](Channel channel, pid_t) { runForkedSpawner(config_, folders_, std::move(channel)); });
  }
  void TearDown() override { folders_.remove(); }
  /// Sends one end of a fresh channel with the packet; returns the other end.
  Channel sendWithChannel(const Channel& to, const std::string& packet) const {
    auto [ours, theirs] = Channel::pair().value();
    EXPECT_TRUE(to.send(packet, theirs.fd()));
    return std::move(ours);
  }

  Spawner::Config config_;
  TempFolders folders_{dir().path()};
};

TEST_F(SpawnerProcesses, EndWithTheirChannel) {
  startSpawner();
  ours_.close();
  EXPECT_EQ(exitStatus(), 0);
}

TEST_F(SpawnerProcesses, OfTheProgramEndWithoutAStart) {
  start([](Channel channel, pid_t) { runSpawnerProgram(std::move(channel)); });
  ASSERT_TRUE(ours_.send(encode(ForkRequest{})));
  EXPECT_EQ(exitStatus(), 1);
}

TEST_F(SpawnerProcesses, ForkNothingForAnUnknownMessage) {
  startSpawner();
  EXPECT_FALSE(receive<StateReport>(sendWithChannel(ours_, "nonsense")));
  ASSERT_TRUE(ours_.send(encode(ForkRequest{})));
  const Channel toTemplate = sendWithChannel(ours_, encode(ForkRequest{}));
  const auto report = receive<StateReport>(toTemplate);
  ASSERT_TRUE(report) << "the spawner goes on";
  EXPECT_TRUE(report->state.loaded) << report->state.detail;

  EXPECT_FALSE(receive<WorkerHello>(sendWithChannel(toTemplate, "nonsense")));
  ASSERT_TRUE(toTemplate.send(encode(ForkRequest{})));
  EXPECT_TRUE(receive<WorkerHello>(sendWithChannel(toTemplate, encode(ForkRequest{}))));
  ours_.close();
  EXPECT_EQ(exitStatus(), 0);
}

}  // namespace
}  // namespace agent
