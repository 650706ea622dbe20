// Claims of an address whose files belong to another user, or change meanwhile.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <future>
#include <thread>
#include <utility>

#include "Address.h"
#include "BusFixture.h"
#include "lunet/ErrorText.h"
#include "lunet/ListenerAt.h"
#include "support/HeldFile.h"
#include "support/Wait.h"

using lunet::Address;
using lunet::Guid;
using lunettest::newGuid;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kMember = 23456;
constexpr uid_t kOtherMember = 23457;

/// Called before a socket listens.
std::function<void()> beforeListening;
/// Called around the next rename.
std::function<void()> beforeRenaming, afterRenaming;
/// Called after each lock that was taken.
std::function<void()> afterLocking;

struct stat statusOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st;
}

/// The text of `what`, run in a process of that user.
std::string textAs(uid_t user, const std::function<std::string()>& what) {
  int ends[2];
  if (pipe(ends) != 0) {
    return "no pipe";
  }
  const pid_t child = fork();
  if (child == 0) {
    const bool other =
        setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0;
    const std::string text = other ? what() : "no second user";
    _exit(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(ends[1]);
  char text[1024];
  const ssize_t size = read(ends[0], text, sizeof text);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
}

}  // namespace

// Stands before the C library's function.
extern "C" int listen(int fd, int backlog) noexcept {
  if (beforeListening) {
    beforeListening();
  }
  return static_cast<int>(syscall(SYS_listen, fd, backlog));
}

extern "C" int flock(int fd, int operation) noexcept {
  const int result = static_cast<int>(syscall(SYS_flock, fd, operation));
  if (result == 0 && afterLocking) {
    afterLocking();
  }
  return result;
}

extern "C" int rename(const char* from, const char* to) noexcept {
  if (beforeRenaming) {  // only read by the threads of other tests
    std::exchange(beforeRenaming, nullptr)();
  }
  const int result = renameat(AT_FDCWD, from, AT_FDCWD, to);
  if (afterRenaming) {
    std::exchange(afterRenaming, nullptr)();
  }
  return result;
}

class ClaimTest : public testing::Test {
 protected:
  ClaimTest() {
    chmod(dir.path().c_str(), 0755);
    fs::create_directory(folder.path);
  }
  /// "" or the error and its reason.
  std::string claim(Address& address, const Guid& wanted) const {
    const lunet::Result<void> claimed = address.claim(folder, wanted);
    return claimed ? "" : lunet::describeError(claimed.error().error) + ": " + claimed.error().reason;
  }
  std::string lockPath() const { return folder.lockPath(guid); }
  std::string socketPath() const { return folder.socketPath(guid); }
  std::size_t files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder.path), {}));
  }

  testsupport::TempDir dir;
  const lunet::SocketFolder folder{dir.at("bus"), std::nullopt};
  const Guid guid = newGuid();
  const Guid agent = lunet::parseGuid(lunet::kAgentGuid);
};

TEST_F(ClaimTest, LockAndSocketAreItsUsersOwnWhateverTheUmask) {
  const mode_t before = umask(0);
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  umask(before);
  EXPECT_EQ(statusOf(lockPath()).st_mode & 07777u, 0600u);
  EXPECT_EQ(statusOf(socketPath()).st_mode & 07777u, 0600u);
}

TEST_F(ClaimTest, ASocketIsPrivateBeforeItListensAndListensBeforeItHasItsName) {
  const mode_t before = umask(0);
  mode_t mode = 0;
  bool named = true;
  beforeListening = [&] {
    mode = statusOf(folder.newSocketPath(guid)).st_mode;
    named = fs::exists(socketPath());
  };
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  beforeListening = nullptr;
  umask(before);
  EXPECT_EQ(mode & 07777u, 0600u);
  EXPECT_FALSE(named);
  EXPECT_TRUE(fs::exists(socketPath()));
}

TEST_F(ClaimTest, ALockThatLosesItsNameWhileItIsWaitedForIsNoLock) {
  for (int round = 0; round < 5; ++round) {
    platform::Descriptor held(open(lockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(held.get(), LOCK_EX | LOCK_NB), 0);
    Address first;
    std::string said;
    std::thread claiming([&] { said = claim(first, guid); });
    EXPECT_TRUE(testsupport::waitFor([&] {  // the thread has opened the file, or has given up
      std::size_t users = 0;
      for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        users += fs::read_symlink(entry.path(), gone) == lockPath() ? 1 : 0;
      }
      return users != 1;
    }));
    fs::remove(lockPath());
    held.reset();
    claiming.join();
    if (said.empty()) {
      Address second;
      EXPECT_THAT(claim(second, guid), HasSubstr("is in use"));
    }
  }
}

/// Each lock loses its name as soon as it is taken.
class HandedOverLockTest : public ClaimTest {
 protected:
  ~HandedOverLockTest() override { afterLocking = nullptr; }
  void loseTheNext(int locks) const {
    afterLocking = [this, locks]() mutable {
      if (locks-- > 0) {
        fs::remove(lockPath());
      }
    };
  }
};

