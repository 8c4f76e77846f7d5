#include "vantor/realtime/URLSessionTransport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/url/parse.hpp>
#include <functional>
#include <mutex>

#include "support/RecordingDelegate.hpp"
#include "vantor/platform/EventLoop.hpp"
#include "vantor/testing/TestCertificates.hpp"
#include "vantor/testing/WebSocketTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::RecordingDelegate;
using vantor::testing::TestCertificates;
using vantor::testing::WebSocketTestServer;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
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

// Connects and expects the attempt to fail before it opens: an error, then
// an abnormal close. Returns the error.
RecordingDelegate::Event failedConnect(const std::string& url, URLSessionConfiguration configuration = {}) {
  Connection connection(transportFor(url, std::move(configuration)));
  connection.transport->connect();
  EXPECT_TRUE(connection.delegate->waitFor("close")) << url;
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("error", "close:999")) << url;
  const auto events = connection.delegate->events();
  return events.empty() ? RecordingDelegate::Event{} : events.front();
}

TEST(URLSessionTransportUrl, RewritesHttpSchemesAsPlainText) {
  EXPECT_EQ(transportFor("http://h/s")->url().buffer(), "ws://h/s");
  EXPECT_EQ(transportFor("https://h/s")->url().buffer(), "wss://h/s");
  EXPECT_EQ(transportFor("wss://h/s")->url().buffer(), "wss://h/s");
  EXPECT_EQ(transportFor("https://h/s?next=http://x")->url().buffer(), "wss://h/s?next=ws://x");
}

TEST(URLSessionTransportState, WithoutAConnectionSendDoesNothingAndDisconnectOnlyMarksClosing) {
  Connection connection(transportFor("ws://127.0.0.1:1/"));
  EXPECT_EQ(connection.transport->readyState(), State::closed);
  connection.transport->send("[]");
  connection.transport->disconnect(1000, std::nullopt);
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
  Connection open(const std::string& path = "/") {
    Connection connection(transportFor(server.url(path)));
    connection.transport->connect();
    EXPECT_TRUE(connection.delegate->waitFor("open"));
    return connection;
  }

  WebSocketTestServer server;
};

TEST_F(TransportAgainstServer, OpensSendsFramesAndDeliversTextFramesInOrder) {
  Connection connection(transportFor(server.url("/socket/websocket?vsn=2.0.0")));
  connection.transport->connect();
  EXPECT_EQ(connection.transport->readyState(), State::connecting);
  ASSERT_TRUE(connection.delegate->waitFor("open"));
  EXPECT_EQ(connection.delegate->events().at(0).stateSeen, State::open)
      << "the state is written before the delegate hears of it";

  std::vector<std::string> frames;
  for (int i = 0; i < 50; ++i) {
    frames.push_back(R"([null,")" + std::to_string(i) + R"(","t","e",{}])");
    connection.transport->send(frames.back());
  }
  ASSERT_TRUE(connection.delegate->waitFor("message", 50));
  EXPECT_EQ(connection.delegate->messages(), frames);
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

// A close handshake; a server's idle time-out (a close frame, then the TCP
// connection goes without waiting for the answer); a dropped connection. Each
// is reported once, the drop as a receive failure without an HTTP response.
TEST_F(TransportAgainstServer, EachWayTheServerEndsTheConnectionIsReportedOnce) {
  struct Case {
    std::function<void()> end;
    std::vector<std::string> kinds;
  };
  for (const auto& [end, kinds] : std::vector<Case>{
           {[&] { server.closeWith(4001, "bye"); }, {"open", "close:4001"}},
           {[&] { server.closeAndDrop(1002); }, {"open", "close:1002"}},
           {[&] { server.dropConnections(); }, {"open", "error", "close:999"}}}) {
    auto connection = open();
    ::testing::internal::CaptureStdout();
    end();
    const bool closed = connection.delegate->waitFor("close");
    const auto printed = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(closed);
    std::this_thread::sleep_for(30ms);
    EXPECT_THAT(connection.delegate->kinds(), ElementsAreArray(kinds));
    EXPECT_EQ(connection.delegate->events().back().stateSeen, State::closed);
    if (kinds.size() == 3) {
      EXPECT_THAT(printed, ::testing::StartsWith("Error when receiving "));
      EXPECT_FALSE(connection.delegate->events().at(1).response);
    }
  }
}

// The same transport closes and connects again.
TEST_F(TransportAgainstServer, DisconnectMarksClosingAndReportsTheClose) {
  Connection connection(transportFor(server.url()));
  for (std::size_t round = 1; round <= 2; ++round) {
    connection.transport->connect();
    ASSERT_TRUE(connection.delegate->waitFor("open", round));
    // On the loop, so that the close cannot complete before the state is read.
    const auto stateAfterDisconnect = platform::EventLoop::main().sync([&] {
      connection.transport->disconnect(1000, "heartbeat timeout");
      return connection.transport->readyState();
    });
    EXPECT_EQ(stateAfterDisconnect, State::closing);
    ASSERT_TRUE(connection.delegate->waitFor("close", round));
  }
  EXPECT_THAT(connection.delegate->kinds(), ElementsAre("open", "close:1000", "open", "close:1000"));
  EXPECT_EQ(server.receivedCloseFrames().size(), 2U);
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

TEST(TransportConnectFailure, ANothingListeningPortIsAnErrorThenAbnormalClose) {
  // Bind and release a port so that nothing listens there.
  const auto port = WebSocketTestServer().port();
  EXPECT_THAT(failedConnect("ws://127.0.0.1:" + std::to_string(port) + "/").detail, HasSubstr("refused"));
}

// The certificate chains to a trusted CA and names localhost, 127.0.0.1 and
// ::1: by name or by address the connection succeeds; to 127.0.0.2, or with an
// extra CA that cannot be read, the handshake fails.
TEST(TransportOverTls, TheCertificateMustNameTheHostOrAddressAskedFor) {
  auto certificates = TestCertificates::generate();
  WebSocketTestServer server{WebSocketTestServer::Options{.tls = certificates}};
  URLSessionConfiguration trusting;
  trusting.additionalCertificateAuthorities.push_back(certificates.caCertificatePem);
  for (const auto& url : {server.url("/by-name"),
                          "wss://127.0.0.1:" + std::to_string(server.port()) + "/by-address"}) {
    Connection connection(transportFor(url, trusting));
    connection.transport->connect();
    ASSERT_TRUE(connection.delegate->waitFor("open")) << url;
    connection.transport->send("[\"over tls\"]");
    ASSERT_TRUE(connection.delegate->waitFor("message")) << url;
    EXPECT_THAT(connection.delegate->messages(), ElementsAre("[\"over tls\"]"));
  }
  URLSessionConfiguration unreadable;
  unreadable.additionalCertificateAuthorities.push_back("not a certificate");
  failedConnect(server.url(), unreadable);
  EXPECT_EQ(server.connectionCount(), 2U);

  WebSocketTestServer otherAddress{WebSocketTestServer::Options{.tls = certificates, .address = "127.0.0.2"}};
  EXPECT_THAT(failedConnect(otherAddress.url(), trusting).detail, HasSubstr("certificate verify failed"));
  EXPECT_EQ(otherAddress.connectionCount(), 0U);
}

}  // namespace
}  // namespace vantor::realtime
