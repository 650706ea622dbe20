// Root, the same user and the members of the configured group may join, also by a supplementary group. Tests
// start second users as processes of their own, which needs root; without root these tests are skipped.

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "BusFixture.h"
#include "Dial.h"
#include "Log.h"
#include "lunet/ListenerAt.h"
#include "support/Wait.h"

using namespace lunettest;
using testsupport::Process;
using testsupport::waitFor;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kMember = 23456;
constexpr uid_t kOtherMember = 23457;
constexpr uid_t kStranger = 23458;
constexpr const char* kGroupName = "users";

gid_t groupNumber() {
  const group* entry = getgrnam(kGroupName);
  return entry != nullptr ? entry->gr_gid : 0;
}

/// A process of that user. Only its supplementary group can be the bus's.
Process::Options as(uid_t uid, bool member) {
  Process::Options options;
  options.uid = uid;
  options.gid = uid;
  if (member) {
    options.groups = {groupNumber()};
  }
  return options;
}

}  // namespace

/// Tests with second users.
class AccessTest : public BusTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can start a process of a second user";
    }
  }
};

class GroupTest : public AccessTest {
 protected:
  GroupTest() { installTree("{\"group\":\"users\"}"); }

  static std::string groupMember() { return "\"group\":\"users\""; }
  std::vector<std::string> words(const char* command, const lunet::Guid& guid) const {
    return lunetctl({command, lunet::formatGuid(guid)});
  }
  std::vector<std::string> words(const char* command, const lunet::Guid& guid, const char* text) const {
    return lunetctl({command, lunet::formatGuid(guid), text});
  }
  std::string intrude(const Process::Options& user, const lunet::Guid& claimed,
                      const lunet::Guid& target) const {
    Process process({tree.at("bin/lunet_intruder"), socketOf(target), lunet::formatGuid(claimed),
                     lunet::formatGuid(target)},
                    user);
    process.wait();
    return process.out();
  }

  Client client{config(groupMember())};
  const lunet::Guid address = newGuid();
};

