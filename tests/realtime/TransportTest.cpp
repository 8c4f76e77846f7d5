#include "vantor/realtime/URLSessionTransport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>
#include <mutex>

#include "support/RecordingDelegate.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/realtime/Defaults.hpp"
#include "vantor/realtime/Message.hpp"
#include "vantor/testing/FaultProxy.hpp"
#include "vantor/testing/TestCertificates.hpp"
#include "vantor/testing/WebSocketTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::RecordingDelegate;
using vantor::testing::FaultProxy;
using vantor::testing::TestCertificates;
using vantor::testing::WebSocketTestServer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using State = PhoenixTransportReadyState;

std::shared_ptr<URLSessionTransport> transportFor(
    const std::string& url, URLSessionConfiguration configuration = {}) {
  return URLSessionTransport::make(boost::urls::url_view(url), std::move(configuration));
}

struct Connection {
  std::shared_ptr<URLSessionTransport> transport;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();

  explicit Connection(std::shared_ptr<URLSessionTransport> made) : transport(std::move(made)) {
    delegate->watch(transport);
    transport->setDelegate(delegate);
  }
};

TEST(URLSessionTransportUrl, RewritesHttpSchemesAsPlainText) {
  EXPECT_EQ(transportFor("http://h/s")->url().buffer(), "ws://h/s");
  EXPECT_EQ(transportFor("https://h/s")->url().buffer(), "wss://h/s");
  EXPECT_EQ(transportFor("ws://h/s")->url().buffer(), "ws://h/s");
  EXPECT_EQ(transportFor("wss://h/s")->url().buffer(), "wss://h/s");
  EXPECT_EQ(transportFor("https://h/s?next=http://x")->url().buffer(), "wss://h/s?next=ws://x");
}

TEST(URLSessionTransportState, WithoutAConnectionSendDoesNothingAndDisconnectOnlyMarksClosing) {
  Connection connection(transportFor("ws://127.0.0.1:1/"));
  EXPECT_EQ(connection.transport->readyState(), State::closed);
  connection.transport->send("[]");
  connection.transport->disconnect(1000, std::nullopt);
  EXPECT_EQ(connection.transport->readyState(), State::closing);
  std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(connection.delegate->events().empty());
  EXPECT_EQ(connection.transport->readyState(), State::closing);
}

TEST(URLSessionTransportDeathTest, NonUtf8DataStopsTheProcess) {
  auto transport = transportFor("ws://127.0.0.1:1/");
  EXPECT_DEATH(transport->send("\xff\xfe"), "data to send is not valid UTF-8");
}

class TransportAgainstServer : public ::testing::Test {
 protected:
  WebSocketTestServer server;
};

TEST_F(TransportAgainstServer, OpensSendsAFrameAndDeliversTextFramesInOrder) {
  Connection connection(transportFor(server.url("/socket/websocket?vsn=2.0.0")));
  connection.transport->connect();
  EXPECT_EQ(connection.transport->readyState(), State::connecting);
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  EXPECT_EQ(connection.delegate->events().at(0).stateSeen, State::open)
      << "the state is written before the delegate hears of it";

  Payload payload{{"body", "hello"}, {"n", 1}};
  const auto frame = Defaults::encode(boost::json::array{"1", "2", "room:1", "shout", payload});
  connection.transport->send(frame);
  for (int i = 0; i < 50; ++i) {
    connection.transport->send(R"([null,")" + std::to_string(i) + R"(","t","e",{}])");
  }
  ASSERT_TRUE(connection.delegate->waitFor("message", 51));
  auto messages = connection.delegate->messages();
  auto echoed = Message::fromJson(boost::json::parse(messages.at(0)).as_array());
  ASSERT_TRUE(echoed);
  EXPECT_EQ(echoed->event(), "shout");
  EXPECT_EQ(echoed->rawPayload(), payload);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(messages.at(i + 1), R"([null,")" + std::to_string(i) + R"(","t","e",{}])");
  }
  EXPECT_THAT(server.handshakeTargets(), ElementsAre("/socket/websocket?vsn=2.0.0"));
}

