#include "BusFixture.h"
#include "support/Wait.h"

using namespace lunettest;

class MessagesTest : public BusTest {
 protected:
  Client client{config()};
};

TEST_F(MessagesTest, ACallIsAnsweredByItsTarget) {
  Endpoint server(client, newGuid(), echo);
  Endpoint caller(client, newGuid());
  const Endpoint::Answer answer = caller.call(server.guid(), "hello");
  EXPECT_EQ(answer.error, lunet::kOk);
  EXPECT_EQ(answer.errorOut, lunet::kOk);
  EXPECT_EQ(answer.data, "hello");
  EXPECT_TRUE(answer.terminated);
}

TEST_F(MessagesTest, AOnewayMessageArrivesWithoutAReplyContext) {
  Endpoint server(client, newGuid());
  Endpoint caller(client, newGuid());
  ASSERT_EQ(caller.send(server.guid(), "note"), lunet::kOk);
  ASSERT_TRUE(server.waitForCount(1));
  EXPECT_EQ(server.messages()[0].data, "note");
  EXPECT_EQ(server.messages()[0].channel, lunet::kOnewayChannel);
  EXPECT_EQ(server.messages()[0].replyContext, nullptr);
  EXPECT_EQ(server.messages()[0].context, server.get());
}