TEST_F(GroupTest, TheFolderIsForTheGroupAndSticky) {
  Endpoint server(client, address);
  struct stat st {};
  ASSERT_EQ(stat(socketFolder().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777u, 03770u);
  EXPECT_EQ(st.st_gid, groupNumber());
  ASSERT_EQ(stat(socketOf(address).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777u, 0660u);
  EXPECT_EQ(st.st_gid, groupNumber());
}

TEST_F(GroupTest, AMemberBySupplementaryMembershipOnlyMayJoin) {
  Endpoint server(client, address, echo);
  Process process(words("call", address, "let me in"), as(kMember, true));
  EXPECT_EQ(process.wait(), 0) << process.err();
  EXPECT_EQ(process.out(), "let me in\n");
  ASSERT_EQ(server.count(), 1u);
  EXPECT_EQ(server.messages()[0].process.uid, kMember);
  EXPECT_EQ(server.messages()[0].process.gid, kMember);
}

TEST_F(GroupTest, AMemberByPrimaryMembershipOnlyMayJoin) {
  Endpoint server(client, address, echo);
  Process::Options user = as(kMember, false);
  user.gid = groupNumber();
  Process process(words("call", address, "x"), user);
  EXPECT_EQ(process.wait(), 0) << process.err();
}

TEST_F(GroupTest, AMemberOfManyGroupsMayJoin) {
  Endpoint server(client, address, echo);
  Process::Options user = as(kMember, true);
  for (gid_t other = 30000; other < 30200; ++other) {
    user.groups.push_back(other);
  }
  Process process(words("call", address, "x"), user);
  EXPECT_EQ(process.wait(), 0) << process.err();
}

TEST_F(GroupTest, AUserWhoIsNotInTheGroupDoesNotGetNear) {
  Endpoint server(client, address, echo);
  Process process(words("call", address, "let me in"), as(kStranger, false));
  EXPECT_EQ(process.wait(), 1);
  EXPECT_NE(process.err(), "");
  EXPECT_EQ(server.count(), 0u);
  EXPECT_TRUE(intrude(as(kStranger, false), newGuid(), address).starts_with("refused: "));
}

TEST_F(GroupTest, AUserOutsideTheGroupIsCutOffAndLoggedEvenWhereTheFilesAdmitThatUser) {
  static std::mutex mutex;
  static std::string log;
  Client logged(config(groupMember() + ",\"log_level\":0"));
  logged->SetLogCallback([](int, const char* text) {
    const std::lock_guard lock(mutex);
    log += std::string(text) + "\n";
  });
  Endpoint server(logged, address, echo);
  ASSERT_EQ(chmod(socketFolder().c_str(), 0777), 0);
  ASSERT_EQ(chmod(socketOf(address).c_str(), 0666), 0);
  EXPECT_EQ(intrude(as(kStranger, false), newGuid(), address), "verdict E0010009\n");
  const std::lock_guard lock(mutex);
  EXPECT_NE(log.find("user 23458 is refused"), std::string::npos) << log;
}

TEST_F(GroupTest, AConnectLoopOfAUserCausesFewRecordsOfTheLog) {
  static std::atomic<unsigned> records;
  records = 0;
  Client logged(config(groupMember() + ",\"log_level\":0"));
  logged->SetLogCallback([](int, const char*) { ++records; });
  Endpoint server(logged, address, echo);
  ASSERT_EQ(chmod(socketFolder().c_str(), 0777), 0);
  ASSERT_EQ(chmod(socketOf(address).c_str(), 0666), 0);
  for (unsigned i = 0; i < 2 * lunet::Log::kLinesAMinute; ++i) {
    EXPECT_EQ(intrude(as(kStranger, false), newGuid(), address), "verdict E0010009\n");
  }
  EXPECT_EQ(records, lunet::Log::kLinesAMinute);
}

TEST_F(GroupTest, AMemberCannotClaimAnothersAddress) {
  Endpoint server(client, address, echo);
  Endpoint console(client, lunet::parseGuid(lunet::kConsoleGuid));
  EXPECT_EQ(intrude(as(kMember, true), console.guid(), address), "verdict E0010009\n");
  EXPECT_EQ(intrude(Process::Options{}, console.guid(), address), "verdict 00000000\n");
}

TEST_F(GroupTest, AMemberCanNeitherRemoveNorReplaceAnothersSocket) {
  Endpoint server(client, address, echo);
  Process remove({"/bin/rm", "-f", socketOf(address)}, as(kMember, true));
  EXPECT_NE(remove.wait(), 0);
  Process make(
      {"/bin/sh", "-c",
       "> '" + socketFolder() + "/mine' && mv -f '" + socketFolder() + "/mine' '" + socketOf(address) + "'"},
      as(kMember, true));
  EXPECT_NE(make.wait(), 0);
  Process open(words("listen", address), as(kMember, true));
  EXPECT_EQ(open.wait(), 1);
  EXPECT_NE(open.err().find("in use"), std::string::npos) << open.err();
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "x").data, "x");
}

TEST_F(GroupTest, AMemberCannotTakeOverWhatAnothersCrashLeft) {
  {
    Player player(words("listen", address));
    ASSERT_TRUE(player.ready());
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  Process open(words("listen", address), as(kMember, true));
  EXPECT_EQ(open.wait(), 1);
  EXPECT_NE(open.err().find("belongs to user 0"), std::string::npos) << open.err();
}

TEST_F(GroupTest, RootTakesOverWhatAMembersCrashLeft) {
  { Endpoint endpoint(client, newGuid()); }  // makes the folder
  {
    Player player(words("listen", address), as(kMember, true));
    ASSERT_TRUE(player.ready());
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  Endpoint server(client, address, echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "x").data, "x");
}

class SquatterTest : public GroupTest {
 protected:
  void SetUp() override {
    GroupTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    { Endpoint endpoint(client, newGuid()); }  // makes the folder
    squatter = std::make_unique<Player>(words("listen", agent), as(kMember, true));
    EXPECT_TRUE(squatter->ready()) << squatter->process.err();
  }
  const lunet::Guid agent = lunet::parseGuid(lunet::kAgentGuid);
  std::unique_ptr<Player> squatter;
};

TEST_F(SquatterTest, AMemberAtTheAgentsAddressIsNotTalkedTo) {
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.send(agent, "x"), lunet::kErrDenied);
  EXPECT_EQ(caller.call(agent, "x").error, lunet::kErrDenied);
  EXPECT_EQ(client->Connect(10), lunet::kErrDenied);
  EXPECT_EQ(squatter->process.out().find("message"), std::string::npos);
}