TEST_F(HandedOverLockTest, ALockThatChangesHandsAFewTimesIsTakenAfterwards) {
  loseTheNext(5);
  Address first;
  EXPECT_EQ(claim(first, guid), "");
  Address second;
  EXPECT_THAT(claim(second, guid), HasSubstr("is held by a live process"));
}

TEST_F(HandedOverLockTest, AnAddressWhoseLockChangesHandsAllTheTimeIsInUse) {
  loseTheNext(1000000);
  Address address;
  EXPECT_THAT(claim(address, guid),
              testing::AllOf(HasSubstr("is in use"), HasSubstr("changes hands too often")));
  EXPECT_EQ(files(), 0u);
}

TEST_F(ClaimTest, ASocketThatIsAnothersByNowIsNotTakenOutOfTheFolder) {
  Address address;
  ASSERT_EQ(claim(address, guid), "");
  fs::remove(socketPath());
  ASSERT_EQ(mknod(socketPath().c_str(), S_IFSOCK | 0600, 0), 0);
  address.hide();
  EXPECT_TRUE(fs::exists(socketPath()));
}

TEST_F(ClaimTest, AnAddressThatIsDestroyedLeavesNothing) {
  {
    Address address;
    ASSERT_EQ(claim(address, guid), "");
    EXPECT_EQ(files(), 2u);
  }
  EXPECT_EQ(files(), 0u);
}

/// A folder in place of the lock is moved aside. Meanwhile others work at the same name.
class OvertakenMoveTest : public ClaimTest {
 protected:
  OvertakenMoveTest() { fs::create_directory(lockPath()); }
  ~OvertakenMoveTest() override {
    beforeRenaming = nullptr;
    afterRenaming = nullptr;
  }
  void replaceFolder(const std::string& content) const {
    fs::remove(lockPath());
    dir.write("bus/" + lunet::formatGuid(guid) + ".lock", content);
  }
};

TEST_F(OvertakenMoveTest, WhatIsGoneNeedsNoMove) {
  beforeRenaming = [this] { fs::remove(lockPath()); };
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  EXPECT_EQ(files(), 2u);
}

TEST_F(OvertakenMoveTest, ALockThatIsMovedByMistakeGetsItsNameBack) {
  beforeRenaming = [this] { replaceFolder("moved"); };
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  EXPECT_EQ(testsupport::readFile(lockPath()), "moved");
  EXPECT_EQ(files(), 2u);
}

TEST_F(OvertakenMoveTest, ALockThatIsMovedByMistakeReplacesNoNewerOne) {
  beforeRenaming = [this] { replaceFolder("moved"); };
  afterRenaming = [this] { dir.write("bus/" + lunet::formatGuid(guid) + ".lock", "newer"); };
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  EXPECT_EQ(testsupport::readFile(lockPath()), "newer");
}

TEST_F(ClaimTest, ALockThatIsAnothersByNowIsNotRemoved) {
  Address address;
  ASSERT_EQ(claim(address, guid), "");
  fs::remove(lockPath());
  dir.write("bus/" + lunet::formatGuid(guid) + ".lock", "another's");
  address.release();
  EXPECT_TRUE(fs::exists(lockPath()));
}

TEST_F(ClaimTest, WhatALinkInPlaceOfTheLockLeadsToIsNotOpened) {
  dir.write("precious", "content");
  fs::create_symlink(dir.at("precious"), lockPath());
  const platform::Descriptor opened(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(opened.get(), dir.at("precious").c_str(), IN_OPEN), 0);
  lunet::clearLeftovers(folder);
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  char event[512];
  EXPECT_LT(read(opened.get(), event, sizeof event), 0);
}

/// Tests with a second user.
class ForeignClaimTest : public ClaimTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can start a process of a second user";
    }
  }
  void giveFolderTo(uid_t user) const { ASSERT_EQ(chown(folder.path.c_str(), user, user), 0); }
  void openFolderToAll() const { ASSERT_EQ(chmod(folder.path.c_str(), 01777), 0); }
  /// A lock file of that user at that address.
  void plantLock(const Guid& wanted, uid_t user) const {
    dir.write("bus/" + lunet::formatGuid(wanted) + ".lock", "");
    const std::string path = folder.lockPath(wanted);
    ASSERT_TRUE(chmod(path.c_str(), 0600) == 0 && chown(path.c_str(), user, user) == 0);
  }
};

