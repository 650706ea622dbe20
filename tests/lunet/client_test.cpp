#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <set>
#include <sstream>

#include "BusFixture.h"
#include "support/Mounts.h"
#include "support/Wait.h"

using namespace lunettest;

struct BadConfigRow {
  const char* name;
  const char* config;
};

class BadConfigTest : public testing::TestWithParam<BadConfigRow> {};

TEST_P(BadConfigTest, IsRefused) {
  Client client(GetParam().config);
  EXPECT_EQ(client.initResult(), lunet::kErrArgument);
  EXPECT_EQ(client->CreateEndpoint(), nullptr);
  EXPECT_EQ(client->Connect(0), lunet::kErrNotOpen);
}

INSTANTIATE_TEST_SUITE_P(
    Table, BadConfigTest,
    testing::Values(BadConfigRow{"Empty", ""}, BadConfigRow{"NotJson", "{"}, BadConfigRow{"NoObject", "[]"},
                    BadConfigRow{"NoPlaceForSockets", "{}"},
                    BadConfigRow{"ARelativeTree", R"({"runtime_path":"here"})"},
                    BadConfigRow{"AGroupThatDoesNotExist",
                                 R"({"runtime_path":"/tmp/x","group":"no such group"})"},
                    BadConfigRow{"AGroupThatIsNoText", R"({"runtime_path":"/tmp/x","group":100})"}),
    [](const auto& row) { return std::string(row.param.name); });

class ClientTest : public BusTest {
 protected:
  /// With a log of the tree.
  std::string logged(const std::string& more = "") const {
    return config("\"log_path\":\"" + log() + "\"" + more);
  }
  std::string log() const { return tree.at("log/bus.log"); }
  int linesWith(const std::string& part) const {
    std::istringstream lines(testsupport::readFile(log()));
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
      count += line.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
  }
  bool logIsOpen() const {
    bool open = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      open = open || std::filesystem::read_symlink(entry.path(), gone) == log();
    }
    return open;
  }

  const lunet::Guid agent = lunet::parseGuid(lunet::kAgentGuid);
};

TEST_F(ClientTest, ANullConfigurationIsRefusedAndANullUuidIsNot) {
  lunet::BusClient bus;
  ASSERT_TRUE(bus.load(TAV_LIB_DIR "/libLunetClientMgr.so"));
  EXPECT_EQ(bus.client()->Init(nullptr, "x"), lunet::kErrArgument);
  EXPECT_EQ(bus.client()->Init(config().c_str(), nullptr), lunet::kOk);
  EXPECT_EQ(bus.client()->Init(config().c_str(), "again"), lunet::kErrArgument);
}

TEST_F(ClientTest, ConnectSucceedsWhenTheAgentAccepts) {
  Client client(config());
  Endpoint server(client, agent);
  EXPECT_EQ(client->Connect(10), lunet::kOk);
}

TEST_F(ClientTest, ConnectWaitsForAnAgentThatIsJustStarting) {
  installTree();
  Client client(config());
  auto connected = std::async(std::launch::async, [&] { return client->Connect(60); });
  Player player(lunetctl({"listen", lunet::kAgentGuid}));
  ASSERT_TRUE(player.ready());
  EXPECT_EQ(connected.get(), lunet::kOk);
}

TEST_F(ClientTest, ConnectGivesUpAfterTheLesserOfTheTwoTimes) {
  // They would time out if the longer limit (an hour) counted.
  Client configured(config("\"connect_timeout_ms\":30"));
  EXPECT_EQ(configured->Connect(3600), lunet::kErrNoTarget);
  Client none(config("\"connect_timeout_ms\":0"));
  EXPECT_EQ(none->Connect(3600), lunet::kErrNoTarget);
  Client longer(config("\"connect_timeout_ms\":3600000"));
  EXPECT_EQ(longer->Connect(0), lunet::kErrNoTarget);
}

TEST_F(ClientTest, AnOpenEndpointKeepsItsAddressAndOpensNoOther) {
  Client client(config());
  Endpoint endpoint(client, newGuid(), echo);
  const lunet::Guid other = newGuid();
  EXPECT_EQ(endpoint->Open(other), lunet::kErrInUse);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(endpoint.guid(), "x").data, "x");
  EXPECT_EQ(caller.call(other, "x").error, lunet::kErrNoTarget);
}

