#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include "WorkerFixture.h"
#include "worker/Channel.h"
#include "worker/Messages.h"
#include "worker/TempFolders.h"

namespace agent {
namespace {

TEST(Channels, APacketArrivesWholeWithItsDescriptor) {
  const testsupport::TempDir dir;
  auto [one, two] = Channel::pair().value();
  const platform::Descriptor file(open(dir.write("file", "content").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(one.send("first", file.get()));
  ASSERT_TRUE(one.send("second"));
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "first");
  struct stat sent {};
  struct stat got {};
  ASSERT_EQ(fstat(file.get(), &sent), 0);
  ASSERT_EQ(fstat(packet.fd.get(), &got), 0);
  EXPECT_EQ(sent.st_ino, got.st_ino);
  EXPECT_NE(fcntl(packet.fd.get(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "second");
  EXPECT_FALSE(packet.fd);
}

TEST(Channels, AnEmptyChannelGivesNothingWithoutWaiting) {
  auto [one, two] = Channel::pair().value();
  Channel::Packet packet;
  EXPECT_EQ(two.receive(packet, false), Channel::Received::kNothing);
}

TEST(Channels, PacketsSentBeforeTheEndAreStillReceived) {
  auto [one, two] = Channel::pair().value();
  ASSERT_TRUE(two.send("unread by the other end"));
  ASSERT_TRUE(one.send("last words"));
  one.close();
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "last words");
  EXPECT_EQ(two.receive(packet, true), Channel::Received::kEnded);
  EXPECT_FALSE(two.send("to nobody"));
}

TEST(Channels, OnlyPacketsFromBeforeAShutDownAreReceived) {
  auto [one, two] = Channel::pair().value();
  ASSERT_TRUE(one.send("early"));
  two.shutDown();
  EXPECT_FALSE(one.send("late"));
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, false), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "early");
  EXPECT_EQ(two.receive(packet, false), Channel::Received::kEnded);
}

TEST(Channels, APacketTooLargeForTheReceiverEndsTheChannel) {
  auto [one, two] = Channel::pair().value();
  ASSERT_TRUE(one.send(std::string(kLongestPacket + 1, 'x')));
  Channel::Packet packet;
  EXPECT_EQ(two.receive(packet, true), Channel::Received::kEnded);
}

// Sends as a process that breaks the protocol.
void sendWithDescriptors(const Channel& channel, std::size_t count) {
  std::string bytes = "packet";
  iovec part{bytes.data(), bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(8 * sizeof(int))> buffer{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = buffer.data();
  header.msg_controllen = CMSG_SPACE(count * sizeof(int));
  cmsghdr* control = CMSG_FIRSTHDR(&header);
  control->cmsg_level = SOL_SOCKET;
  control->cmsg_type = SCM_RIGHTS;
  control->cmsg_len = CMSG_LEN(count * sizeof(int));
  for (std::size_t i = 0; i < count; ++i) {
    const int fd = STDERR_FILENO;
    std::memcpy(CMSG_DATA(control) + i * sizeof fd, &fd, sizeof fd);
  }
  ASSERT_EQ(sendmsg(channel.fd(), &header, 0), static_cast<ssize_t>(bytes.size()));
}

TEST(Channels, APacketWithSeveralDescriptorsEndsTheChannelAndAllAreClosed) {
  auto [one, two] = Channel::pair().value();
  const auto before = testing::openDescriptors();
  for (const std::size_t count : {2U, 3U, 8U}) {
    sendWithDescriptors(one, count);
    Channel::Packet packet;
    EXPECT_EQ(two.receive(packet, true), Channel::Received::kEnded) << count;
    EXPECT_FALSE(packet.fd);
    EXPECT_EQ(testing::openDescriptors(), before) << count;
  }
  sendWithDescriptors(one, 1);
  Channel::Packet packet;
  EXPECT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_TRUE(packet.fd);
}

TEST(Channels, APacketWhoseDescriptorDoesNotArriveEndsTheChannel) {
  auto [one, two] = Channel::pair().value();
  ASSERT_TRUE(one.send("packet", STDERR_FILENO));
  const testing::NoMoreDescriptors none;
  Channel::Packet packet;
  EXPECT_EQ(two.receive(packet, true), Channel::Received::kEnded);
}

TEST(Channels, BothEndsAreCloseOnExec) {
  auto [one, two] = Channel::pair().value();
  EXPECT_NE(fcntl(one.fd(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(two.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(Channels, APacketWithoutADescriptorDoesNotKeepAnEarlierOne) {
  auto [one, two] = Channel::pair().value();
  ASSERT_TRUE(one.send("first", STDERR_FILENO));
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  ASSERT_TRUE(packet.fd);
  EXPECT_EQ(two.receive(packet, false), Channel::Received::kNothing);
  EXPECT_FALSE(packet.fd);
}

TEST(Channels, AnEndThatWasShutDownSendsNothingMore) {
  auto [one, two] = Channel::pair().value();
  one.shutDown();
  EXPECT_FALSE(one.send("late"));
}

std::atomic<int> signalsSeen{0};

// Interrupts the thread's system calls by a signal, the given number of times.
void interrupt(pthread_t thread, int times) {
  signalsSeen = 0;
  for (int i = 1; i <= times; ++i) {
    pthread_kill(thread, SIGUSR1);
    ASSERT_TRUE(testsupport::waitFor([&] { return signalsSeen >= i; }));
  }
}

class InterruptedChannels : public ::testing::Test {
 protected:
  InterruptedChannels() {
    struct sigaction action {};
    action.sa_handler = [](int) { ++signalsSeen; };
    sigaction(SIGUSR1, &action, &before_);
  }
  ~InterruptedChannels() override { sigaction(SIGUSR1, &before_, nullptr); }

 private:
  struct sigaction before_ {};
};

TEST_F(InterruptedChannels, GoOnReceiving) {
  auto [one, two] = Channel::pair().value();
  std::atomic<pid_t> id{0};
  Channel::Packet packet;
  auto received = Channel::Received::kNothing;
  std::thread reader([&, &two = two] {
    id = gettid();
    received = two.receive(packet, true);
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return testsupport::threadSleeps(id); }));
  interrupt(reader.native_handle(), 5);
  ASSERT_TRUE(one.send("at last"));
  reader.join();
  EXPECT_EQ(received, Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "at last");
}

TEST_F(InterruptedChannels, GoOnSending) {
  auto [one, two] = Channel::pair().value();
  const std::string packet(kLongestPacket, 'x');
  std::atomic<pid_t> id{0};
  std::atomic<int> sent{0};
  std::atomic<bool> failed{false};
  std::thread writer([&, &one = one] {
    id = gettid();
    for (int i = 0; i < 50; ++i) {
      failed = failed || !one.send(packet);
      ++sent;
    }
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return testsupport::threadSleeps(id); })) << "nobody reads";
  EXPECT_LT(sent, 50);
  interrupt(writer.native_handle(), 5);
  for (int i = 0; i < 50; ++i) {
    Channel::Packet got;
    if (two.receive(got, false) != Channel::Received::kPacket) {
      ASSERT_TRUE(testsupport::waitFor(
          [&, &two = two] { return failed || two.receive(got, false) == Channel::Received::kPacket; }));
    }
  }
  writer.join();
  EXPECT_FALSE(failed);
}

class Temporaries : public ::testing::Test {
 protected:
  testsupport::TempDir dir_;
};

TEST_F(Temporaries, AreForTheirOwnerOnlyAndRemovedWithTheirContent) {
  TempFolders folders(dir_.path());
  ASSERT_TRUE(folders.disk()) << folders.disk().error();
  struct stat status {};
  ASSERT_EQ(stat(folders.disk()->c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
  const auto worker = WorkerFolders::make(folders, 1);
  ASSERT_TRUE(worker);
  std::filesystem::create_directory(worker->disk + "/inner");
  folders.remove();
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(Temporaries, TheFolderOfAKilledAgentIsRemoved) {
  dir_.write("tavagent-AAAAAA/12-1/unpacked", "content");
  TempFolders folders(dir_.path());
  EXPECT_FALSE(std::filesystem::exists(dir_.at("tavagent-AAAAAA")));
  folders.remove();
}

TEST_F(Temporaries, TheFoldersOfALivingAgentStay) {
  TempFolders first(dir_.path());
  TempFolders second(dir_.path());
  EXPECT_TRUE(std::filesystem::exists(*first.disk()));
  EXPECT_NE(*first.disk(), *second.disk());
  first.remove();
  second.remove();
}

TEST_F(Temporaries, ALinkWithTheirNameIsNotFollowed) {
  const testsupport::TempDir other;
  other.write("kept", "content");
  std::filesystem::create_directory_symlink(other.path(), dir_.at("tavagent-BBBBBB"));
  TempFolders folders(dir_.path());
  EXPECT_TRUE(std::filesystem::exists(other.at("kept")));
  EXPECT_TRUE(std::filesystem::is_symlink(dir_.at("tavagent-BBBBBB"))) << "the link is not removed";
  folders.remove();
}

TEST_F(Temporaries, AFileOrAnotherUsersFolderWithTheirNameStays) {
  dir_.write("tavagent-file", "content");
  dir_.write("tavagent-foreign/kept", "content");
  ASSERT_EQ(chown(dir_.at("tavagent-foreign").c_str(), 60123, 60123), 0);
  dir_.write("another/kept", "content");
  TempFolders folders(dir_.path());
  EXPECT_TRUE(std::filesystem::exists(dir_.at("tavagent-file")));
  EXPECT_TRUE(std::filesystem::exists(dir_.at("tavagent-foreign/kept")));
  EXPECT_TRUE(std::filesystem::exists(dir_.at("another/kept")));
  folders.remove();
}

TEST_F(Temporaries, LieInTmpdirWhenNoFolderIsGiven) {
  const char* before = std::getenv("TMPDIR");
  const std::string kept = before == nullptr ? "" : before;
  setenv("TMPDIR", dir_.path().c_str(), 1);
  TempFolders there("");
  EXPECT_EQ(there.disk()->rfind(dir_.path() + "/tavagent-", 0), 0U) << *there.disk();
  setenv("TMPDIR", "relative", 1);
  TempFolders elsewhere("");
  EXPECT_EQ(elsewhere.disk()->rfind("/tmp/tavagent-", 0), 0U) << *elsewhere.disk();
  before == nullptr ? unsetenv("TMPDIR") : setenv("TMPDIR", kept.c_str(), 1);
  there.remove();
  elsewhere.remove();
}

TEST_F(Temporaries, AreRemovedFromMemoryAndTheirLocksAreCloseOnExec) {
  TempFolders folders(dir_.path());
  ASSERT_FALSE(folders.quick().empty()) << "/dev/shm is no memory here";
  int locks = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(entry, error).string();
    if (target == *folders.disk() || target == folders.quick()) {
      ++locks;
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0) << target;
    }
  }
  EXPECT_EQ(locks, 2);
  folders.remove();
  EXPECT_FALSE(std::filesystem::exists(folders.quick()));
  EXPECT_FALSE(std::filesystem::exists(*folders.disk()));
}

// In a mount namespace of its own, where /dev/shm is a folder on a disk.
TEST_F(Temporaries, LieOnlyOnDiskWhenNoFolderIsInMemory) {
  const testsupport::TempDir disk(testsupport::diskFolder());
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(disk.path().c_str(), "/dev/shm", nullptr, MS_BIND, nullptr) != 0) {
      _exit(2);
    }
    struct statfs status {};
    if (statfs("/dev/shm", &status) != 0 || status.f_type == TMPFS_MAGIC) {
      _exit(3);
    }
    TempFolders folders(dir_.path());
    const bool onDiskAlone = folders.quick().empty() && folders.disk();
    folders.remove();
    _exit(onDiskAlone ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WEXITSTATUS(status) == 2) {
    GTEST_SKIP() << "no mount namespace of its own is granted here";
  }
  if (WEXITSTATUS(status) == 3) {
    GTEST_SKIP() << "no folder here is on a disk";
  }
  EXPECT_EQ(status, 0);
}

// Between making and locking, another agent may take the folder for a left-behind one.
TEST_F(Temporaries, OfAgentsThatStartTogetherStay) {
  std::vector<std::thread> agents;
  std::atomic<int> taken{0};
  for (int agent = 0; agent < 4; ++agent) {
    agents.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        TempFolders folders(dir_.path());
        TempFolders more(dir_.path());
        for (const auto* one : {&folders, &more}) {
          taken += !one->disk() || std::filesystem::is_directory(*one->disk()) ? 0 : 1;
        }
        more.remove();
        folders.remove();
      }
    });
  }
  for (auto& agent : agents) {
    agent.join();
  }
  EXPECT_EQ(taken, 0);
}

TEST_F(Temporaries, OnlyThoseOfTheEndedTemplateAreRemoved) {
  TempFolders folders(dir_.path());
  std::filesystem::create_directory(*folders.disk() + "/77-1");
  std::filesystem::create_directory(*folders.disk() + "/777-1");
  WorkerFolders::removeOf(WorkerFolders{folders.quick(), *folders.disk()}, 77);
  EXPECT_FALSE(std::filesystem::exists(*folders.disk() + "/77-1"));
  EXPECT_TRUE(std::filesystem::exists(*folders.disk() + "/777-1"));
  folders.remove();
}

}  // namespace
}  // namespace agent
