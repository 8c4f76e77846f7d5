#include "vantor/testing/WebSocketTestServer.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "BlockingClient.hpp"

namespace vantor::testing {
namespace {

using namespace std::chrono_literals;
using Kind = BlockingClient::Frame::Kind;

// Generous: only there to turn a hang into a failure.
constexpr auto kWait = 5s;

TEST(WebSocketTestServer, EchoesTextAndRecordsFramesAndTargets) {
  WebSocketTestServer server;
  EXPECT_EQ(server.url("/a?b=c"), "ws://127.0.0.1:" + std::to_string(server.port()) + "/a?b=c");
  BlockingClient client(server.url("/chat?token=abc"));
  ASSERT_TRUE(server.waitForConnections(1, kWait));
  EXPECT_EQ(server.openConnections(), 1U);

  client.sendText("hello");
  auto echo = client.read();
  EXPECT_EQ(echo.kind, Kind::text);
  EXPECT_EQ(echo.data, "hello");
  client.sendBinary(std::string("\0\1", 2));
  client.sendText("second");
  ASSERT_TRUE(server.waitForReceived(2, kWait));
  EXPECT_EQ(server.receivedTexts(), (std::vector<std::string>{"hello", "second"}));
  EXPECT_EQ(server.receivedBinaries(), (std::vector<std::string>{std::string("\0\1", 2)}));
  EXPECT_EQ(server.handshakeTargets(), (std::vector<std::string>{"/chat?token=abc"}));
}

TEST(WebSocketTestServer, SendsToAllOrToOneConnection) {
  WebSocketTestServer server({.echo = false});
  BlockingClient first(server.url());
  BlockingClient second(server.url());
  ASSERT_TRUE(server.waitForConnections(2, kWait));

  server.sendTextTo(1, "only the second");
  server.sendBinary("bytes");
  server.sendText("everyone");
  auto direct = second.read();
  EXPECT_EQ(direct.kind, Kind::text);
  EXPECT_EQ(direct.data, "only the second");
  for (auto* client : {&first, &second}) {
    auto binary = client->read();
    EXPECT_EQ(binary.kind, Kind::binary);
    EXPECT_EQ(binary.data, "bytes");
    EXPECT_EQ(client->read().data, "everyone");
  }
  // Sends to a connection that does not exist are ignored.
  server.sendTextTo(7, "nobody");
  first.sendText("no echo");
  server.sendText("after");
  EXPECT_EQ(first.read().data, "after");
}

TEST(WebSocketTestServer, ClosesWithTheGivenCodeAndRecordsClientCloses) {
  WebSocketTestServer server;
  // No waiting in between: what a client has seen happen, the server has
  // recorded, so a test may act on it at once.
  BlockingClient closedByServer(server.url());
  server.closeWith(4001, "bye");
  auto frame = closedByServer.read();
  EXPECT_EQ(frame.kind, Kind::close);
  EXPECT_EQ(frame.code, 4001);
  EXPECT_EQ(frame.data, "bye");

  BlockingClient closingClient(server.url());
  closingClient.close(4002);
  auto closes = server.receivedCloseFrames();
  ASSERT_EQ(closes.size(), 1U);
  EXPECT_EQ(closes[0].connection, 1U);
  EXPECT_EQ(closes[0].code, 4002);
  EXPECT_TRUE(server.waitForOpenConnections(0, kWait));
}

TEST(WebSocketTestServer, RefusesHandshakesWithTheGivenStatusUntilToldOtherwise) {
  WebSocketTestServer server;
  server.refuseHandshake(403);
  try {
    BlockingClient refused(server.url("/denied"));
    FAIL() << "the handshake should have been refused";
  } catch (const BlockingClient::HandshakeError& e) {
    EXPECT_EQ(e.httpStatus, 403);
  }
  server.refuseHandshake(std::nullopt);
  BlockingClient accepted(server.url("/welcome"));
  EXPECT_TRUE(server.waitForConnections(1, kWait));
  EXPECT_EQ(server.handshakeTargets(), (std::vector<std::string>{"/denied", "/welcome"}));
}

TEST(WebSocketTestServer, SurvivesClientsThatMisbehaveBeforeTheUpgrade) {
  for (bool tls : {false, true}) {
    SCOPED_TRACE(tls ? "wss" : "ws");
    WebSocketTestServer::Options options;
    std::optional<std::string> ca;
    if (tls) {
      auto certs = TestCertificates::generate();
      ca = certs.caCertificatePem;
      options.tls = std::move(certs);
    }
    WebSocketTestServer server(std::move(options));
    sendRawAndClose(server.port(), "");
    sendRawAndClose(server.port(), "\x16\x03\x01 garbage that is neither TLS nor HTTP\r\n\r\n");
    sendRawAndClose(server.port(), "GET /websocket HTTP/1.1\r\nHost: x\r\nUpgr");
    sendRawAndClose(server.port(), "GET / HTTP/1.1\r\nHost: x\r\n\r\n");

    BlockingClient client(server.url(), {.trustedCaPem = ca});
    client.sendText("still serving");
    EXPECT_EQ(client.read().data, "still serving");
    EXPECT_EQ(server.connectionCount(), 1U);
  }
}

TEST(WebSocketTestServer, ServesWssToClientsThatTrustTheCaOnly) {
  auto certs = TestCertificates::generate();
  auto ca = certs.caCertificatePem;
  WebSocketTestServer server({.tls = std::move(certs)});
  EXPECT_TRUE(server.url("/x").starts_with("wss://localhost:"));

  BlockingClient trusting(server.url("/x"), {.trustedCaPem = ca});
  trusting.sendText("secret");
  EXPECT_EQ(trusting.read().data, "secret");

  try {
    BlockingClient untrusting(server.url("/x"));
    FAIL() << "a client without the test CA must not complete the handshake";
  } catch (const BlockingClient::HandshakeError& e) {
    EXPECT_EQ(e.httpStatus, 0);
  }
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(WebSocketTestServer, DropAndStopEndConnectionsWithoutACloseFrame) {
  WebSocketTestServer server;
  BlockingClient dropped(server.url());
  ASSERT_TRUE(server.waitForConnections(1, kWait));
  server.dropConnections();
  EXPECT_EQ(dropped.read().kind, Kind::error);
  EXPECT_TRUE(server.waitForOpenConnections(0, kWait));

  // Stopping also frees the port, so a "restarted" server can take it.
  BlockingClient stopped(server.url());
  ASSERT_TRUE(server.waitForConnections(2, kWait));
  server.stop();
  EXPECT_EQ(stopped.read().kind, Kind::error);
  EXPECT_EQ(server.openConnections(), 0U);
  server.sendText("ignored after stop");
  server.stop();

  WebSocketTestServer::Options options;
  options.port = server.port();
  WebSocketTestServer restarted(std::move(options));
  BlockingClient again(restarted.url());
  again.sendText("back");
  EXPECT_EQ(again.read().data, "back");
}

TEST(WebSocketTestServer, DestroyingWithOpenConnectionsIsClean) {
  for (int round = 0; round < 5; ++round) {
    auto server = std::make_unique<WebSocketTestServer>();
    BlockingClient client(server->url());
    client.sendText("x");
    ASSERT_EQ(client.read().data, "x");
    server.reset();
    EXPECT_NE(client.read().kind, Kind::text);
  }
}

TEST(WebSocketTestServer, HooksRunOnTheServerThreadAndMayCallBack) {
  std::atomic<int> closed{0};
  std::atomic<WebSocketTestServer*> self{nullptr};  // set after construction, read by hooks
  WebSocketTestServer::Options options;
  options.echo = false;
  options.hooks.screenHandshake = [](const std::string& target) -> std::optional<int> {
    return target == "/forbidden" ? std::optional<int>(404) : std::nullopt;
  };
  // Public members called from a hook run inline instead of deadlocking.
  options.hooks.onOpen = [&](auto id, const std::string& target) {
    self.load()->sendTextTo(id, "welcome " + target);
  };
  options.hooks.onText = [&](auto id, const std::string& text) {
    self.load()->sendTextTo(id, "got " + text);
  };
  options.hooks.onClosed = [&](auto) { ++closed; };
  WebSocketTestServer server(std::move(options));
  self = &server;

  EXPECT_THROW(BlockingClient{server.url("/forbidden")}, BlockingClient::HandshakeError);
  {
    BlockingClient client(server.url("/open"));
    EXPECT_EQ(client.read().data, "welcome /open");
    client.sendText("ping");
    EXPECT_EQ(client.read().data, "got ping");
    client.close();
  }
  EXPECT_TRUE(server.waitForOpenConnections(0, kWait));
  EXPECT_EQ(closed.load(), 1);

  std::atomic<bool> ran{false};
  std::thread::id where;
  server.runAfter(10ms, [&] {
    where = std::this_thread::get_id();
    ran = true;
  });
  for (int i = 0; i < 500 && !ran; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_TRUE(ran);
  server.execute([&] { EXPECT_EQ(std::this_thread::get_id(), where); });
}

}  // namespace
}  // namespace vantor::testing
