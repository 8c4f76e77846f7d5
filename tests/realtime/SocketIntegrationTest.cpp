#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/json/serialize.hpp>

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

std::vector<std::string> eventsOn(const PhoenixTestServer& server, std::string_view topic) {
  std::vector<std::string> events;
  for (const auto& frame : server.receivedFrames(topic)) {
    events.push_back(frame.event);
  }
  return events;
}

class SocketAgainstServer : public ::testing::Test {
 protected:
  PhoenixTestServer server;
  LogRecorder log;
};

TEST_F(SocketAgainstServer, BufferedPushesGoOutAfterTheOpenBeforeTheOpenCallbacksInOrderOnce) {
  auto socket = socketFor(server, &log, [] { return std::optional<Payload>(Payload{{"token", "abc"}}); });
  for (const auto* event : {"one", "two", "three"}) {
    socket->push("t", event, {}, socket->makeRef());
  }
  socket->onOpen([&] { socket->push("t", "from-open-callback", {}); });
  socket->connect();
  ASSERT_TRUE(server.waitForFrames("t", "from-open-callback", 1, 10s));
  std::this_thread::sleep_for(20ms);
  EXPECT_THAT(eventsOn(server, "t"), ElementsAre("one", "two", "three", "from-open-callback"));
  auto params = server.connectParams().at(0);
  EXPECT_EQ(params["vsn"], "2.0.0");
  EXPECT_EQ(params["token"], "abc");
  socket->disconnect();
}

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

TEST_F(SocketAgainstServer, AnsweredHeartbeatsKeepTheConnection) {
  auto socket = socketFor(server, &log);
  socket->setHeartbeatInterval(0.01);
  socket->connect();
  ASSERT_TRUE(eventually([&] { return server.heartbeatsReceived() >= 5; }));
  EXPECT_EQ(server.connectParams().size(), 1U);
  socket->disconnect();
}

TEST_F(SocketAgainstServer, RepeatedFailuresWalkTheBackOffAndAnOpenResetsIt) {
  server.refuseHandshake(503);
  std::mutex mutex;
  std::vector<int> attempts;
  std::vector<std::chrono::steady_clock::time_point> connectTimes;
  std::vector<int> statuses;
  auto socket = socketFor(server, &log);
  socket->setReconnectAfter([&](int tries) {
    std::lock_guard lock(mutex);
    attempts.push_back(tries);
    return 0.01 * tries;
  });
  socket->onError([&](const TransportError&, const std::optional<HttpResponse>& response) {
    std::lock_guard lock(mutex);
    connectTimes.push_back(std::chrono::steady_clock::now());
    statuses.push_back(response ? response->statusCode : 0);
  });
  socket->connect();
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return attempts.size() >= 4;
  }));
  server.refuseHandshake(std::nullopt);
  ASSERT_TRUE(waitUntilConnected(socket));
  {
    std::lock_guard lock(mutex);
    for (std::size_t i = 0; i < attempts.size(); ++i) {
      EXPECT_EQ(attempts[i], static_cast<int>(i) + 1);
      EXPECT_EQ(statuses.at(i), 503) << "each failure carries the refusal";
    }
    // A timer never fires early: each gap is at least its back-off.
    for (std::size_t i = 1; i < connectTimes.size() && i < attempts.size(); ++i) {
      EXPECT_GE(connectTimes[i] - connectTimes[i - 1],
                std::chrono::milliseconds(10 * attempts[i - 1]) - 1ms);
    }
    attempts.clear();
  }
  server.dropConnections();
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return !attempts.empty();
  }));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(attempts.front(), 1) << "a successful open resets the attempt count";
  }
  ASSERT_TRUE(waitUntilConnected(socket));
  socket->disconnect();
}

