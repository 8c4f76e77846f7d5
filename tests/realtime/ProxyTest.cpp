// Sockets through an HTTP proxy (tinyproxy, started by the test): ws and wss
// tunnelled with certificate checks intact (a certificate from an untrusted
// CA, for another host or expired is refused and retried, never accepted),
// proxies that refuse, are absent or never answer reported and retried like
// any failed connection, and the hosts that no_proxy exempts reached directly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <map>
#include <mutex>

#include "support/Eventually.hpp"
#include "vantor/platform/ProxySettings.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/realtime/Push.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"
#include "vantor/testing/TinyProxy.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using platform::ProxySettings;
using testing::eventually;
using ::testing::HasSubstr;
using vantor::testing::PhoenixTestServer;
using vantor::testing::TestCertificates;
using vantor::testing::TinyProxy;

ProxySettings environment(std::map<std::string, std::string> variables) {
  return ProxySettings::fromEnvironment([variables](std::string_view name) -> std::optional<std::string> {
    auto found = variables.find(std::string(name));
    return found == variables.end() ? std::nullopt : std::optional(found->second);
  });
}

// A socket with short back-offs that records its errors and opens.
struct Client {
  Client(const std::string& url, URLSessionConfiguration configuration) {
    socket = Socket::make(
        url, [configuration](const boost::urls::url& endpoint) -> std::shared_ptr<PhoenixTransport> {
          return URLSessionTransport::make(endpoint, configuration);
        });
    socket->setReconnectAfter([](int) { return 0.01; });
    socket->onError([this](const TransportError& error, const std::optional<HttpResponse>&) {
      std::lock_guard lock(mutex);
      errors.push_back(error.description);
    });
    socket->onOpen([this] { ++opens; });
  }
  ~Client() { socket->disconnect(); }

  std::vector<std::string> errorsSoFar() {
    std::lock_guard lock(mutex);
    return errors;
  }

  // Connects and expects failures that all name `expected`, retried on the
  // back-off without ever opening or reaching `server`.
  void expectRetriedFailures(PhoenixTestServer& server, const std::string& expected) {
    socket->connect();
    ASSERT_TRUE(eventually([&] { return errorsSoFar().size() >= 3; }));
    for (const auto& error : errorsSoFar()) {
      EXPECT_THAT(error, HasSubstr(expected));
    }
    EXPECT_EQ(opens, 0);
    EXPECT_EQ(server.webSocket().connectionCount(), 0U);
  }

  // Joins "room:1" and pushes "echo"; true once the reply came back.
  bool echoes() {
    auto channel = socket->channel("room:1");
    channel->join();
    auto replied = std::make_shared<std::atomic<bool>>(false);
    channel->push("echo", {{"n", 7}})->receive("ok", [replied](const Message& message) {
      *replied = message.payload().at("n") == 7;
    });
    return eventually([&] { return replied->load(); });
  }

  std::shared_ptr<Socket> socket;
  std::mutex mutex;
  std::vector<std::string> errors;
  std::atomic<int> opens{0};
};

struct TunnelCase {
  const char* name;
  bool tls;
  TestCertificates::Variant certificate;
  bool credentials;
  const char* expectedError;  // empty: the push gets its reply
  bool trustTheCa = true;
};

class SocketThroughProxy : public ::testing::TestWithParam<TunnelCase> {};