TEST_F(SquatterTest, AnotherMemberDoesNotTalkToTheSquatterEither) {
  Process call(words("call", agent, "secret"), as(kOtherMember, true));
  EXPECT_EQ(call.wait(), 1);
  EXPECT_NE(call.err().find("access is denied"), std::string::npos) << call.err();
  EXPECT_EQ(squatter->process.out().find("secret"), std::string::npos);
}

TEST_F(SquatterTest, TheSquatterItselfMaySend) {
  Process send(words("send", agent, "own"), as(kMember, true));
  EXPECT_EQ(send.wait(), 0) << send.err();
  EXPECT_TRUE(squatter->gotMessage("own"));
}

TEST_F(SquatterTest, TheSquatterCannotKeepTheAgentFromItsAddress) {
  Endpoint server(client, agent, echo);
  EXPECT_EQ(client->Connect(10), lunet::kOk);
  Process call(words("call", agent, "x"), as(kOtherMember, true));
  EXPECT_EQ(call.wait(), 0) << call.err();
  squatter.reset();
  EXPECT_EQ(client->Connect(10), lunet::kOk);
}

TEST_F(SquatterTest, RootDoesNotTakeAMembersOtherAddress) {
  Player player(words("listen", address), as(kMember, true));
  ASSERT_TRUE(player.ready());
  Endpoint mine(client);
  EXPECT_EQ(mine->Open(address), lunet::kErrInUse);
}

TEST_F(GroupTest, SendToProcessReachesAMemberWhomPlainSendsDoNot) {
  Endpoint agent(client, address);
  const lunet::Guid console = newGuid();
  Player player(words("listen", console), as(kMember, true));
  ASSERT_TRUE(player.ready()) << player.process.err();
  player.process.write("{\"send\":\"" + lunet::formatGuid(address) +
                       "\",\"channel\":20991,\"data\":\"me\"}\n");
  ASSERT_TRUE(agent.waitForCount(1));
  const lunet::PeerIdentity process = agent.messages()[0].process;
  EXPECT_EQ(agent->SendToProcess(console, process, lunet::kOnewayChannel, "hello", 5), lunet::kOk);
  EXPECT_TRUE(player.gotMessage("hello"));
  EXPECT_EQ(agent.send(console, "plain"), lunet::kErrDenied);
}

TEST_F(GroupTest, AMemberIsHeardButNotTrusted) {
  Endpoint agent(client, address);
  Player player(words("listen", newGuid()), as(kMember, true));
  ASSERT_TRUE(player.ready()) << player.process.err();
  player.process.write("{\"send\":\"" + lunet::formatGuid(address) +
                       "\",\"channel\":20991,\"data\":\"me\"}\n");
  ASSERT_TRUE(agent.waitForCount(1));
  EXPECT_EQ(agent.messages()[0].process.uid, kMember);
  EXPECT_FALSE(agent.messages()[0].process.trusted);
}

