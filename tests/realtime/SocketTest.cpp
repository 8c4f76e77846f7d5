#include "vantor/realtime/Socket.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <limits>

#include "support/Eventually.hpp"
#include "support/FakeTransport.hpp"
#include "vantor/realtime/Channel.hpp"

namespace vantor::realtime {

struct SocketTestAccess {
  static void setRef(Socket& socket, std::uint64_t value) {
    platform::EventLoop::main().sync([&] { socket.ref_ = value; });
  }
};

namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::FakeTransport;
using testing::FakeTransports;
using testing::LogRecorder;
using ::testing::ElementsAre;

std::string urlOf(const std::string& endpoint, Payload params) {
  return std::string(
      Socket::buildEndpointUrl(endpoint, [&] { return std::optional<Payload>(params); }, "2.0.0")
          .buffer());
}

TEST(SocketEndpoint, AppendsWebsocketUnlessThePathMentionsIt) {
  EXPECT_EQ(urlOf("ws://h/socket", {{"token", "abc"}}), "ws://h/socket/websocket?vsn=2.0.0&token=abc");
  EXPECT_EQ(urlOf("ws://h/socket/", {}), "ws://h/socket/websocket?vsn=2.0.0");
  EXPECT_EQ(urlOf("ws://h", {}), "ws://h/websocket?vsn=2.0.0");
  EXPECT_EQ(urlOf("wss://h/x/websocket/y", {}), "wss://h/x/websocket/y?vsn=2.0.0");
  EXPECT_EQ(urlOf("https://h:4000/socket?old=1", {{"n", 5}, {"s", "a b&c"}}),
            "https://h:4000/socket/websocket?vsn=2.0.0&n=5&s=a%20b%26c");
}

TEST(SocketEndpoint, WebsocketProtocolFollowsTheScheme) {
  FakeTransports transports;
  auto protocolOf = [&](const std::string& endpoint) {
    return Socket::make(endpoint, transports.factory())->websocketProtocol();
  };
  EXPECT_EQ(protocolOf("https://h/socket"), "wss");
  EXPECT_EQ(protocolOf("http://h/socket"), "ws");
  EXPECT_EQ(protocolOf("ws://h/socket"), "ws");
  EXPECT_EQ(protocolOf("wss://h/socket"), "wss");
  EXPECT_EQ(protocolOf("/socket"), "");
}

TEST(SocketEndpointDeathTest, AnEndpointThatDoesNotParseStopsTheProcess) {
  EXPECT_DEATH(Socket::buildEndpointUrl("ws://bad host/socket", nullptr, "2.0.0"),
               "Malformed URL: ws://bad host/socket");
  // Read naively, this names the host 127.0.0.1 with the path ".evil.test/".
  EXPECT_DEATH(Socket::buildEndpointUrl("ws://127.0.0.1.evil.test/socket", nullptr, "2.0.0"),
               "Malformed URL: ws://127.0.0.1.evil.test/socket");
}

TEST(SocketLogging, IntervalsAreWrittenAsTheShortestDecimalWithAFraction) {
  EXPECT_EQ(detail::shortestDecimal(0.01), "0.01");
  EXPECT_EQ(detail::shortestDecimal(0.15), "0.15");
  EXPECT_EQ(detail::shortestDecimal(5.0), "5.0");
  EXPECT_EQ(detail::shortestDecimal(10), "10.0");
  EXPECT_EQ(detail::shortestDecimal(0.1 + 0.2), "0.30000000000000004");
}

TEST(SocketRefs, MessageAndCallbackReferencesShareOneWrappingCounter) {
  FakeTransports transports;
  auto socket = Socket::make("ws://h/socket", transports.factory());
  EXPECT_EQ(socket->makeRef(), "1");
  EXPECT_EQ(socket->onOpen([] {}), "2");
  EXPECT_EQ(socket->makeRef(), "3");
  SocketTestAccess::setRef(*socket, std::numeric_limits<std::uint64_t>::max() - 1);
  EXPECT_EQ(socket->makeRef(), "18446744073709551615");
  EXPECT_EQ(socket->makeRef(), "0");
  EXPECT_EQ(socket->makeRef(), "1");
}

class SocketWithFakeTransport : public ::testing::Test {
 protected:
  void SetUp() override {
    socket = Socket::make("ws://h/socket", transports.factory(),
                          [this] { return std::optional<Payload>(Payload{{"n", ++paramsCalls}}); });
    socket->setLogger(log.logger());
  }

  std::shared_ptr<FakeTransport> connectAndOpen() {
    socket->connect();
    auto transport = transports.last();
    transport->open();
    return transport;
  }