// Sends made on the loop thread must keep their place behind the transport's
// work still queued there: nothing may follow a close frame.
TEST(TransportOnTheLoop, AFrameSentAfterADisconnectDoesNotOvertakeTheClose) {
  std::mutex mutex;
  std::vector<std::string> received;
  WebSocketTestServer::Hooks hooks;
  hooks.onText = [&](WebSocketTestServer::ConnectionId, const std::string& text) {
    std::lock_guard lock(mutex);
    received.push_back(text);
  };
  WebSocketTestServer server(WebSocketTestServer::Options{.echo = false, .hooks = std::move(hooks)});
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  platform::EventLoop::main().sync([&] {
    connection.transport->send(R"(["before"])");
    connection.transport->disconnect(1000, std::nullopt);
    connection.transport->send(R"(["after"])");
  });
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  std::lock_guard lock(mutex);
  EXPECT_THAT(received, ElementsAre(R"(["before"])"));
}

TEST_F(TransportAgainstServer, DropsBinaryFramesWithALineAndKeepsGoing) {
  server.setEcho(false);
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  ::testing::internal::CaptureStdout();
  server.sendBinary("\x01\x02");
  server.sendText("after");
  ASSERT_TRUE(connection.delegate->waitFor("message"));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Data received. This method is unsupported by the Client\n");
  EXPECT_THAT(connection.delegate->messages(), ElementsAre("after"));
}

TEST_F(TransportAgainstServer, PassesTheServersCloseCodeThrough) {
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  server.closeWith(4001, "bye");
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("open", "close:4001"));
  EXPECT_EQ(connection.delegate->events().back().stateSeen, State::closed);
}

TEST_F(TransportAgainstServer, ReportsARefusedHandshakeWithItsResponse) {
  server.refuseHandshake(403);
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
  const auto error = connection.delegate->events().at(0);
  ASSERT_TRUE(error.response);
  EXPECT_EQ(error.response->statusCode, 403);
  EXPECT_EQ(error.stateSeen, State::closed);
}

TEST_F(TransportAgainstServer, ReportsADroppedConnectionAsAReceiveFailure) {
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  ::testing::internal::CaptureStdout();
  server.dropConnections();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(::testing::internal::GetCapturedStdout(), ::testing::StartsWith("Error when receiving "));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("open", "error", "close:999"));
  EXPECT_FALSE(connection.delegate->events().at(1).response);
}

TEST_F(TransportAgainstServer, DisconnectSendsTheCodeAndReasonAndReportsTheClose) {
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  // On the loop, so that the close cannot complete before the state is read.
  const auto stateAfterDisconnect = platform::EventLoop::main().sync([&] {
    connection.transport->disconnect(1000, "heartbeat timeout");
    return connection.transport->readyState();
  });
  EXPECT_EQ(stateAfterDisconnect, State::closing);
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("open", "close:1000"));
  auto closes = server.receivedCloseFrames();
  ASSERT_EQ(closes.size(), 1U);
  EXPECT_EQ(closes[0].code, 1000);
  EXPECT_EQ(closes[0].reason, "heartbeat timeout");
}

TEST_F(TransportAgainstServer, ConnectsAgainAfterAClose) {
  Connection connection(transportFor(server.url()));
  for (int round = 1; round <= 2; ++round) {
    connection.transport->connect();
    ASSERT_TRUE(connection.delegate->waitFor("open", round));
    connection.transport->disconnect(1000, std::nullopt);
    ASSERT_TRUE(connection.delegate->waitFor("close", round));
  }
  EXPECT_TRUE(server.waitForConnections(2, 5s));
}

TEST_F(TransportAgainstServer, AReleasedTransportReportsNothingMore) {
  auto delegate = std::make_shared<RecordingDelegate>();
  {
    auto transport = transportFor(server.url());
    transport->setDelegate(delegate);
    transport->connect();
    ASSERT_TRUE(delegate->waitFor("open"));
  }
  server.sendText("after release");
  server.dropConnections();
  std::this_thread::sleep_for(30ms);
  EXPECT_THAT(delegate->kinds(), ElementsAre("open"));
}

TEST_F(TransportAgainstServer, AServerCloseFollowedByADroppedConnectionIsACloseWithItsCode) {
  // What a server does on its idle time-out: a close frame, then the TCP
  // connection goes without waiting for the answer.
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  server.closeAndDrop(1002);
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  std::this_thread::sleep_for(30ms);
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("open", "close:1002"));
}

