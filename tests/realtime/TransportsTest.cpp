// What the socket does over either transport, WebSocket and long-poll,
// against the bundled server: channels, pushes, broadcasts and presence; a
// restart, a freeze, 2,000 channels and the auth token. Then the fallback
// from WebSocket to long-poll behind a proxy that refuses upgrades.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>

#include "support/Eventually.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/FallbackTransport.hpp"
#include "vantor/realtime/LongPollTransport.hpp"
#include "vantor/realtime/Presence.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"
#include "vantor/testing/TestCertificates.hpp"
#include "vantor/testing/UpgradeRefusingProxy.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;
using vantor::testing::UpgradeRefusingProxy;

enum class Kind { webSocket, longPoll };

// A socket for `url` over the transport, with test-sized back-offs.
std::shared_ptr<Socket> socketOver(Kind kind, const std::string& url, Socket::ParamsClosure params = nullptr,
                                   std::optional<std::string> caPem = std::nullopt) {
  URLSessionConfiguration configuration;
  if (caPem) {
    configuration.additionalCertificateAuthorities.push_back(*caPem);
  }
  configuration.proxy = platform::ProxySettings::none();
  configuration.handshakeTimeout = 500ms;
  auto socket = Socket::make(
      url,
      [kind, configuration](const boost::urls::url& endpoint) -> std::shared_ptr<PhoenixTransport> {
        if (kind == Kind::longPoll) {
          return LongPollTransport::make(endpoint, configuration);
        }
        return URLSessionTransport::make(endpoint, configuration);
      },
      std::move(params));
  socket->setReconnectAfter([](std::int64_t) { return 0.02; });
  socket->setRejoinAfter([](std::int64_t) { return 0.02; });
  return socket;
}

class OverEitherTransport : public ::testing::TestWithParam<Kind> {};

TEST_P(OverEitherTransport, ChannelsPushesBroadcastsAndPresence) {
  PhoenixTestServer server;
  auto alice = socketOver(GetParam(), server.url());
  auto bob = socketOver(GetParam(), server.url());
  auto aliceRoom = alice->channel("room:1", {{"user_id", "alice"}});
  auto bobRoom = bob->channel("room:1", {{"user_id", "bob"}});
  auto alicePresence = Presence::make(aliceRoom);
  std::atomic<int> bobHeard{0};
  bobRoom->on("broadcast", [&](const Message& message) {
    bobHeard += message.payload().at("n").as_int64() == 7 ? 1 : 100;
  });
  aliceRoom->join();
  bobRoom->join();
  alice->connect();
  bob->connect();
  ASSERT_TRUE(eventually([&] { return aliceRoom->isJoined() && bobRoom->isJoined(); }));
  ASSERT_TRUE(eventually([&] { return alicePresence->list().size() == 2; }));

  std::atomic<int> replies{0};
  aliceRoom->push("echo", {{"body", "hello"}})->receive("ok", [&](const Message& reply) {
    replies += reply.payload().at("body") == "hello" ? 1 : 100;
  });
  aliceRoom->push("broadcast", {{"n", 7}});
  ASSERT_TRUE(eventually([&] { return replies == 1 && bobHeard == 1; })) << replies << " " << bobHeard;

  // A long-poll session that stops polling lingers on the server a while;
  // leaving is what ends the presence at once, over either.
  bobRoom->leave();
  ASSERT_TRUE(eventually([&] { return alicePresence->list().size() == 1; }));
  bob->disconnect();
  alice->disconnect();
}

TEST_P(OverEitherTransport, AfterARestartPushesMadeDuringTheOutageArriveOnce) {
  auto server = std::make_unique<PhoenixTestServer>();
  const auto port = server->port();
  auto socket = socketOver(GetParam(), server->url());
  auto channel = socket->channel("room:1");
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  std::atomic<int> replies{0};
  server->shutDown();
  ASSERT_TRUE(eventually([&] { return !channel->isJoined(); }));
  for (int i = 0; i < 3; ++i) {
    channel->push("echo", {{"i", i}})->receive("ok", [&](const Message&) { ++replies; });
  }
  server = std::make_unique<PhoenixTestServer>(PhoenixTestServer::Options{.port = port});
  ASSERT_TRUE(eventually([&] { return channel->isJoined() && replies == 3; }));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(replies, 3);
  EXPECT_EQ(server->countReceived("room:1", "echo"), 3u);
  socket->disconnect();
}

