#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <tuple>
#include <vantor/testing/TestCertificates.hpp>
#include <vantor/testing/TinyProxy.hpp>
#include <vantor/testing/WebSocketTestServer.hpp>

#include "HttpClient.hpp"
#include "LoopbackHttpServer.hpp"

namespace vantor::account::detail {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using vantor::testing::TestCertificates;
using vantor::testing::TinyProxy;
using vantor::testing::WebSocketTestServer;

TEST(HttpClientOverTls, TrustsOnlyAValidCertificateForTheHostFromATrustedAuthority) {
  using Variant = TestCertificates::Variant;
  for (const auto& [name, certificate, trustTheCa, accepted] :
       std::vector<std::tuple<const char*, Variant, bool, bool>>{{"trusted", Variant::valid, true, true},
                                                                 {"from an untrusted CA", Variant::valid, false, false},
                                                                 {"for another host", Variant::otherNames, true, false},
                                                                 {"expired", Variant::expired, true, false}}) {
    SCOPED_TRACE(name);
    auto certificates = TestCertificates::generate(certificate);
    WebSocketTestServer server({.tls = certificates});
    HttpRequest request{"POST", "https://localhost:" + std::to_string(server.port()) + "/token", {}, "a=b"};
    HttpClientOptions client{false, {}, 5s, platform::ProxySettings::none()};
    if (trustTheCa) {
      client.additionalCertificateAuthorities.push_back(certificates.caCertificatePem);
    }
    auto outcome = sendHttpRequestAndWait(request, client);
    if (accepted) {
      // The server speaks WebSocket, not OAuth; what matters is that TLS
      // accepted it.
      EXPECT_EQ(outcome.failure.find("TLS"), std::string::npos) << outcome.failure;
    } else {
      EXPECT_THAT(outcome.failure, HasSubstr("TLS handshake failed"));
      EXPECT_TRUE(server.handshakeTargets().empty()) << "no request was sent";
    }
  }
}

TEST(HttpClientThroughProxy, TunnelsHttpAndHttpsAndFailsOnARefusal) {
  TinyProxy proxy;
  testing::LoopbackHttpServer plain([](const auto&) {
    return testing::LoopbackHttpServer::Response{200, "hello"};
  });
  auto certificates = TestCertificates::generate(TestCertificates::Variant::valid);
  WebSocketTestServer secure({.tls = certificates});
  HttpClientOptions options{
      false, {certificates.caCertificatePem}, 5s, platform::ProxySettings::explicitProxy(proxy.url())};

  auto outcome = sendHttpRequestAndWait({"GET", plain.url() + "/info", {}, ""}, options);
  EXPECT_TRUE(outcome.succeeded()) << outcome.failure;
  EXPECT_EQ(outcome.body, "hello");
  // TLS runs end to end through the tunnel: the server's certificate and
  // name are checked as without a proxy.
  outcome = sendHttpRequestAndWait(
      {"POST", "https://localhost:" + std::to_string(secure.port()) + "/token", {}, "a=b"}, options);
  EXPECT_TRUE(outcome.succeeded()) << outcome.failure;
  EXPECT_EQ(outcome.status, 400) << "the WebSocket server's answer to a plain request";
  EXPECT_EQ(proxy.tunnelsOpened(), 2U) << proxy.log();
  auto otherHost = TestCertificates::generate(TestCertificates::Variant::otherNames);
  WebSocketTestServer impostor({.tls = otherHost});
  options.additionalCertificateAuthorities = {otherHost.caCertificatePem};
  outcome = sendHttpRequestAndWait(
      {"GET", "https://localhost:" + std::to_string(impostor.port()) + "/", {}, ""}, options);
  EXPECT_THAT(outcome.failure, HasSubstr("TLS handshake failed"));

  TinyProxy refusing(TinyProxy::Options{.connectPorts = {1}});
  options.proxy = platform::ProxySettings::explicitProxy(refusing.url());
  outcome = sendHttpRequestAndWait({"GET", plain.url() + "/info", {}, ""}, options);
  EXPECT_THAT(outcome.failure, HasSubstr("proxy refused CONNECT: 403"));
  EXPECT_EQ(plain.requests().size(), 1U);

  // A proxy that takes the connection and never answers ends in the time-out.
  boost::asio::io_context context;
  boost::asio::ip::tcp::acceptor silent(context, {boost::asio::ip::make_address("127.0.0.1"), 0});
  options.proxy =
      platform::ProxySettings::explicitProxy("127.0.0.1:" + std::to_string(silent.local_endpoint().port()));
  options.timeout = 200ms;
  outcome = sendHttpRequestAndWait({"GET", plain.url() + "/info", {}, ""}, options);
  EXPECT_THAT(outcome.failure, HasSubstr("no answer within"));
}

}  // namespace
}  // namespace vantor::account::detail