TEST_F(SocketAgainstServer, DisconnectClosesOnceNeverReconnectsAndCanConnectAgain) {
  auto socket = socketFor(server, &log);
  std::mutex mutex;
  std::vector<std::string> order;
  auto note = [&](std::string what) {
    std::lock_guard lock(mutex);
    order.push_back(std::move(what));
  };
  socket->onOpen([&] { note("open"); });
  socket->onClose([&] { note("close"); });
  socket->connect();
  ASSERT_TRUE(waitUntilConnected(socket));
  socket->disconnect(Socket::CloseCode::normal, [&] { note("callback"); });
  ASSERT_TRUE(server.waitForOpenConnections(0, 10s));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(server.connectParams().size(), 1U) << "no reconnect after disconnect";
  {
    std::lock_guard lock(mutex);
    EXPECT_THAT(order, ElementsAre("open", "close", "callback"));
  }
  socket->connect();
  ASSERT_TRUE(waitUntilConnected(socket));
  EXPECT_EQ(server.connectParams().size(), 2U);
  socket->disconnect();
}

TEST_F(SocketAgainstServer, EveryReconnectAsksForFreshParameters) {
  std::atomic<int> calls{0};
  auto socket = socketFor(server, &log, [&] {
    return std::optional<Payload>(Payload{{"attempt", ++calls}});
  });
  socket->connect();
  ASSERT_TRUE(server.waitForConnections(1, 10s));
  server.dropConnections();
  ASSERT_TRUE(server.waitForConnections(2, 10s));
  server.closeWith(1011);
  ASSERT_TRUE(server.waitForConnections(3, 10s));
  auto params = server.connectParams();
  ASSERT_GE(params.size(), 3U);
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
  ::testing::internal::CaptureStdout();
  server.sendRaw("not json");
  server.sendRaw("[1,2,3,4,5]");
  server.sendBinary("\x00\x01");
  server.sendRaw(R"([null,null,"t","news",{}])");
  ASSERT_TRUE(eventually([&] { return news == 1; }));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Data received. This method is unsupported by the Client\n");
  EXPECT_TRUE(log.contains("VantorPhoenixClient: receive: Unable to parse JSON: not json"));
  EXPECT_TRUE(log.contains("VantorPhoenixClient: receive: Unable to parse JSON: [1,2,3,4,5]"));
  EXPECT_EQ(server.openConnections(), 1U);
  socket->disconnect();
}

struct Owner {};

TEST_F(SocketAgainstServer, AReleasedSocketWithCallbacksIsFreedAndClosesItsConnection) {
  auto socket = socketFor(server, &log);
  auto owner = std::make_shared<Owner>();
  socket->delegateOnOpen<Owner>(owner, [](Owner&) {});
  socket->delegateOnMessage<Owner>(owner, [](Owner&, const Message&) {});
  socket->onClose([] {});
  socket->channel("room:1")->join();
  socket->setHeartbeatInterval(0.01);
  socket->connect();
  ASSERT_TRUE(server.waitForMembers("room:1", 1, 10s));
  std::weak_ptr<Socket> weakSocket = socket;
  std::weak_ptr<Owner> weakOwner = owner;
  owner.reset();
  socket.reset();
  // The loop may be holding either for a moment, for a heartbeat or a frame
  // it is handling; nothing else keeps them.
  EXPECT_TRUE(eventually([&] { return weakSocket.expired(); }));
  EXPECT_TRUE(eventually([&] { return weakOwner.expired(); }));
  EXPECT_TRUE(server.waitForOpenConnections(0, 10s));
}

TEST(SocketOverTls, JoinsOverWssWithTheServersCaTrusted) {
  auto certificates = vantor::testing::TestCertificates::generate();
  PhoenixTestServer server(PhoenixTestServer::Options{.tls = certificates});
  auto socket = socketFor(server, nullptr, nullptr, certificates.caCertificatePem);
  auto channel = socket->channel("room:tls");
  std::atomic<bool> joined{false};
  channel->join()->receive("ok", [&](const Message&) { joined = true; });
  socket->connect();
  ASSERT_TRUE(eventually([&] { return joined.load(); }));
  socket->disconnect();
}

}  // namespace
}  // namespace vantor::realtime
