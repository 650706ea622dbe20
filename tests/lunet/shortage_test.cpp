// In a process without descriptors only those operations fail that need one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "BusFixture.h"
#include "Peer.h"
#include "platform/Descriptor.h"

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

}  // namespace

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