TEST_F(GroupTest, AListNamesTheUserOfEachEndpointWhoeverAsks) {
  Endpoint roots(client, address);
  const lunet::Guid other = newGuid();
  Player member(words("listen", other), as(kMember, true));
  ASSERT_TRUE(member.ready()) << member.process.err();
  const std::string mine = lunet::formatGuid(address) + "  " + std::to_string(getpid());
  const std::string members = lunet::formatGuid(other) + "  " + std::to_string(member.process.pid());
  for (const Process::Options& user : {Process::Options{}, as(kMember, true), as(kOtherMember, true)}) {
    Process list(lunetctl({"list"}), user);
    EXPECT_EQ(list.wait(), 0) << list.err();
    EXPECT_NE(list.out().find(mine + "  root\n"), std::string::npos) << list.out();
    EXPECT_NE(list.out().find(members + "  23456\n"), std::string::npos) << list.out();
  }
}

TEST_F(SquatterTest, TheListenerIsNamedWithItsTrust) {
  Endpoint own(client, address);
  const auto squatting = lunet::listenerAt(socketFolder(), agent);
  ASSERT_TRUE(squatting);
  EXPECT_EQ(squatting->pid, squatter->process.pid());
  EXPECT_EQ(squatting->uid, kMember);
  EXPECT_FALSE(squatting->trusted);
  const auto mine = lunet::listenerAt(socketFolder(), address);
  ASSERT_TRUE(mine);
  EXPECT_EQ(mine->pid, getpid());
  EXPECT_TRUE(mine->trusted);
}

TEST_F(GroupTest, ASocketThatTheSystemKeepsOneFromIsAnAccessDenied) {
  Endpoint server(client, address, echo);
  ASSERT_EQ(chmod(socketOf(address).c_str(), 0600), 0);
  Process call(words("call", address, "x"), as(kMember, true));
  EXPECT_EQ(call.wait(), 1);
  EXPECT_NE(call.err().find("access is denied"), std::string::npos) << call.err();
}

TEST_F(GroupTest, SendToProcessDoesNotReachOneWhoMayNotJoin) {
  Endpoint agent(client, address);
  const lunet::Guid console = newGuid();
  Player player(words("listen", console), as(kMember, true));
  ASSERT_TRUE(player.ready()) << player.process.err();
  player.process.write("{\"send\":\"" + lunet::formatGuid(address) +
                       "\",\"channel\":20991,\"data\":\"me\"}\n");
  ASSERT_TRUE(agent.waitForCount(1));
  const lunet::PeerIdentity process = agent.messages()[0].process;
  const lunet::SocketFolder folder{socketFolder(), groupNumber()};
  lunet::DialRequest request;
  request.folder = &folder;
  request.self = address;
  request.target = console;
  request.process = &process;
  request.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  request.rule = {geteuid(), groupNumber()};
  EXPECT_TRUE(lunet::dial(request));
  request.rule = {geteuid(), std::nullopt};  // as if the user had left the group
  EXPECT_EQ(lunet::dial(request).error().error, lunet::kErrDenied);
}

/// The quota of a member.
class MemberLimitsTest : public GroupTest {
 protected:
  Process::Options member() const { return as(kMember, true); }
  std::vector<std::string> intruder(const std::string& claimed, int count) const {
    return {tree.at("bin/lunet_intruder"), socketOf(address), claimed, lunet::formatGuid(address),
            std::to_string(count)};
  }
  static std::string order(const char* what, const lunet::Guid& target, std::size_t size) {
    const bool call = std::string(what) == "call";
    return "{\"" + std::string(what) + "\":\"" + lunet::formatGuid(target) +
           "\",\"channel\":" + (call ? "10990,\"timeout_ms\":20000" : "20991") + ",\"data\":\"" +
           std::string(size, 'm') + "\"}\n";
  }
  bool served(const Process::Options& user) const {
    Process call(words("call", address, "x"), user);
    return call.wait() == 0;
  }

  void SetUp() override {
    GroupTest::SetUp();
    if (!IsSkipped()) {
      ASSERT_EQ(server->Open(address), lunet::kOk);
    }
  }

  Endpoint server{client, echo};
};

