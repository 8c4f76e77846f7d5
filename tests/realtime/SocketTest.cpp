#include "vantor/realtime/Socket.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/url/encoding_opts.hpp>
#include <cstdint>
#include <limits>
#include <map>
#include <thread>

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
using platform::EventLoop;
using testing::eventually;
using testing::FakeTransports;
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

  FakeTransports transports;
  for (auto [endpoint, protocol] : {std::pair{"https://h/socket", "wss"}, {"http://h/socket", "ws"},
                                    {"ws://h/socket", "ws"}, {"wss://h/socket", "wss"}, {"/socket", ""}}) {
    EXPECT_EQ(Socket::make(endpoint, transports.factory())->websocketProtocol(), protocol) << endpoint;
  }
}

TEST(SocketEndpoint, EveryParameterByteSurvivesAFormDecoder) {
  const std::string token = "ab+/c=d&e#f g\xc3\xa9\xe2\x82\xac%20?";
  auto url = Socket::buildEndpointUrl(
      "wss://h/socket", [&] { return std::optional<Payload>({{"token", token}, {"k+&=", "v"}}); },
      "2.0.0");
  EXPECT_FALSE(url.has_fragment());
  // A form decoder reads "+" as a space, so a literal "+" must be escaped.
  std::map<std::string, std::string> fields;
  for (const auto& param : url.params(boost::urls::encoding_opts(true, false, false))) {
    fields[param.key] = param.value;
  }
  EXPECT_EQ(fields, (std::map<std::string, std::string>{{"vsn", "2.0.0"}, {"token", token}, {"k+&=", "v"}}));
}

TEST(SocketEndpointDeathTest, AnEndpointThatDoesNotParseStopsTheProcess) {
  EXPECT_DEATH(Socket::buildEndpointUrl("ws://bad host/socket", nullptr, "2.0.0"),
               "Malformed URL: ws://bad host/socket");
  // Read naively, this names the host 127.0.0.1 with the path ".evil.test/".
  EXPECT_DEATH(Socket::buildEndpointUrl("ws://127.0.0.1.evil.test/socket", nullptr, "2.0.0"),
               "Malformed URL: ws://127.0.0.1.evil.test/socket");
}

TEST(SocketDeathTest, OnAHostRunLoopNothingWaitsForTheLoopBeforeItRuns) {
  // In a fresh child process, before anything has used the loop.
  EXPECT_EXIT(
      {
        FakeTransports transports;
        EventLoop::useHostThreadForMain();
        // The host's own calls act at once, before run().
        auto socket = Socket::make("ws://h/socket", transports.factory());
        socket->setHeartbeatInterval(0.01);
        socket->connect();
        transports.last()->open();
        auto channel = socket->channel("room:1");
        channel->join();
        const bool sent = transports.last()->sent().size() == 1;
        // Releasing a connected socket, here and on another thread, does not
        // wait for a loop that is not running.
        auto other = Socket::make("ws://h/socket", transports.factory());
        other->connect();
        transports.last()->open();
        std::thread([other = std::move(other)]() mutable { other.reset(); }).join();
        socket.reset();
        channel.reset();
        std::exit(sent ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
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

using SocketWithFakeTransport = testing::SocketOnFakeTransports;

TEST_F(SocketWithFakeTransport, BuffersPushesUntilOpenAndFlushesThemBeforeTheOpenCallbacks) {
  socket->push("t", "first", {{"a", 1}}, "r1");
  socket->push("t", "withdrawn", {}, "r2");
  socket->push("t", "second", {}, std::nullopt, "j1");
  socket->removeFromSendBuffer("r2");
  // Frames are encoded when sent, so an encoder set now applies to them.
  socket->setEncoder([](const boost::json::value& value) {
    return "X" + Defaults::encode(value);
  });
  std::vector<std::string> sentAtOpen;
  socket->onOpen([&] { sentAtOpen = transports.last()->sent(); });
  auto transport = open();
  EXPECT_THAT(sentAtOpen, ElementsAre(R"(X[null,"r1","t","first",{"a":1}])",
                                      R"(X["j1",null,"t","second",{}])"));
  EXPECT_EQ(transport->sent().size(), 2U) << "each buffered frame is sent exactly once";
  EXPECT_TRUE(log.contains(R"(VantorPhoenixClient: push, Sending X[null,"r1","t","first",{"a":1}])"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: transport, Connected to ws://h/socket"));
  socket->connect();
  EXPECT_EQ(transports.count(), 1U) << "connect does nothing while connected";
}

TEST_F(SocketWithFakeTransport, AnUnexpectedCloseOrAFailureReconnectsOnTheBackOff) {
  std::vector<std::string> order;
  socket->onError([&](const TransportError& error, const std::optional<HttpResponse>& response) {
    order.push_back(error.description + ":" + std::to_string(response ? response->statusCode : 0));
  });
  socket->onClose([&] { order.push_back("close"); });
  auto transport = open();
  transport->closeWith(1006);
  ASSERT_TRUE(eventually([&] { return transports.count() == 2; }));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: Socket reconnecting in 0.01s"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: Socket attempting to reconnect"));
  EXPECT_EQ(transport->disconnectCodes().at(0), 1000) << "the old transport is torn down";
  order.clear();
  transports.last()->fail("handshake refused", HttpResponse{403, "Forbidden", {}, ""});
  EXPECT_THAT(order, ElementsAre("handshake refused:403", "close"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: transport, handshake refused, HTTP 403 Forbidden"));
  ASSERT_TRUE(eventually([&] { return transports.count() == 3; }));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: Socket reconnecting in 0.05s"));
  transports.last()->open();
  transports.last()->closeWith(1000);
  ASSERT_TRUE(eventually([&] { return transports.count() == 4; }));
  EXPECT_EQ(log.count("VantorPhoenixClient: Socket reconnecting in 0.01s"), 2U)
      << "an open resets the attempt count";
  socket->disconnect();
}

TEST_F(SocketWithFakeTransport, OffRemovesFromWhicheverListHoldsTheReference) {
  int opens = 0;
  int messages = 0;
  socket->onOpen([&] { ++opens; });
  auto messageRef = socket->onMessage([&](const Message&) { ++messages; });
  socket->off({messageRef, "unknown"});
  open()->receive(R"([null, null, "t", "e", {}])");
  EXPECT_EQ(opens, 1);
  EXPECT_EQ(messages, 0);
}

}  // namespace
}  // namespace vantor::realtime