TEST_P(OverEitherTransport, AFrozenNetworkIsNoticedWithinTwoHeartbeatsAndAPushMadeMeanwhileGoesOutOnce) {
  PhoenixTestServer server;
  FaultProxy proxy({.targetPort = server.port()});
  testing::LogRecorder log;
  auto socket = socketOver(GetParam(), proxy.url("/socket"));
  socket->setHeartbeatInterval(0.3);
  socket->setLogger(log.logger());
  std::atomic<int> errors{0};
  auto channel = socket->channel("room:1");
  channel->onError([&](const Message&) { ++errors; });
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  const auto frozenAt = std::chrono::steady_clock::now();
  proxy.freeze();
  ASSERT_TRUE(eventually([&] { return errors >= 1; }, 10s)) << "the freeze went unnoticed";
  EXPECT_LT(std::chrono::steady_clock::now() - frozenAt, 2.6s) << "within two heartbeats and 2 s";
  EXPECT_TRUE(log.contains(
      "VantorPhoenixClient: transport, heartbeat timeout. Attempting to re-establish connection"));
  std::atomic<int> outcomes{0};
  channel->push("echo", {})
      ->receive("ok", [&](const Message&) { ++outcomes; })
      ->receive("timeout", [&](const Message&) { outcomes += 100; });
  std::this_thread::sleep_for(700ms);  // reconnect attempts hang and time out meanwhile
  proxy.unfreeze();
  ASSERT_TRUE(eventually([&] { return channel->isJoined() && outcomes == 1; })) << outcomes;
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(outcomes, 1);
  EXPECT_EQ(server.countReceived("room:1", "echo"), 1u);
  socket->disconnect();
}

TEST_P(OverEitherTransport, TwoThousandChannelsJoinAndHearTheirBroadcasts) {
  PhoenixTestServer server({.presence = false, .recordConnections = false});
  auto socket = socketOver(GetParam(), server.url());
  std::vector<std::shared_ptr<Channel>> channels;
  std::atomic<int> heard{0};
  for (int i = 0; i < 2000; ++i) {
    auto channel = socket->channel("room:" + std::to_string(i));
    channel->on("tick", [&](const Message&) { ++heard; });
    channel->join();
    channels.push_back(std::move(channel));
  }
  socket->connect();
  ASSERT_TRUE(eventually([&] {
    return std::all_of(channels.begin(), channels.end(), [](const auto& c) { return c->isJoined(); });
  }, 60s));
  for (int i = 0; i < 2000; i += 100) {
    server.broadcast("room:" + std::to_string(i), "tick", {});
  }
  ASSERT_TRUE(eventually([&] { return heard == 20; }));
  socket->disconnect();
}

TEST_P(OverEitherTransport, TheAuthTokenArrivesByteForByteAndNeverInTheUrl) {
  PhoenixTestServer server;
  auto socket = socketOver(GetParam(), server.url());
  // One, two and three bytes end the base64 text in each of its three ways.
  std::vector<std::string> tokens = {"a", "ab", "abc", "SFMyNTY.g+/=&# é"};
  if (GetParam() == Kind::webSocket) {
    // Long-poll carries the token in a header, where control characters cannot go.
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte) {
      everyByte += static_cast<char>(byte);
    }
    tokens.push_back(everyByte);
  }
  auto channel = socket->channel("room:1");
  channel->join();
  for (std::size_t i = 0; i <= tokens.size(); ++i) {
    socket->setAuthToken(i < tokens.size() ? std::optional(tokens[i]) : std::nullopt);
    socket->connect();
    ASSERT_TRUE(eventually([&] { return channel->isJoined(); })) << "token " << i;
    socket->disconnect();
  }
  const auto received = server.authTokens();
  ASSERT_EQ(received.size(), tokens.size() + 1);
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    EXPECT_EQ(received[i], tokens[i]) << "token " << i;
  }
  EXPECT_EQ(received.back(), std::nullopt) << "no token, none sent";
  for (const auto& params : server.connectParams()) {
    EXPECT_EQ(params.size(), 1u) << "only vsn is in the query";
  }
}

