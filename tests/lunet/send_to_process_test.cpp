#include <gtest/gtest.h>
#include <signal.h>

#include "BusFixture.h"
#include "support/Wait.h"

using namespace lunettest;

class SendToProcessTest : public BusTest {
 protected:
  SendToProcessTest() { installTree(); }

  std::uint32_t sendTo(Endpoint& from, const lunet::Guid& target, const lunet::PeerIdentity& process,
                       const std::string& text) {
    return from->SendToProcess(target, process, lunet::kOnewayChannel, text.data(),
                               static_cast<std::uint32_t>(text.size()));
  }
  /// Lets the player send a message; the player's process as the kernel names it.
  lunet::PeerIdentity identityOf(Player& player, Endpoint& self) {
    const std::size_t before = self.count();
    player.process.write("{\"send\":\"" + lunet::formatGuid(self.guid()) +
                         "\",\"channel\":20991,\"data\":\"me\"}\n");
    EXPECT_TRUE(self.waitForCount(before + 1));
    return self.messages().back().process;
  }

  Client client{config()};
};

TEST_F(SendToProcessTest, ReachesTheProcessThatSent) {
  Endpoint agent(client, newGuid());
  const lunet::Guid address = newGuid();
  Player player(lunetctl({"listen", lunet::formatGuid(address)}));
  ASSERT_TRUE(player.ready());
  const lunet::PeerIdentity process = identityOf(player, agent);
  EXPECT_EQ(process.pid, player.process.pid());
  EXPECT_EQ(sendTo(agent, address, process, "for you"), lunet::kOk);
  EXPECT_TRUE(player.gotMessage("for you"));
}

TEST_F(SendToProcessTest, SaysThatAnotherHasTheAddressByNow) {
  Endpoint agent(client, newGuid());
  const lunet::Guid address = newGuid();
  lunet::PeerIdentity first;
  {
    Player player(lunetctl({"listen", lunet::formatGuid(address)}));
    ASSERT_TRUE(player.ready());
    first = identityOf(player, agent);
    ASSERT_EQ(sendTo(agent, address, first, "one"), lunet::kOk);
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  EXPECT_EQ(sendTo(agent, address, first, "two"), lunet::kErrNoTarget);
  Player second(lunetctl({"listen", lunet::formatGuid(address)}));
  ASSERT_TRUE(second.ready());
  EXPECT_EQ(sendTo(agent, address, first, "three"), lunet::kErrNotSame);
  const lunet::PeerIdentity now = identityOf(second, agent);
  EXPECT_EQ(sendTo(agent, address, now, "four"), lunet::kOk);
  EXPECT_EQ(sendTo(agent, address, first, "five"), lunet::kErrNotSame);
  EXPECT_TRUE(second.gotMessage("four"));
  EXPECT_EQ(second.process.out().find("three"), std::string::npos);
}

TEST_F(SendToProcessTest, AProcessNumberUsedAgainIsAnotherProcess) {
  Endpoint agent(client, newGuid());
  const lunet::Guid address = newGuid();
  Player player(lunetctl({"listen", lunet::formatGuid(address)}));
  ASSERT_TRUE(player.ready());
  lunet::PeerIdentity process = identityOf(player, agent);
  ++process.startTicks;
  EXPECT_EQ(sendTo(agent, address, process, "x"), lunet::kErrNotSame);
}

TEST_F(SendToProcessTest, KeepsTheOrderWithOtherMessages) {
  Endpoint agent(client, newGuid());
  Endpoint console(client, newGuid(), echo);
  ASSERT_EQ(console.send(agent.guid(), "me"), lunet::kOk);
  ASSERT_TRUE(agent.waitForCount(1));
  const lunet::PeerIdentity process = agent.messages()[0].process;
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(i % 2 == 0 ? sendTo(agent, console.guid(), process, std::to_string(i))
                         : agent.send(console.guid(), std::to_string(i)),
              lunet::kOk);
  }
  ASSERT_TRUE(console.waitForCount(500));
  const std::vector<Message> received = console.messages();
  for (std::size_t i = 0; i < 500; ++i) {
    ASSERT_EQ(received[i].data, std::to_string(i));
  }
}