  FakeTransports transports;
  LogRecorder log;
  int paramsCalls = 0;
  std::shared_ptr<Socket> socket;
};

TEST_F(SocketWithFakeTransport, BuffersPushesUntilOpenAndFlushesThemBeforeTheOpenCallbacks) {
  socket->push("t", "first", {{"a", 1}}, "r1");
  socket->push("t", "second", {}, std::nullopt, "j1");
  // Frames are encoded when sent, so an encoder set now applies to them.
  socket->setEncoder([](const boost::json::value& value) {
    return "X" + Defaults::encode(value);
  });
  std::vector<std::string> sentAtOpen;
  socket->onOpen([&] { sentAtOpen = transports.last()->sent(); });
  auto transport = connectAndOpen();
  EXPECT_THAT(sentAtOpen, ElementsAre(R"(X[null,"r1","t","first",{"a":1}])",
                                      R"(X["j1",null,"t","second",{}])"));
  EXPECT_EQ(transport->sent().size(), 2U) << "each buffered frame is sent exactly once";
  EXPECT_TRUE(log.contains(R"(VantorPhoenixClient: push, Sending X[null,"r1","t","first",{"a":1}])"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: transport, Connected to ws://h/socket"));
}

TEST_F(SocketWithFakeTransport, RemovingFromTheSendBufferWithdrawsThatReferenceOnly) {
  socket->push("t", "a", {}, "1");
  socket->push("t", "b", {}, "2");
  socket->push("t", "c", {}, "1");
  socket->removeFromSendBuffer("1");
  auto transport = connectAndOpen();
  EXPECT_THAT(transport->sent(), ElementsAre(R"([null,"2","t","b",{}])"));
}

TEST_F(SocketWithFakeTransport, ConnectFetchesParametersAfreshAndDoesNothingWhileOpen) {
  socket->connect();
  transports.last()->open();
  socket->connect();
  EXPECT_EQ(transports.count(), 1U);
  EXPECT_EQ(paramsCalls, 2) << "once at construction, once at connect";
  socket->disconnect();
  socket->connect();
  EXPECT_EQ(transports.count(), 2U);
  EXPECT_EQ(transports.urls.back(), "ws://h/socket/websocket?vsn=2.0.0&n=3");
}

TEST_F(SocketWithFakeTransport, DisconnectClosesOnceCallsBackAndNeverReconnects) {
  socket->setReconnectAfter([](int) { return 0.001; });
  auto transport = connectAndOpen();
  std::vector<std::string> order;
  socket->onClose([&] { order.push_back("close"); });
  socket->disconnect(Socket::CloseCode::goingAway, [&] { order.push_back("callback"); });
  EXPECT_THAT(order, ElementsAre("close", "callback"));
  ASSERT_EQ(transport->disconnects().size(), 1U);
  EXPECT_EQ(transport->disconnects()[0].code, 1001);
  EXPECT_EQ(transport->delegate(), nullptr) << "cleared before the close";
  EXPECT_EQ(socket->closeStatus(), Socket::CloseStatus::temporary);
  // A late report of the old transport reaches nobody.
  transport->closeWith(1000);
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(transports.count(), 1U);
  EXPECT_THAT(order, ElementsAre("close", "callback"));
}

TEST_F(SocketWithFakeTransport, AnUnexpectedCloseReconnectsOnTheBackOff) {
  auto transport = connectAndOpen();
  transport->closeWith(1006);
  ASSERT_TRUE(eventually([&] { return transports.count() == 2; }));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: Socket reconnecting in 0.01s"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: Socket attempting to reconnect"));
  EXPECT_EQ(transport->disconnects().at(0).code, 1000) << "the old transport is torn down";
  transports.last()->fail("refused");
  ASSERT_TRUE(eventually([&] { return transports.count() == 3; }));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: Socket reconnecting in 0.05s"));
  transports.last()->open();
  transports.last()->closeWith(1000);
  ASSERT_TRUE(eventually([&] { return transports.count() == 4; }));
  EXPECT_EQ(log.count("VantorPhoenixClient: Socket reconnecting in 0.01s"), 2U)
      << "an open resets the attempt count";
}

TEST_F(SocketWithFakeTransport, AMissedHeartbeatClosesTheTransportAndReconnects) {
  socket->setHeartbeatInterval(0.005);
  auto transport = connectAndOpen();
  ASSERT_TRUE(eventually([&] { return !transport->disconnects().empty(); }));
  auto sent = transport->sent();
  ASSERT_EQ(sent.size(), 1U);
  auto heartbeat = boost::json::parse(sent[0]).as_array();
  EXPECT_TRUE(heartbeat[0].is_null());
  EXPECT_EQ(heartbeat[2], "phoenix");
  EXPECT_EQ(heartbeat[3], "heartbeat");
  EXPECT_EQ(transport->disconnects()[0].code, 1000);
  EXPECT_EQ(transport->disconnects()[0].reason, "heartbeat timeout");
  EXPECT_EQ(socket->closeStatus(), Socket::CloseStatus::abnormal);
  EXPECT_TRUE(log.contains(
      "VantorPhoenixClient: transport, heartbeat timeout. Attempting to re-establish connection"));
  transport->closeWith(1000);
  ASSERT_TRUE(eventually([&] { return transports.count() == 2; }));
}

TEST_F(SocketWithFakeTransport, AnyMessageWithThePendingReferenceAnswersTheHeartbeat) {
  socket->setHeartbeatInterval(0.02);
  auto transport = connectAndOpen();
  for (int beat = 1; beat <= 3; ++beat) {
    ASSERT_TRUE(eventually([&] { return transport->sent().size() == static_cast<std::size_t>(beat); }));
    auto ref = boost::json::parse(transport->sent().back()).as_array()[1].as_string();
    transport->receive(R"([null, ")" + std::string(ref) + R"(", "anything", "x", {}])");
  }
  EXPECT_TRUE(transport->disconnects().empty());
  socket->disconnect();
}

TEST_F(SocketWithFakeTransport, SkipHeartbeatStartsNoTimer) {
  socket->setSkipHeartbeat(true);
  socket->setHeartbeatInterval(0.001);
  auto transport = connectAndOpen();
  std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(transport->sent().empty());
}

TEST_F(SocketWithFakeTransport, ACloseEventIsAnnouncedOnStandardOutput) {
  socket->setLogger(nullptr);
  auto transport = connectAndOpen();
  ::testing::internal::CaptureStdout();
  transport->receive(R"(["1", "1", "t", "phx_close", {}])");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Close Event Received\n");
}

TEST_F(SocketWithFakeTransport, ErrorsReachTheErrorCallbacksWithTheResponse) {
  std::vector<int> statuses;
  std::vector<std::string> order;
  socket->onError([&](const TransportError& error, const std::optional<HttpResponse>& response) {
    order.push_back("error:" + error.description);
    statuses.push_back(response ? response->statusCode : 0);
  });
  socket->onClose([&] { order.push_back("close"); });
  socket->connect();
  transports.last()->fail("handshake refused", HttpResponse{403, "Forbidden", {}, ""});
  EXPECT_THAT(order, ElementsAre("error:handshake refused", "close"));
  EXPECT_THAT(statuses, ElementsAre(403));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: transport, handshake refused, HTTP 403 Forbidden"));
  socket->disconnect();
}

TEST_F(SocketWithFakeTransport, OffRemovesFromWhicheverListHoldsTheReference) {
  int opens = 0;
  int messages = 0;
  auto openRef = socket->onOpen([&] { ++opens; });
  auto messageRef = socket->onMessage([&](const Message&) { ++messages; });
  socket->off({messageRef, "unknown"});
  auto transport = connectAndOpen();
  transport->receive(R"([null, null, "t", "e", {}])");
  EXPECT_EQ(opens, 1);
  EXPECT_EQ(messages, 0);
  socket->off({openRef});
  socket->releaseCallbacks();
}

struct Listener {
  int opens = 0;
};

TEST(SocketLifetime, DelegatedCallbacksKeepNoOwnerAliveAndAReleasedSocketIsFreed) {
  FakeTransports transports;
  auto socket = Socket::make("ws://h/socket", transports.factory());
  auto listener = std::make_shared<Listener>();
  std::weak_ptr<Listener> weakListener = listener;
  socket->delegateOnOpen<Listener>(listener, [](Listener& self) { ++self.opens; });
  socket->delegateOnMessage<Listener>(listener, [](Listener&, const Message&) {});
  socket->delegateOnError<Listener>(listener, [](Listener&, const TransportError&,
                                                 const std::optional<HttpResponse>&) {});
  socket->connect();
  transports.last()->open();
  EXPECT_EQ(listener->opens, 1);
  listener.reset();
  EXPECT_TRUE(weakListener.expired());
  transports.last()->closeWith(1000);  // the callback of a released owner is skipped

  auto channel = socket->channel("room:1");
  std::weak_ptr<Socket> weakSocket = socket;
  std::weak_ptr<Channel> weakChannel = channel;
  channel.reset();
  socket->setHeartbeatInterval(0.001);
  socket.reset();
  EXPECT_TRUE(weakSocket.expired());
  EXPECT_TRUE(weakChannel.expired());
}

}  // namespace
}  // namespace vantor::realtime