TEST_F(ClientTest, ALookFindsTheAgentWithoutAWait) {
  installTree();
  Client client(config());
  Player player(lunetctl({"listen", lunet::kAgentGuid}));
  ASSERT_TRUE(player.ready());
  EXPECT_EQ(client->Connect(0), lunet::kOk);
  player.process.kill(SIGSTOP);
  EXPECT_EQ(client->Connect(0), lunet::kOk) << "it listens, though it cannot answer now";
  player.process.kill(SIGKILL);
  player.process.wait();
  EXPECT_EQ(client->Connect(0), lunet::kErrNoTarget);
}

TEST_F(ClientTest, LooksLogChangesOnly) {
  Client client(logged(",\"log_level\":3"));
  const auto lookThrice = [&client] {
    for (int i = 0; i < 3; ++i) {
      client->Connect(0);
    }
  };
  lookThrice();
  EXPECT_EQ(linesWith("the agent is not reached"), 1);
  {
    Endpoint server(client, agent);
    lookThrice();
    EXPECT_EQ(linesWith("the agent accepts"), 1);
  }
  lookThrice();
  EXPECT_EQ(linesWith("the agent is not reached"), 2);
  EXPECT_EQ(linesWith("the agent accepts"), 1);
}

TEST_F(ClientTest, TheFirstLookAfterEachInitIsLogged) {
  Client agents(config());
  Endpoint server(agents, agent);
  Client client(logged(",\"log_level\":3"));
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(client->Connect(0), lunet::kOk);
    EXPECT_EQ(client->Connect(0), lunet::kOk);
    EXPECT_EQ(linesWith("the agent accepts"), round);
    client->Uninit();
    EXPECT_FALSE(logIsOpen());
    ASSERT_EQ(client->Init(logged(",\"log_level\":3").c_str(), "again"), lunet::kOk);
  }
}

TEST_F(ClientTest, WithoutALevelErrorsAreLoggedAndNothingElse) {
  Client client(logged());
  { Endpoint endpoint(client, newGuid()); }
  EXPECT_EQ(testsupport::readFile(log()), "");
  EXPECT_EQ(client->Connect(0), lunet::kErrNoTarget);
  EXPECT_EQ(linesWith("the agent is not reached"), 1);
}