struct Timeouts {
  URLSessionConfiguration configuration;
  Timeouts() {
    configuration.handshakeTimeout = 200ms;
    configuration.closeTimeout = 200ms;
  }
};

TEST_F(TransportAgainstServer, AHandshakeThatGetsNoAnswerFailsAfterTheHandshakeTimeout) {
  server.stallHandshakes(true);
  Connection connection(transportFor(server.url(), Timeouts().configuration));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
  EXPECT_THAT(connection.delegate->events().at(0).detail, HasSubstr("timeout"));
  // The next attempt, once the server answers again, works.
  server.acceptHandshakes();
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
}

TEST(TransportThroughAFrozenNetwork, DisconnectReportsTheCloseAfterTheCloseTimeout) {
  WebSocketTestServer server;
  FaultProxy proxy({.targetPort = server.port()});
  Connection connection(transportFor(proxy.url(), Timeouts().configuration));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  proxy.freeze();
  connection.transport->send("[\"into the void\"]");
  connection.transport->disconnect(1000, "heartbeat timeout");
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("open", "close:1006"));
  EXPECT_EQ(connection.transport->readyState(), State::closed);
}

TEST(TransportConnectFailure, ANothingListeningPortIsAnErrorThenAbnormalClose) {
  // Bind and release a port so that nothing listens there.
  std::uint16_t port = [] {
    WebSocketTestServer server;
    return server.port();
  }();
  Connection connection(transportFor("ws://127.0.0.1:" + std::to_string(port) + "/"));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
  EXPECT_THAT(connection.delegate->events().at(0).detail, HasSubstr("refused"));
}

class TransportOverTls : public ::testing::Test {
 protected:
  TestCertificates certificates = TestCertificates::generate();
  WebSocketTestServer server{WebSocketTestServer::Options{.tls = certificates}};
};

TEST_F(TransportOverTls, AnUntrustedServerFailsTheHandshake) {
  Connection connection(transportFor(server.url()));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
  EXPECT_THAT(connection.delegate->events().at(0).detail, HasSubstr("certificate verify failed"));
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST_F(TransportOverTls, TrustingTheCaLetsTheSameConnectionSucceed) {
  URLSessionConfiguration configuration;
  configuration.additionalCertificateAuthorities.push_back(certificates.caCertificatePem);
  for (const auto& url : {server.url("/by-name"),
                          "wss://127.0.0.1:" + std::to_string(server.port()) + "/by-address"}) {
    Connection connection(transportFor(url, configuration));
    connection.transport->connect();
    ASSERT_TRUE(connection.delegate->waitFor("open")) << url;
    connection.transport->send("[\"over tls\"]");
    ASSERT_TRUE(connection.delegate->waitFor("message")) << url;
    EXPECT_THAT(connection.delegate->messages(), ElementsAre("[\"over tls\"]"));
  }
}

TEST_F(TransportOverTls, AnotherCaDoesNotHelp) {
  URLSessionConfiguration configuration;
  configuration.useSystemTrustStore = false;
  configuration.additionalCertificateAuthorities.push_back(
      TestCertificates::generate().caCertificatePem);
  Connection connection(transportFor(server.url(), configuration));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
}

TEST(TransportOverTlsToAnotherHost, ATrustedCertificateForOtherNamesFailsTheHandshake) {
  // The certificate chains to a trusted CA but names localhost, 127.0.0.1
  // and ::1 only, not the 127.0.0.2 the client asked for.
  auto certificates = TestCertificates::generate();
  WebSocketTestServer server{
      WebSocketTestServer::Options{.tls = certificates, .address = "127.0.0.2"}};
  URLSessionConfiguration configuration;
  configuration.additionalCertificateAuthorities.push_back(certificates.caCertificatePem);
  Connection connection(transportFor(server.url(), configuration));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
  EXPECT_THAT(connection.delegate->events().at(0).detail, HasSubstr("certificate verify failed"));
  EXPECT_EQ(server.connectionCount(), 0U);
}

TEST_F(TransportOverTls, AnUnreadableCaIsReportedAsAConnectionError) {
  URLSessionConfiguration configuration;
  configuration.additionalCertificateAuthorities.push_back("not a certificate");
  Connection connection(transportFor(server.url(), configuration));
  connection.transport->connect();
  ASSERT_TRUE(connection.delegate->waitFor("close"));
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999"));
}

}  // namespace
}  // namespace vantor::realtime
