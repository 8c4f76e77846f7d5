#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::LogRecorder;
using testing::socketFor;
using testing::waitUntilConnected;
using vantor::testing::PhoenixTestServer;
using ::testing::ElementsAre;

class SocketAgainstServer : public ::testing::Test {
 protected:
  PhoenixTestServer server;
  LogRecorder log;
};

TEST_F(SocketAgainstServer, ASilentServerIsLeftAtTheNextHeartbeatAndReconnected) {
  server.setHeartbeatReplies(false);
  auto socket = socketFor(server, &log);
  socket->setHeartbeatInterval(0.05);
  socket->connect();
  ASSERT_TRUE(server.waitForConnections(2, 10s));
  auto closes = server.webSocket().receivedCloseFrames();
  ASSERT_FALSE(closes.empty());
  EXPECT_EQ(closes[0].code, 1000);
  EXPECT_EQ(closes[0].reason, "heartbeat timeout");
  EXPECT_GE(server.heartbeatsReceived(), 1U);
  server.setHeartbeatReplies(true);
  ASSERT_TRUE(waitUntilConnected(socket));
  socket->disconnect();
}

TEST_F(SocketAgainstServer, AfterDisconnectNothingReconnectsAndALeftChannelNeverRejoins) {
  auto socket = socketFor(server, &log);
  testing::Notes order;
  socket->onOpen(order.adder("open"));
  socket->onClose(order.adder("close"));
  auto channel = socket->channel("room:1");
  channel->onClose([&](const Message& message) {
    order.add("channel " + std::string(message.payload().at("reason").as_string()));
  });
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  socket->disconnect(Socket::CloseCode::normal, order.adder("callback"));
  ASSERT_TRUE(server.waitForOpenConnections(0, 10s));
  channel->leave();  // without a connection: closed at once
  EXPECT_EQ(channel->state(), ChannelState::closed);
  EXPECT_TRUE(socket->channels().empty());
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(server.connectParams().size(), 1U) << "no reconnect after disconnect";
  EXPECT_THAT(order.all(), ElementsAre("open", "close", "callback", "channel leave"));
  socket->connect();
  ASSERT_TRUE(waitUntilConnected(socket));
  EXPECT_EQ(server.connectParams().size(), 2U);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(server.countReceived("room:1", "phx_join"), 1U) << "a left channel never rejoins";
  socket->disconnect();
}

TEST_F(SocketAgainstServer, EveryReconnectAsksForFreshParameters) {
  std::atomic<int> calls{0};
  auto socket = socketFor(server, &log, [&] {
    return std::optional<Payload>(Payload{{"attempt", ++calls}, {"token", "abc"}});
  });
  socket->connect();
  ASSERT_TRUE(server.waitForConnections(1, 10s));
  server.dropConnections();
  ASSERT_TRUE(server.waitForConnections(2, 10s));
  server.closeWith(1011);
  ASSERT_TRUE(server.waitForConnections(3, 10s));
  auto params = server.connectParams();
  ASSERT_GE(params.size(), 3U);
  EXPECT_EQ(params[0]["vsn"], "2.0.0");
  EXPECT_EQ(params[0]["token"], "abc");
  EXPECT_LT(std::stoi(params[0]["attempt"]), std::stoi(params[1]["attempt"]));
  EXPECT_LT(std::stoi(params[1]["attempt"]), std::stoi(params[2]["attempt"]));
  socket->disconnect();
}

TEST_F(SocketAgainstServer, MalformedFramesAreLoggedAndTheConnectionStaysUp) {
  auto socket = socketFor(server, &log);
  std::atomic<int> news{0};
  socket->onMessage([&](const Message& message) {
    if (message.event() == "news") {
      ++news;
    }
  });
  socket->connect();
  ASSERT_TRUE(waitUntilConnected(socket));
  server.sendRaw("not json");
  server.sendRaw("[1,2,3,4,5]");
  server.sendRaw(R"([null,null,"t","news",{}])");
  ASSERT_TRUE(eventually([&] { return news == 1; }));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: receive: Unable to parse JSON: not json"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: receive: Unable to parse JSON: [1,2,3,4,5]"));
  EXPECT_EQ(server.openConnections(), 1U);
  socket->disconnect();
}

struct Owner {};

// Callbacks hold their owners weakly; a left channel and a released socket
// are freed, and the socket's connection closes.
TEST_F(SocketAgainstServer, NothingKeepsALeftChannelAReleasedSocketOrTheirOwnersAlive) {
  auto socket = socketFor(server, &log);
  auto owner = std::make_shared<Owner>();
  std::weak_ptr<Owner> weakOwner = owner;
  socket->delegateOnOpen<Owner>(owner, [](Owner&) {});
  socket->delegateOnMessage<Owner>(owner, [](Owner&, const Message&) {});
  socket->onClose([] {});
  auto left = socket->channel("room:1");
  left->delegateOn<Owner>("news", owner, [](Owner&, const Message&) {});
  left->join()->delegateReceive<Owner>("ok", owner, [](Owner&, const Message&) {});
  socket->channel("room:2")->join();
  socket->setHeartbeatInterval(0.01);
  socket->connect();
  ASSERT_TRUE(server.waitForMembers("room:2", 1, 10s));
  ASSERT_TRUE(eventually([&] { return left->isJoined(); }));
  left->push("noreply", {}, 60.0);
  // The loop may be holding anything for a moment, for a heartbeat or a
  // frame it is handling; nothing else keeps it.
  owner.reset();
  EXPECT_TRUE(eventually([&] { return weakOwner.expired(); }));
  left->leave();
  ASSERT_TRUE(eventually([&] { return left->state() == ChannelState::closed; }));
  std::weak_ptr<Channel> weakChannel = left;
  left.reset();
  EXPECT_TRUE(eventually([&] { return weakChannel.expired(); }));
  std::weak_ptr<Socket> weakSocket = socket;
  socket.reset();
  EXPECT_TRUE(eventually([&] { return weakSocket.expired(); }));
  EXPECT_TRUE(server.waitForOpenConnections(0, 10s));
}

}  // namespace
}  // namespace vantor::realtime