TEST_F(ClientTest, AMissingAgentIsNotThereForACrashedOnesFiles) {
  installTree();
  Client client(config("\"connect_timeout_ms\":50"));
  {
    Player player(lunetctl({"listen", lunet::kAgentGuid}));
    ASSERT_TRUE(player.ready());
    EXPECT_EQ(client->Connect(10), lunet::kOk);
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  EXPECT_EQ(client->Connect(10), lunet::kErrNoTarget);
}

TEST_F(ClientTest, AnUnsafeFolderEndsConnectAtOnceWithPath) {
  tree.write("run/lunet", "a file");
  Client client(config());
  EXPECT_EQ(client->Connect(3600), lunet::kErrPath);
}

TEST_F(ClientTest, OperationsOnAnEndpointThatIsNotOpenSaySo) {
  Client client(config());
  Endpoint endpoint(client);
  EXPECT_EQ(endpoint.send(agent, "x"), lunet::kErrNotOpen);
  EXPECT_EQ(endpoint.call(agent, "x").error, lunet::kErrNotOpen);
  EXPECT_EQ(endpoint->Reply(0, 1, "x", 1, reinterpret_cast<void*>(1)), lunet::kErrNotOpen);
  lunet::PeerIdentity identity;
  EXPECT_EQ(endpoint->GetPeerIdentity(&identity), lunet::kErrNotOpen);
  lunet::Guid peer = agent;
  endpoint->GetPeer(&peer);
  EXPECT_EQ(peer, lunet::Guid{});
  endpoint->Close();
}

TEST_F(ClientTest, EndpointsOfTwoTreesDoNotReachEachOther) {
  testsupport::TempDir other;
  Client here(config());
  Client there("{\"runtime_path\":\"" + other.path() + "\"}");
  Endpoint first(here, agent);
  Endpoint second(there, agent);
  Endpoint caller(there, newGuid());
  EXPECT_EQ(caller.send(agent, "x"), lunet::kOk);
  EXPECT_TRUE(second.waitForCount(1));
  EXPECT_EQ(first.count(), 0u);
}

TEST_F(ClientTest, ASocketFolderOfItsOwnIsUsed) {
  Client client(config("\"socket_dir\":\"" + tree.at("elsewhere") + "\""));
  Endpoint endpoint(client, agent);
  EXPECT_TRUE(std::filesystem::exists(tree.at("elsewhere/") + lunet::kAgentGuid + ".sock"));
}

TEST_F(ClientTest, DisconnectClosesAndUninitDestroysTheEndpoints) {
  Client client(config());
  Endpoint endpoint(client, agent);
  client->Disconnect();
  EXPECT_EQ(endpoint.send(agent, "x"), lunet::kErrNotOpen);
  endpoint.destroy();
  client->Uninit();
  EXPECT_EQ(client->CreateEndpoint(), nullptr);
}

TEST_F(ClientTest, AnEndpointThatIsNotTheClientsIsNotDestroyedByIt) {
  Client other(config());
  Client client(config());
  Endpoint endpoint(other, agent);
  client->DestroyEndpoint(endpoint.get());
  client->DestroyEndpoint(nullptr);
  EXPECT_EQ(client->Connect(10), lunet::kOk);
}

TEST_F(ClientTest, AnInitThatFailsLeavesTheLogClosed) {
  Client client("{\"log_path\":\"" + log() + "\"}");
  EXPECT_EQ(client.initResult(), lunet::kErrArgument);
  EXPECT_NE(testsupport::readFile(log()), "");
  EXPECT_FALSE(logIsOpen());
}

/// One of the ways in which an endpoint is closed, and a server whose callback waits for the test.
class CloseWayTest : public ClientTest, public testing::WithParamInterface<const char*> {
 protected:
  void close(Endpoint& endpoint) {
    const std::string_view way = GetParam();
    if (way == "DestroyEndpoint") {
      endpoint.destroy();
    } else if (way == "Disconnect") {
      client->Disconnect();
    } else {
      client->Uninit();
    }
  }
  /// Returns when the server's callback waits at the gate.
  void letTheServerWait() {
    ASSERT_EQ(sender.send(server.guid(), "x"), lunet::kOk);
    ASSERT_TRUE(server.waitForCount(1));
  }
  /// Closes the server; tells whether its callback had ended by then.
  std::future<bool> closeServer() {
    return std::async(std::launch::async, [this] {
      close(server);
      return finished.load();
    });
  }
  bool waitUntilTheServerCloses() {
    return testsupport::waitFor([&] { return !std::filesystem::exists(socketOf(server.guid())); });
  }

  Client others{config()};
  Client client{config()};
  Gate gate;
  std::atomic<bool> finished{false};
  Endpoint server{client, newGuid(), [this](Endpoint&, const Message&) {
                    gate.wait();
                    client->Connect(0);
                    finished = true;
                  }};
  Endpoint sender{others, newGuid()};
};

TEST_P(CloseWayTest, WaitsForACallbackThatMayUseTheClientMeanwhile) {
  letTheServerWait();
  std::future<bool> closing = closeServer();
  ASSERT_TRUE(waitUntilTheServerCloses());
  gate.open();
  ASSERT_EQ(closing.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(closing.get());
}

TEST_P(CloseWayTest, GivesTheAddressUpSoThatAnotherClientMayOpenIt) {
  Endpoint endpoint(client, agent);
  close(endpoint);
  Endpoint next(others);
  EXPECT_EQ(next->Open(agent), lunet::kOk);
}

TEST_P(CloseWayTest, HasClosedWhenItReturnsThoughTheClientDisconnectsAtTheSameTime) {
  letTheServerWait();
  auto disconnecting = std::async(std::launch::async, [&] { client->Disconnect(); });
  ASSERT_TRUE(waitUntilTheServerCloses());
  std::future<bool> closing = closeServer();
  EXPECT_EQ(closing.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  gate.open();
  EXPECT_TRUE(closing.get());
  disconnecting.get();
}

INSTANTIATE_TEST_SUITE_P(Ways, CloseWayTest, testing::Values("DestroyEndpoint", "Disconnect", "Uninit"),
                         [](const auto& row) { return std::string(row.param); });

TEST_F(ClientTest, DisconnectClosesEveryEndpointAndEachMayBeOpenedAgain) {
  Client client(config());
  Endpoint first(client, newGuid(), echo);
  Endpoint second(client, newGuid(), echo);
  ASSERT_EQ(first.call(second.guid(), "x").data, "x");
  client->Disconnect();
  EXPECT_EQ(first.send(second.guid(), "x"), lunet::kErrNotOpen);
  EXPECT_EQ(second.send(first.guid(), "x"), lunet::kErrNotOpen);
  ASSERT_EQ(first->Open(first.guid()), lunet::kOk);
  ASSERT_EQ(second->Open(second.guid()), lunet::kOk);
  EXPECT_EQ(first.call(second.guid(), "x").data, "x");
}

TEST_F(ClientTest, NoDescriptorOfTheBusIsInheritedByAnotherProgram) {
  const auto inherited = [] {
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int fd = std::stoi(entry.path().filename());
      const int flags = fcntl(fd, F_GETFD);  // -1 for the listing's own, closed by now
      if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
        found.insert(fd);
      }
    }
    return found;
  };
  const std::set<int> before = inherited();
  Client client(logged(",\"log_level\":3"));
  Endpoint server(client, agent, echo);
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.call(server.guid(), "x").data, "x");
  ASSERT_TRUE(logIsOpen());
  EXPECT_EQ(inherited(), before);
}