TEST_F(MemberLimitsTest, AFrameOverTheLimitForMembersClosesThatConnectionAndNoOther) {
  Player player(words("listen", newGuid()), member());
  ASSERT_TRUE(player.ready()) << player.process.err();
  player.process.write(order("call", address, lunet::kMaxMemberMessageBytes + 1));
  EXPECT_TRUE(player.process.waitForOut("\"error\":" + std::to_string(lunet::kErrPeerLost)))
      << player.process.out();
  EXPECT_EQ(server.count(), 0u);
  player.process.write(order("call", address, 2));  // the next call connects anew
  EXPECT_TRUE(player.gotMessage("mm")) << player.process.out();
}

TEST_F(MemberLimitsTest, AFrameAtTheLimitForMembersIsDelivered) {
  Player player(words("listen", newGuid()), member());
  ASSERT_TRUE(player.ready()) << player.process.err();
  player.process.write(order("send", address, lunet::kMaxMemberMessageBytes));
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(server.messages()[0].data.size(), lunet::kMaxMemberMessageBytes);
}

TEST_F(MemberLimitsTest, RootsFramesAreNotLimitedAsMembersAre) {
  Endpoint caller(client, newGuid());
  const std::string text(lunet::kMaxMemberMessageBytes + 1, 'r');
  EXPECT_EQ(caller.call(address, text).data.size(), text.size());
}

TEST_F(MemberLimitsTest, OneAddressOfAMemberHasAFewConnections) {
  const lunet::Guid own = newGuid();
  Player player(words("listen", own), member());
  ASSERT_TRUE(player.ready()) << player.process.err();
  Process many(intruder(lunet::formatGuid(own), lunet::kMaxMemberLinksOfAddress + 1), member());
  EXPECT_TRUE(many.waitForOut("verdict E0010006"));
  EXPECT_EQ(many.out(),
            "verdict 00000000\nverdict 00000000\nverdict 00000000\nverdict 00000000\n"
            "verdict E0010006\n");
  EXPECT_TRUE(served(member()));  // from another address of the member
  many.closeInput();
  many.wait();
  EXPECT_TRUE(waitFor([&] { return intrude(member(), own, address) == "verdict 00000000\n"; }));
}

TEST_F(MemberLimitsTest, OneMemberHasSoManyConnectionsAndTheOthersTheirs) {
  {
    Process many(intruder("silent", lunet::kMaxMemberLinks + 1), member());
    EXPECT_TRUE(many.waitForOut("\n")) << many.out();
    EXPECT_EQ(many.out(), "verdict E0010006\n");
    EXPECT_TRUE(served(as(kOtherMember, true)));
    EXPECT_TRUE(served(Process::Options{}));
  }
  EXPECT_TRUE(waitFor([&] { return served(member()); }));
}

TEST_F(MemberLimitsTest, RootsConnectionsAreNotCounted) {
  const lunet::Guid own = newGuid();
  Endpoint endpoint(client, own);
  Process many(intruder(lunet::formatGuid(own), lunet::kMaxMemberLinks * 2));
  EXPECT_TRUE(many.waitForOut("verdict"));
  many.closeInput();
  many.wait();
  EXPECT_EQ(many.out().find("E0010006"), std::string::npos);
}

TEST_F(MemberLimitsTest, AtAMembersEndpointTheQuotaIsForOtherMembersOnly) {
  const auto full = [this](const Process::Options& user, const lunet::Guid& target) {
    const lunet::Guid own = newGuid();
    Player player(words("listen", own), user);
    EXPECT_TRUE(player.ready()) << player.process.err();
    Process many({tree.at("bin/lunet_intruder"), socketOf(target), lunet::formatGuid(own),
                  lunet::formatGuid(target), std::to_string(lunet::kMaxMemberLinksOfAddress + 1)},
                 user);
    many.closeInput();
    many.wait();
    EXPECT_TRUE(many.out().starts_with("verdict 00000000\n")) << many.out();
    return many.out().find("E0010006") != std::string::npos;
  };
  const lunet::Guid target = newGuid();
  Player listening(words("listen", target), member());
  ASSERT_TRUE(listening.ready()) << listening.process.err();
  EXPECT_FALSE(full(Process::Options{}, target)) << "root";
  EXPECT_FALSE(full(member(), target)) << "the same user";
  EXPECT_TRUE(full(as(kOtherMember, true), target));
}