/// An open without O_NONBLOCK waits 45 seconds for the end of the lease.
TEST_F(ForeignClaimTest, AMembersLeaseOnTheLockDoesNotKeepTheAgentFromItsAddress) {
  plantLock(agent, kMember);
  const testsupport::HeldFile lease(folder.lockPath(agent));
  Address address;
  auto claiming = std::async(std::launch::async, [&] { return claim(address, agent); });
  EXPECT_EQ(claiming.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(claiming.get(), "");
  EXPECT_EQ(statusOf(folder.lockPath(agent)).st_uid, 0u);
}

TEST_F(ForeignClaimTest, AnotherAddressWhoseLockIsUnderALeaseIsInUse) {
  plantLock(guid, kMember);
  const testsupport::HeldFile lease(lockPath());
  Address address;
  EXPECT_THAT(claim(address, guid), testing::AllOf(HasSubstr("is in use"), HasSubstr("user 23456")));
}

TEST_F(ForeignClaimTest, AFoldersOwnerTakesTheAgentsAddressFromALockThatOnlyItsMemberCanOpen) {
  giveFolderTo(kMember);
  openFolderToAll();
  plantLock(agent, kOtherMember);
  EXPECT_EQ(textAs(kMember,
                   [this] {
                     Address own;
                     return claim(own, agent);
                   }),
            "");
}

TEST_F(ForeignClaimTest, AMemberDoesNotTakeTheAgentsAddressFromAnotherMember) {
  openFolderToAll();
  plantLock(agent, kOtherMember);
  EXPECT_THAT(textAs(kMember,
                     [this] {
                       Address own;
                       return claim(own, agent);
                     }),
              testing::AllOf(HasSubstr("is in use"), HasSubstr("cannot be removed")));
}

TEST_F(ForeignClaimTest, TheAgentsAddressIsNotTakenFromTheOwnUser) {
  giveFolderTo(kMember);
  EXPECT_THAT(textAs(kMember,
                     [this] {
                       Address first;
                       Address second;
                       return claim(first, agent) + claim(second, agent);
                     }),
              HasSubstr("is held by a live process of user 23456"));
}

TEST_F(ForeignClaimTest, TheAgentsAddressIsNotTakenFromRootNotEvenByTheFoldersOwner) {
  giveFolderTo(kMember);
  Address roots;
  ASSERT_EQ(claim(roots, agent), "");
  ASSERT_EQ(chmod(folder.lockPath(agent).c_str(), 0666), 0);
  EXPECT_THAT(textAs(kMember,
                     [this] {
                       Address own;
                       return claim(own, agent);
                     }),
              HasSubstr("is held by a live process of user 0"));
}

TEST_F(ForeignClaimTest, AnotherUsersFreeLockIsReplacedNotKept) {
  dir.write("bus/" + lunet::formatGuid(guid) + ".lock", "");
  ASSERT_EQ(chown(lockPath().c_str(), kMember, kMember), 0);
  Address address;
  EXPECT_EQ(claim(address, guid), "");
  EXPECT_EQ(statusOf(lockPath()).st_uid, 0u);
}

TEST_F(ForeignClaimTest, AnotherUsersFreeLockThatCannotBeRemovedIsNamed) {
  openFolderToAll();
  dir.write("bus/" + lunet::formatGuid(guid) + ".lock", "");
  ASSERT_EQ(chmod(lockPath().c_str(), 0666), 0);
  EXPECT_THAT(textAs(kMember,
                     [this] {
                       Address address;
                       return claim(address, guid);
                     }),
              testing::AllOf(HasSubstr("is in use"), HasSubstr("cannot be removed")));
}

TEST_F(ForeignClaimTest, AnotherUsersSocketThatCannotBeReplacedIsInUseAndNothingIsLeftBesideIt) {
  openFolderToAll();
  ASSERT_EQ(mknod(socketPath().c_str(), S_IFSOCK | 0600, 0), 0);
  EXPECT_THAT(textAs(kMember,
                     [this] {
                       Address address;
                       const std::string said = claim(address, guid);
                       return said + " with " + std::to_string(files()) + " file";
                     }),
              testing::AllOf(HasSubstr("is in use"), HasSubstr("cannot be replaced"),
                             testing::EndsWith("with 1 file")));
}

/// In another pid namespace the listener has no pid.
TEST(ListenerAtTest, AListenerOfAnotherPidNamespaceIsNotNamed) {
  testsupport::TempDir tree;
  lunettest::Client client("{\"runtime_path\":\"" + tree.path() + "\"}");
  lunettest::Endpoint server(client, newGuid());
  const std::string folder = tree.at("run/lunet");
  EXPECT_TRUE(lunet::listenerAt(folder, server.guid()));
  const auto inAnother = [&] {
    if (unshare(CLONE_NEWPID) != 0) {
      return 2;
    }
    const pid_t inside = fork();
    if (inside == 0) {
      _exit(lunet::listenerAt(folder, server.guid()) ? 1 : 0);
    }
    int status = 0;
    return waitpid(inside, &status, 0) == inside && WIFEXITED(status) ? WEXITSTATUS(status) : 3;
  };
  const pid_t child = fork();
  if (child == 0) {
    _exit(inAnother());
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WEXITSTATUS(status) == 2) {
    GTEST_SKIP() << "a pid namespace is not granted";
  }
  EXPECT_EQ(status, 0);
}
