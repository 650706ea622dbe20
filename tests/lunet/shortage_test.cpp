// In a process without descriptors only those operations fail that need one.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "Address.h"
#include "BusFixture.h"
#include "Peer.h"
#include "SocketFolder.h"
#include "platform/Descriptor.h"
#include "support/TempDir.h"

using namespace lunettest;

namespace {

/// While this object lives, the process has only `spare` descriptors left.
class NoDescriptors {
 public:
  explicit NoDescriptors(std::size_t spare) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit low{256, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    for (int fd = take(); fd >= 0; fd = take()) {
      taken_.emplace_back(fd);
    }
    taken_.resize(taken_.size() - spare);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  static int take() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

  rlimit before_{};
  std::vector<platform::Descriptor> taken_;
};

/// The errno values of the next calls of accept4 in this process.
std::mutex failuresMutex;
std::vector<int> failures;

/// The errno value of the next addition to an epoll set by this thread; 0 for none.
thread_local int watchFailure = 0;

}  // namespace

// Stands before the C library's function, for the bus library too.
extern "C" int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  {
    const std::lock_guard lock(failuresMutex);
    if (!failures.empty()) {
      errno = failures.back();
      failures.pop_back();
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
}

/// The next epoll_ctl is the thread sanitizer's where there is one: it must see which thread wakes which.
extern "C" int epoll_ctl(int set, int operation, int fd, epoll_event* event) noexcept {
  if (operation == EPOLL_CTL_ADD && watchFailure != 0) {
    errno = std::exchange(watchFailure, 0);
    return -1;
  }
  static const auto real =
      reinterpret_cast<int (*)(int, int, int, epoll_event*)>(dlsym(RTLD_NEXT, "epoll_ctl"));
  return real(set, operation, fd, event);
}

TEST(PeerWithoutDescriptors, IsNotNamedWithoutItsStartTime) {
  std::array<int, 2> pair{-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
  const platform::Descriptor one(pair[0]);
  const platform::Descriptor other(pair[1]);
  {
    const NoDescriptors none(0);
    EXPECT_FALSE(lunet::peerOf(one.get()));
  }
  const auto peer = lunet::peerOf(one.get());
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->identity.pid, getpid());
  EXPECT_NE(peer->identity.startTicks, 0u);
}

TEST(SocketFolderWithoutDescriptors, IsLeftAsItIsWhenItsFilesCannotBeListed) {
  const testsupport::TempDir dir;
  dir.write("lunet/other", "");
  ASSERT_EQ(chmod(dir.at("lunet").c_str(), 0755), 0);
  {
    const NoDescriptors none(2);  // one to check the folder and one to change it
    EXPECT_FALSE(lunet::prepareFolder({dir.at("lunet"), std::nullopt}));
  }
  struct stat st {};
  ASSERT_EQ(stat(dir.at("lunet").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
}

TEST(ClaimWithoutDescriptors, FailsWithTheReasonAndLeavesNothing) {
  const testsupport::TempDir dir;
  ASSERT_EQ(mkdir(dir.at("bus").c_str(), 0700), 0);
  const char* const reasons[] = {"cannot be opened: Too many open files", "no socket: Too many open files"};
  for (std::size_t spare = 0; spare < std::size(reasons); ++spare) {
    lunet::Address address;
    lunet::Result<void> claimed;
    {
      const NoDescriptors none(spare);
      claimed = address.claim({dir.at("bus"), std::nullopt}, newGuid());
    }
    ASSERT_FALSE(claimed);
    EXPECT_NE(claimed.error().error, lunet::kErrInUse);
    EXPECT_NE(claimed.error().reason.find(reasons[spare]), std::string::npos) << claimed.error().reason;
    EXPECT_TRUE(std::filesystem::is_empty(dir.at("bus")));
  }
}

class ShortageTest : public BusTest {
 protected:
  void SetUp() override {
#ifdef TAV_SANITIZED
    GTEST_SKIP() << "a sanitizer needs descriptors of its own to look at memory";
#endif
  }

  Client client{config()};
  Endpoint server{client, newGuid(), echo};
};

TEST_F(ShortageTest, ACallerThatCannotBeIdentifiedIsTurnedAwayAndTheNextIsServed) {
  Endpoint own(client, newGuid());
  {
    const NoDescriptors none(2);  // one for the caller's end and one for the listener's
    RawConnection caller(socketOf(server.guid()));
    ASSERT_TRUE(caller.connected());
    EXPECT_EQ(caller.handshake(own.guid(), server.guid()), lunet::kErrSystem);
  }
  RawConnection late(socketOf(server.guid()));
  EXPECT_EQ(late.handshake(own.guid(), server.guid()), lunet::kOk);
}

TEST_F(ShortageTest, AListenerThatCannotBeIdentifiedIsNotTalkedTo) {
  Endpoint caller(client, newGuid());
  {
    const NoDescriptors none(1);  // for the caller's end
    EXPECT_EQ(caller.call(server.guid(), "x").error, lunet::kErrSystem);
  }
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
}

TEST_F(ShortageTest, ACallerWhoCannotBeAcceptedIsWhenDescriptorsAreThereAgain) {
  Endpoint own(client, newGuid());
  std::unique_ptr<RawConnection> caller;
  {
    const NoDescriptors none(1);  // for the caller's end
    caller = std::make_unique<RawConnection>(socketOf(server.guid()));
    ASSERT_TRUE(caller->connected());
  }
  EXPECT_EQ(caller->handshake(own.guid(), server.guid()), lunet::kOk);
}

/// The system's limit of watches is reached.
class WithoutWatchesTest : public BusTest {
 protected:
  Client client{config()};
  Endpoint server{client, newGuid(), echo};
};

TEST_F(WithoutWatchesTest, ASendThatTheSystemRefusesIsAnErrorAndTheNextArrives) {
  Endpoint sender(client, newGuid());
  watchFailure = ENOSPC;
  EXPECT_EQ(sender.send(server.guid(), "refused"), lunet::kErrSystem);
  EXPECT_EQ(sender.send(server.guid(), "sent"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(server.messages()[0].data, "sent");
}

TEST_F(WithoutWatchesTest, ACallThatTheSystemRefusesIsAnErrorAndTheNextIsAnswered) {
  Endpoint caller(client, newGuid());
  watchFailure = ENOSPC;
  const Endpoint::Answer refused = caller.call(server.guid(), "refused");
  EXPECT_EQ(refused.error, lunet::kErrSystem);
  EXPECT_EQ(refused.errorOut, lunet::kErrSystem);
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
}

TEST_F(WithoutWatchesTest, AnAddressThatTheSystemRefusesToOpenIsAnErrorAndFree) {
  Endpoint endpoint(client);
  const lunet::Guid guid = newGuid();
  watchFailure = ENOSPC;
  EXPECT_EQ(endpoint->Open(guid), lunet::kErrSystem);
  EXPECT_EQ(watchFailure, 0);
  EXPECT_FALSE(std::filesystem::exists(socketOf(guid)));
  EXPECT_EQ(endpoint->Open(guid), lunet::kOk);
}

struct FailedAcceptRow {
  int error;
  bool logged;
};

class FailedAccept : public BusTest, public testing::WithParamInterface<FailedAcceptRow> {
 protected:
  ~FailedAccept() override {
    const std::lock_guard lock(failuresMutex);
    failures.clear();
  }
  static inline std::atomic<bool> logged{false};
};

TEST_P(FailedAccept, KeepsNobodyOut) {
  logged = false;
  Client client(config("\"log_level\":0"));
  client->SetLogCallback([](int, const char* text) {
    logged = logged || std::string_view(text).starts_with("a connection cannot be accepted: ");
  });
  const Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  {
    const std::lock_guard lock(failuresMutex);
    failures = {GetParam().error, GetParam().error};
  }
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(caller.call(server.guid(), "x").data, "x");
  EXPECT_EQ(logged, GetParam().logged);
  if (GetParam().logged) {
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(200)) << "a pause for each";
  }
  const std::lock_guard lock(failuresMutex);
  EXPECT_TRUE(failures.empty());
}

INSTANTIATE_TEST_SUITE_P(Errors, FailedAccept,
                         testing::Values(FailedAcceptRow{EINTR, false}, FailedAcceptRow{ECONNABORTED, false},
                                         FailedAcceptRow{EMFILE, true}, FailedAcceptRow{ENFILE, true},
                                         FailedAcceptRow{ENOBUFS, true}, FailedAcceptRow{ENOMEM, true}),
                         [](const auto& row) { return strerrorname_np(row.param.error); });
