// Connection features against the bundled server: a handshake answered
// without the auth token's subprotocol, permessage-deflate, metrics and the
// buffered amount.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::socketFor;
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;
using ::testing::HasSubstr;

// The server answers a token with no subprotocol, or with another one.
TEST(AuthToken, AHandshakeAnsweredWithoutItsSubprotocolFailsAndIsRetried) {
  using Answer = std::optional<std::string>;
  for (const Answer& answer : {Answer(), Answer("mqtt")}) {
    SCOPED_TRACE(answer.value_or("no subprotocol"));
    PhoenixTestServer server({.subprotocolAnswer = [answer](const auto&) { return answer; }});
    auto socket = socketFor(server);
    socket->setAuthToken("secret");
    std::mutex mutex;
    std::vector<std::pair<std::string, int>> errors;
    std::atomic<int> opens{0};
    socket->onError([&](const TransportError& error, const std::optional<HttpResponse>& response) {
      std::lock_guard lock(mutex);
      errors.emplace_back(error.description, response ? response->statusCode : 0);
    });
    socket->onOpen([&] { ++opens; });
    socket->connect();
    ASSERT_TRUE(eventually([&] {
      std::lock_guard lock(mutex);
      return errors.size() >= 3;
    }));
    socket->disconnect();
    std::lock_guard lock(mutex);
    EXPECT_EQ(opens, 0);
    for (const auto& [description, status] : errors) {
      EXPECT_THAT(description, HasSubstr("Protocol error"));
      EXPECT_EQ(status, 101) << "the server's answer comes with the error";
    }
  }
}

// Frames compressed without agreement would not decode on the other side, so
// the echoes of the one-sided cases show that neither side compressed.
TEST(PerMessageDeflate, ShrinksFramesBothWaysWhenBothSidesTakeItUp) {
  struct Case {
    bool serverCompresses;
    bool clientOffers;
    FaultProxy::ByteCounts bytes;
  };
  std::vector<Case> cases = {{false, false, {}}, {true, true, {}}, {false, true, {}}, {true, false, {}}};
  const boost::json::object payload{{"text", std::string(16 * 1024, 'x')}};
  for (auto& c : cases) {
    PhoenixTestServer server({.presence = false, .compress = c.serverCompresses});
    FaultProxy proxy({.targetPort = server.port()});
    URLSessionConfiguration configuration;
    configuration.perMessageDeflate = c.clientOffers;
    auto socket = Socket::make(proxy.url("/socket"),
                               [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
                                 return URLSessionTransport::make(url, configuration);
                               });
    auto channel = socket->channel("room:deflate");
    channel->join();
    socket->connect();
    ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
    std::atomic<int> echoed{0};
    for (int i = 0; i < 4; ++i) {
      channel->push("echo", payload)->receive("ok", [&](const Message& reply) {
        if (reply.payload() == payload) {
          ++echoed;
        }
      });
    }
    ASSERT_TRUE(eventually([&] { return echoed == 4; }))
        << "server " << c.serverCompresses << ", client " << c.clientOffers;
    socket->disconnect();
    c.bytes = proxy.bytesForwarded();
  }
  const auto& plain = cases[0].bytes;
  const auto& compressed = cases[1].bytes;
  EXPECT_LT(compressed.towardsServer * 10, plain.towardsServer);
  EXPECT_LT(compressed.towardsClient * 10, plain.towardsClient);
}

TEST(ConnectionMetrics, CountWhatHappensOnlyWhileCollecting) {
  PhoenixTestServer server;
  auto socket = socketFor(server);
  socket->setHeartbeatInterval(0.1);
  std::mutex mutex;
  std::vector<std::chrono::nanoseconds> roundTrips;
  socket->onHeartbeatRoundTrip([&](std::chrono::nanoseconds roundTrip) {
    std::lock_guard lock(mutex);
    roundTrips.push_back(roundTrip);
  });
  auto channel = socket->channel("room:metrics");
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  EXPECT_EQ(socket->metrics().framesOut, 0U) << "nothing is counted before collecting starts";

  socket->setCollectsMetrics(true);
  std::atomic<int> outcomes{0};
  auto count = [&](const Message&) { ++outcomes; };
  for (int i = 0; i < 3; ++i) {
    channel->push("echo", {{"i", i}})->receive("ok", count);
  }
  for (int i = 0; i < 2; ++i) {
    channel->push("fail", {})->receive("error", count);
  }
  channel->push("noreply", {}, 0.05)->receive("timeout", count);
  ASSERT_TRUE(eventually([&] { return outcomes == 6; }));
  server.closeAndDrop(1012);
  ASSERT_TRUE(eventually([&] { return socket->metrics().rejoins >= 1 && channel->isJoined(); }));
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return !roundTrips.empty();
  }));

  const auto metrics = socket->metrics();
  // A stalled machine may add a heartbeat time-out, and with it a reconnect
  // and a rejoin; each rejoin is answered "ok".
  EXPECT_GE(metrics.reconnects, 1U);
  EXPECT_GE(metrics.rejoins, 1U);
  EXPECT_GE(metrics.pushesOk, 4U) << "three echoes and a rejoin";
  EXPECT_LE(metrics.pushesOk, 3 + metrics.rejoins);
  EXPECT_EQ(metrics.pushesError, 2U);
  EXPECT_EQ(metrics.pushesTimeout, 1U);
  EXPECT_GE(metrics.framesOut, 7U);
  EXPECT_GE(metrics.framesIn, 6U);
  EXPECT_GT(metrics.bytesOut, metrics.framesOut * 30);
  EXPECT_GT(metrics.bytesIn, metrics.framesIn * 30);
  socket->disconnect();
  std::lock_guard lock(mutex);
  for (const auto roundTrip : roundTrips) {
    EXPECT_GT(roundTrip.count(), 0);
    EXPECT_LT(roundTrip, 10s);
  }
}

// What a producer reads to pace itself: frames held while disconnected, then
// everything a frozen network has not taken, back to zero once it has.
TEST(BufferedAmount, CountsWhatTheNetworkHasNotTakenAndFallsToZeroOnceItLeaves) {
  PhoenixTestServer server;
  FaultProxy proxy{{.targetPort = server.port()}};
  auto socket = Socket::make(proxy.url("/socket"));
  auto channel = socket->channel("room:buffered");
  channel->join();
  EXPECT_GT(socket->bufferedAmount(), 0U) << "the join waits for the connection";
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  ASSERT_TRUE(eventually([&] { return socket->bufferedAmount() == 0; }));

  proxy.freeze();
  // 16 MiB: more than the kernel's buffers and the frozen proxy take in.
  constexpr int blocks = 64;
  const std::string block(256 * 1024, 'x');
  std::atomic<int> echoed{0};
  for (int i = 0; i < blocks; ++i) {
    channel->push("echo", {{"block", block}}, 60.0)->receive("ok", [&](const Message&) { ++echoed; });
  }
  ASSERT_TRUE(eventually([&] { return socket->bufferedAmount() > 0; }));
  std::this_thread::sleep_for(200ms);
  EXPECT_GT(socket->bufferedAmount(), block.size()) << "nothing leaves while the network is frozen";
  EXPECT_EQ(echoed, 0);

  proxy.unfreeze();
  ASSERT_TRUE(eventually([&] { return echoed == blocks; }, 60s));
  EXPECT_EQ(socket->bufferedAmount(), 0U);
  socket->disconnect();
}

}  // namespace
}  // namespace vantor::realtime