TEST_P(SocketThroughProxy, ReachesTheServerThroughTheTunnelWithTlsChecksIntact) {
  const auto& param = GetParam();
  TinyProxy proxy(TinyProxy::Options{
      .basicAuth = param.credentials ? std::optional<std::string>("alice:s3cret") : std::nullopt});
  std::optional<TestCertificates> certificates;
  if (param.tls) {
    certificates = TestCertificates::generate(param.certificate);
  }
  PhoenixTestServer server(PhoenixTestServer::Options{.tls = certificates});
  URLSessionConfiguration configuration;
  if (certificates && param.trustTheCa) {
    configuration.additionalCertificateAuthorities.push_back(certificates->caCertificatePem);
  }
  configuration.proxy = environment({{param.tls ? "HTTPS_PROXY" : "http_proxy", proxy.url()}});
  Client client(server.url(), configuration);
  if (std::string(param.expectedError).empty()) {
    client.socket->connect();
    EXPECT_TRUE(client.echoes()) << proxy.log();
    EXPECT_EQ(proxy.tunnelsOpened(), 1U) << proxy.log();
  } else {
    client.expectRetriedFailures(server, param.expectedError);
    EXPECT_GE(proxy.tunnelsOpened(), 3U) << "each attempt went through the proxy";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Schemes, SocketThroughProxy,
    ::testing::Values(TunnelCase{"Ws", false, TestCertificates::Variant::valid, false, ""},
                      TunnelCase{"WssWithProxyCredentials", true, TestCertificates::Variant::valid, true, ""},
                      TunnelCase{"WssToACertificateForAnotherHost", true,
                                 TestCertificates::Variant::otherNames, false, "certificate verify failed"},
                      TunnelCase{"WssToAnExpiredCertificate", true, TestCertificates::Variant::expired, false,
                                 "certificate verify failed"},
                      TunnelCase{"WssToACertificateFromAnUntrustedCa", true, TestCertificates::Variant::valid,
                                 false, "certificate verify failed", false}),
    [](const auto& info) { return std::string(info.param.name); });

class SocketWithFailingProxy : public ::testing::Test {
 protected:
  void expectRetriedFailures(URLSessionConfiguration configuration, const std::string& expected) {
    Client(server.url(), std::move(configuration)).expectRetriedFailures(server, expected);
  }

  PhoenixTestServer server;
};

TEST_F(SocketWithFailingProxy, RefusedConnectIsReportedWithTheProxysStatus) {
  TinyProxy forbidsThePort(TinyProxy::Options{.connectPorts = {1}});
  URLSessionConfiguration configuration;
  configuration.proxy = ProxySettings::explicitProxy(forbidsThePort.url());
  expectRetriedFailures(configuration, "proxy refused CONNECT: 403");
  EXPECT_GE(forbidsThePort.connectRequests(), 3U);
}

TEST_F(SocketWithFailingProxy, AbsentOrSilentProxyFailsWithinTheHandshakeTimeout) {
  boost::asio::io_context context;
  // Listens, so TCP connects, but never accepts and never answers.
  boost::asio::ip::tcp::acceptor silent(context, {boost::asio::ip::make_address("127.0.0.1"), 0});
  const auto silentPort = silent.local_endpoint().port();
  URLSessionConfiguration configuration;
  configuration.handshakeTimeout = 200ms;
  configuration.proxy = ProxySettings::explicitProxy("127.0.0.1:" + std::to_string(silentPort));
  expectRetriedFailures(configuration, "timeout");

  silent.close();  // now nothing listens there
  expectRetriedFailures(configuration, "refused");
}

TEST(SocketProxySettings, NoProxyExemptsAHostAndAnInvalidProxyUrlIsReported) {
  PhoenixTestServer server;
  TinyProxy forbidsAll(TinyProxy::Options{.connectPorts = {1}});
  URLSessionConfiguration configuration;
  configuration.proxy = environment({{"http_proxy", forbidsAll.url()}, {"no_proxy", "localhost,127.0.0.1"}});
  {
    Client direct(server.url(), configuration);
    direct.socket->connect();
    EXPECT_TRUE(direct.echoes());
  }
  EXPECT_EQ(forbidsAll.connectRequests(), 0U);

  configuration.proxy = environment({{"http_proxy", "https://tls-proxy.invalid:443"}});
  Client invalid(server.url(), configuration);
  invalid.socket->connect();
  ASSERT_TRUE(eventually([&] { return !invalid.errorsSoFar().empty(); }));
  EXPECT_THAT(invalid.errorsSoFar().front(), HasSubstr("proxy URL"));
  EXPECT_EQ(server.webSocket().connectionCount(), 1U) << "only the direct one";
}

}  // namespace
}  // namespace vantor::realtime