class PrivateTest : public AccessTest {
 protected:
  PrivateTest() { installTree(); }
  Client client{config()};
};

TEST_F(PrivateTest, WithoutAGroupAnotherUserDoesNotGetNear) {
  Endpoint server(client, newGuid(), echo);
  Process process(lunetctl({"call", lunet::formatGuid(server.guid()), "x"}), as(kStranger, true));
  EXPECT_EQ(process.wait(), 1);
  EXPECT_NE(process.err().find("is private to user 0"), std::string::npos) << process.err();
  EXPECT_EQ(server.count(), 0u);
}

TEST_F(PrivateTest, WithoutAGroupAnotherUserIsCutOffEvenWhereTheFilesAdmitThatUser) {
  Endpoint server(client, newGuid(), echo);
  ASSERT_EQ(chmod(socketFolder().c_str(), 0777), 0);
  ASSERT_EQ(chmod(socketOf(server.guid()).c_str(), 0666), 0);
  Process process({tree.at("bin/lunet_intruder"), socketOf(server.guid()), lunet::formatGuid(newGuid()),
                   lunet::formatGuid(server.guid())},
                  as(kStranger, true));
  process.wait();
  EXPECT_EQ(process.out(), "verdict E0010009\n");
}

TEST_F(PrivateTest, AUserOtherThanRootHasAnOwnBusInAnOwnTree) {
  const std::string mine = tree.at("mine");
  fs::create_directories(mine + "/lib/modules");
  fs::copy_file(tree.at("lib/modules/libLunetClientMgr.so"), mine + "/lib/modules/libLunetClientMgr.so");
  for (const auto& entry : fs::recursive_directory_iterator(mine)) {
    ASSERT_EQ(chown(entry.path().c_str(), kMember, kMember), 0);
  }
  ASSERT_EQ(chown(mine.c_str(), kMember, kMember), 0);
  const std::string guid = lunet::formatGuid(newGuid());
  const std::vector<std::string> tool{tree.at("bin/lunetctl"), "--runtime", mine};
  std::vector<std::string> listen = tool;
  listen.insert(listen.end(), {"listen", guid});
  std::vector<std::string> send = tool;
  send.insert(send.end(), {"send", guid, "hello"});
  Player player(listen, as(kMember, false));
  ASSERT_TRUE(player.ready()) << player.process.err();
  Process sender(send, as(kMember, false));
  EXPECT_EQ(sender.wait(), 0) << sender.err();
  EXPECT_TRUE(player.gotMessage("hello"));
  const auto listener = lunet::listenerAt(mine + "/run/lunet", lunet::parseGuid(guid.c_str()));
  ASSERT_TRUE(listener);
  EXPECT_TRUE(listener->trusted) << "the folder is the listener's";
  std::vector<std::string> list = tool;
  list.push_back("list");
  Process listing(list, as(kMember, false));
  listing.wait();
  EXPECT_NE(listing.out().find(guid), std::string::npos) << listing.out();
  EXPECT_TRUE(listing.out().ends_with("  23456\n")) << "a user who has no name: " << listing.out();
  player.process.kill(SIGKILL);
  player.process.wait();
  const std::string left = mine + "/run/lunet/" + guid + ".sock";
  EXPECT_TRUE(fs::exists(left));
  Process next(send, as(kMember, false));  // opens an address of its own
  EXPECT_EQ(next.wait(), 1);
  EXPECT_FALSE(fs::exists(left)) << "the folder's owner clears what a crash left";
}