/// A group whose entry is longer than the first buffer, in a process with an /etc/group of its own.
TEST_F(ClientTest, AGroupOfManyMembersIsFound) {
  if (const std::string why = testsupport::whyNoOwnMounts(); !why.empty()) {
    GTEST_SKIP() << "needs mounts of its own: " << why;
  }
  std::string members = "member0";
  for (int i = 1; i < 5000; ++i) {
    members += ",member" + std::to_string(i);
  }
  const std::string groups =
      tree.write("group", "root:x:0:\nmany:x:" + std::to_string(getegid()) + ":" + members + "\n");
  const auto initResult = [&] {
    if (!testsupport::enterOwnMounts().empty() ||
        mount(groups.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) != 0) {
      return 2;
    }
    return Client(config("\"group\":\"many\"")).initResult() == lunet::kOk ? 0 : 1;
  };
  EXPECT_EXIT(_exit(initResult()), testing::ExitedWithCode(0), "");
}

TEST_F(ClientTest, TheReservedSlotIsThere) {
  Client client(config());
  client->Reserved();
  EXPECT_EQ(client.initResult(), lunet::kOk);
}

TEST_F(ClientTest, ItsThreadsTakeNoSignalsOfTheProgram) {
  Client client(config());
  Endpoint endpoint(client, agent);
  const auto check = [] {
    int checked = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      const std::string name = testsupport::readFile(task.path().string() + "/comm");
      if (name.starts_with("lunet-")) {
        const std::string status = testsupport::readFile(task.path().string() + "/status");
        const std::size_t at = status.find("SigBlk:\t") + 8;
        const unsigned long long blocked = std::stoull(status.substr(at, 16), nullptr, 16);
        EXPECT_NE(blocked & (1ull << (SIGTERM - 1)), 0u) << name;
        ++checked;
      }
    }
    return checked;
  };
  EXPECT_TRUE(testsupport::waitFor([&] { return check() == 2; }));  // a thread sets its name itself
  sigset_t own;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &own), 0);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the thread that opens keeps its signals";
}

namespace {

volatile bool endless = true;

int overflowStack(int depth) {
  volatile char room[4096];
  room[0] = static_cast<char>(depth);
  return endless ? overflowStack(depth + 1) + room[0] : depth;
}

}  // namespace

TEST_F(ClientTest, AReceiverThatOverflowsItsStackReachesTheProgramsHandler) {
#ifdef TAV_SANITIZED
  GTEST_SKIP() << "the sanitizers handle the overflow";
#endif
  const auto overflow = [this] {
    struct sigaction action {};
    action.sa_handler = [](int) { _exit(0); };
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGSEGV, &action, nullptr);
    Client client(config());
    Endpoint server(client, agent, [](Endpoint&, const Message&) { overflowStack(0); });
    Endpoint(client, newGuid()).call(server.guid(), "x");
  };
  EXPECT_EXIT((overflow(), _exit(1)), testing::ExitedWithCode(0), "");
}