// Polls and sends each keep their connection, TLS and all, between
// requests. The server closing an idle one, or timing a request out
// ({"status":408}, before acting on it), costs a new connection or the same
// request again, never the session.
TEST(LongPoll, ASessionOutlivesIdleClosesAndTimedOutRequestsOnFewConnections) {
  const auto certificates = vantor::testing::TestCertificates::generate();
  PhoenixTestServer server({.tls = certificates, .httpKeepAlive = 300ms});
  FaultProxy proxy({.targetPort = server.port()});
  auto socket = socketOver(Kind::longPoll, "wss://localhost:" + std::to_string(proxy.port()) + "/socket", nullptr,
                           certificates.caCertificatePem);
  std::atomic<int> errors{0};
  socket->onError([&](const TransportError&, const std::optional<HttpResponse>&) { ++errors; });
  auto channel = socket->channel("room:1");
  channel->join();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  std::atomic<int> replies{0};
  auto pushes = [&](int count) {
    const int expected = replies + count;
    for (int i = 0; i < count; ++i) {
      channel->push("echo", {{"i", i}})->receive("ok", [&](const Message&) { ++replies; });
    }
    return eventually([&] { return replies == expected; });
  };
  ASSERT_TRUE(pushes(10));
  EXPECT_LE(proxy.connectionCount(), 3u) << "one for polls, one for sends, and maybe the opening request's";
  const auto connections = proxy.connectionCount();

  std::this_thread::sleep_for(500ms);  // the server closes the idle send connection
  ASSERT_TRUE(pushes(1));
  EXPECT_EQ(proxy.connectionCount(), connections + 1);

  std::this_thread::sleep_for(100ms);  // a poll is held; the next requests are the sends
  server.timeOutLongPollRequests(3);
  ASSERT_TRUE(pushes(2));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(replies, 13);
  EXPECT_EQ(server.countReceived("room:1", "echo"), 13u);
  EXPECT_EQ(errors, 0);
  EXPECT_EQ(server.connectParams().size(), 1u) << "the session ended";
  socket->disconnect();
}

INSTANTIATE_TEST_SUITE_P(Transports, OverEitherTransport, ::testing::Values(Kind::webSocket, Kind::longPoll),
                         [](const auto& info) { return info.param == Kind::webSocket ? "WebSocket" : "LongPoll"; });

// Behind a proxy that refuses upgrades: in front of the server, and as the
// HTTP proxy the environment names.
class Fallback : public ::testing::TestWithParam<bool> {};

TEST_P(Fallback, GoesToLongPollWhenTheUpgradeIsRefusedAndStaysThere) {
  const bool asHttpProxy = GetParam();
  PhoenixTestServer server;
  UpgradeRefusingProxy proxy({.targetPort = server.port()});
  URLSessionConfiguration configuration;
  // The environment of a shell whose http_proxy names the proxy.
  const auto proxyUrl = proxy.url();
  configuration.proxy = asHttpProxy ? platform::ProxySettings::fromEnvironment([proxyUrl](std::string_view name) {
    return name == "http_proxy" ? std::optional<std::string>(proxyUrl) : std::nullopt;
  })
                                    : platform::ProxySettings::none();
  auto choice = std::make_shared<FallbackTransport::Choice>();
  const auto url = asHttpProxy ? server.url() : "ws://127.0.0.1:" + std::to_string(proxy.port()) + "/socket";
  auto socket = Socket::make(url, FallbackTransport::factory(configuration, choice));
  socket->setReconnectAfter([](std::int64_t) { return 0.02; });
  std::atomic<int> errors{0};
  socket->onError([&](const TransportError&, const std::optional<HttpResponse>&) { ++errors; });
  auto channel = socket->channel("room:1");
  channel->join();
  const auto started = std::chrono::steady_clock::now();
  socket->connect();
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  std::printf("joined over long-poll %.3f s after connect()\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  EXPECT_TRUE(choice->longPoll);
  EXPECT_EQ(errors, 0) << "the failed upgrade reached the application";
  EXPECT_EQ(proxy.upgradesRefused(), 1u);

  // A reconnect goes straight to long-poll.
  server.dropConnections();
  ASSERT_TRUE(eventually([&] { return !channel->isJoined(); }));
  ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  EXPECT_EQ(proxy.upgradesRefused(), 1u);
  socket->disconnect();
}

INSTANTIATE_TEST_SUITE_P(Proxies, Fallback, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "AsTheHttpProxy" : "InFrontOfTheServer"; });

}  // namespace
}  // namespace vantor::realtime
