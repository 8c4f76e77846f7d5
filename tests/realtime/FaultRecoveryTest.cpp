// Recovery from real faults: a socket and a channel talk to the bundled
// server through a proxy that slows connections, while the server
// refuses, stalls and closes (resets, cut frames and idle closes are the
// soak's). After each fault the socket must reconnect on its back-off, the
// channel rejoin, and every push get exactly one outcome.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::LogRecorder;
using vantor::testing::FaultProxy;
using vantor::testing::PhoenixTestServer;

constexpr double heartbeatInterval = 0.3;
constexpr double pushTimeout = 2.0;

class Recovery : public ::testing::Test {
 protected:
  void SetUp() override {
    URLSessionConfiguration configuration;
    configuration.handshakeTimeout = 500ms;
    socket = Socket::make(proxy.url("/socket"),
                          [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
                            return URLSessionTransport::make(url, configuration);
                          });
    socket->setHeartbeatInterval(heartbeatInterval);
    socket->setReconnectAfter([](int) { return 0.05; });
    socket->setRejoinAfter([](int) { return 0.05; });
    socket->setLogger(log.logger());
    socket->onClose([this] { ++closes; });
    socket->onError([this](const TransportError&, const std::optional<HttpResponse>& response) {
      std::lock_guard lock(mutex);
      errorStatuses.push_back(response ? response->statusCode : 0);
    });
    channel = socket->channel("room:1");
    channel->join();
    socket->connect();
    ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
    push();
    ASSERT_TRUE(eventually([&] { return outcomeCount() == 1; }));
  }

  void TearDown() override { socket->disconnect(); }

  // Pushes an echo and writes down every outcome it gets.
  void push() {
    const int id = pushes++;
    auto note = [this, id](const std::string& what) {
      return [this, id, what](const Message&) {
        std::lock_guard lock(mutex);
        outcomes[id].push_back(what);
      };
    };
    channel->push("echo", {{"id", id}}, pushTimeout)
        ->receive("ok", note("ok"))
        ->receive("error", note("error"))
        ->receive("timeout", note("timeout"));
  }

  std::size_t outcomeCount() {
    std::lock_guard lock(mutex);
    std::size_t count = 0;
    for (const auto& [id, seen] : outcomes) {
      count += seen.size();
    }
    return count;
  }

  // Waits until every push has an outcome, gives duplicates time to show,
  // and checks that each push had exactly one.
  void expectEachPushAnsweredOnce() {
    ASSERT_TRUE(eventually([&] {
      std::lock_guard lock(mutex);
      return outcomes.size() == static_cast<std::size_t>(pushes);
    })) << "a push without an outcome";
    std::this_thread::sleep_for(100ms);
    std::lock_guard lock(mutex);
    for (const auto& [id, seen] : outcomes) {
      EXPECT_EQ(seen.size(), 1U) << "push " << id << " had " << ::testing::PrintToString(seen);
      EXPECT_NE(seen.front(), "error") << "push " << id;
    }
  }

  // The channel is joined again, by a new connection, and works.
  void expectRecovered(std::size_t connectionsBefore) {
    ASSERT_TRUE(eventually([&] { return channel->isJoined() && socket->isConnected(); }));
    EXPECT_GT(proxy.connectionCount(), connectionsBefore);
    push();
    expectEachPushAnsweredOnce();
    EXPECT_EQ(server.memberCount("room:1"), 1U);
  }

  PhoenixTestServer server;
  FaultProxy proxy{{.targetPort = server.port()}};
  LogRecorder log;
  std::shared_ptr<Socket> socket;
  std::shared_ptr<Channel> channel;
  std::atomic<int> closes{0};
  std::mutex mutex;
  std::vector<int> errorStatuses;
  std::map<int, std::vector<std::string>> outcomes;
  int pushes = 0;
};

// The last three also fail the reconnects until the server answers again.
enum class Fault { malformedFrame, refused, stalledHandshake, closedAfterUpgrade };

class RecoveryFrom : public Recovery, public ::testing::WithParamInterface<std::pair<const char*, Fault>> {};

TEST_P(RecoveryFrom, TheSocketReconnectsTheChannelRejoinsAndEveryPushIsAnsweredOnce) {
  const auto connectionsBefore = proxy.connectionCount();
  const auto closesBefore = closes.load();
  const auto fault = GetParam().second;
  switch (fault) {
    case Fault::malformedFrame:
      socket->setEncoder([](const boost::json::value& frame) {
        return frame.as_array()[3].as_string() == "garble" ? std::string("[1,") : Defaults::encode(frame);
      });
      channel->push("garble", {}, 0.2);
      break;
    case Fault::refused: server.refuseHandshake(403); break;
    case Fault::stalledHandshake: server.stallHandshakes(true); break;
    case Fault::closedAfterUpgrade: server.closeAfterUpgrade(1011); break;
  }
  const bool failsReconnects = fault >= Fault::refused;
  if (failsReconnects) {
    server.dropConnections();
  }
  push();
  ASSERT_TRUE(eventually([&] { return closes > closesBefore; }));
  // Failed reconnects are retried.
  if (fault == Fault::refused) {
    ASSERT_TRUE(eventually([&] {
      std::lock_guard lock(mutex);
      return std::count(errorStatuses.begin(), errorStatuses.end(), 403) >= 2;
    }));
  } else if (fault == Fault::stalledHandshake) {
    ASSERT_TRUE(eventually([&] { return server.webSocket().handshakeTargets().size() >= 3; }));
  } else if (fault == Fault::closedAfterUpgrade) {
    ASSERT_TRUE(server.waitForConnections(3, 20s));
  }
  if (failsReconnects) {
    server.acceptHandshakes();
  }
  expectRecovered(connectionsBefore);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, RecoveryFrom,
    ::testing::Values(std::pair("ServerClose1011AfterAMalformedFrame", Fault::malformedFrame),
                      std::pair("Handshake403", Fault::refused),
                      std::pair("HandshakeNeverAnswered", Fault::stalledHandshake),
                      std::pair("ClosedRightAfterUpgrade", Fault::closedAfterUpgrade)),
    [](const auto& info) { return std::string(info.param.first); });

TEST_F(Recovery, ASlowNetworkDelaysTrafficButLosesNothing) {
  const auto connectionsBefore = proxy.connectionCount();
  proxy.delay(20ms);
  proxy.trickle(512, 5ms);
  for (int n = 0; n < 20; ++n) {
    push();
  }
  expectEachPushAnsweredOnce();
  EXPECT_EQ(proxy.connectionCount(), connectionsBefore) << "no reconnect was needed";
  EXPECT_TRUE(channel->isJoined());
}

}  // namespace
}  // namespace vantor::realtime
