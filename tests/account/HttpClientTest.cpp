#include "HttpClient.hpp"

#include <gtest/gtest.h>

#include <vantor/testing/TestCertificates.hpp>
#include <vantor/testing/WebSocketTestServer.hpp>

namespace vantor::account::detail {
namespace {

using namespace std::chrono_literals;

TEST(HttpClientTest, TrustsOnlyServersWhoseCertificateChainsToATrustedAuthority) {
  auto certificates = vantor::testing::TestCertificates::generate();
  vantor::testing::WebSocketTestServer::Options options;
  options.tls = certificates;
  vantor::testing::WebSocketTestServer server(options);
  HttpRequest request{"POST", "https://localhost:" + std::to_string(server.port()) + "/token", {}, "a=b"};

  auto refused = sendHttpRequestAndWait(request, {false, {}, 5s});
  EXPECT_NE(refused.failure.find("TLS handshake failed"), std::string::npos) << refused.failure;

  // The server speaks WebSocket, not OAuth; what matters is that TLS
  // accepted it.
  auto accepted = sendHttpRequestAndWait(request, {false, {certificates.caCertificatePem}, 3s});
  EXPECT_EQ(accepted.failure.find("TLS"), std::string::npos) << accepted.failure;
}

TEST(HttpClientTest, RefusesPlainHttpBeyondLoopbackAndMisreadHosts) {
  for (const char* url : {"http://accounts.example.test/token", "http://127.0.0.1.example.test/token",
                          "ftp://127.0.0.1/token", "not a url"}) {
    auto outcome = sendHttpRequestAndWait({"GET", url, {}, {}}, {true, {}, 1s});
    EXPECT_FALSE(outcome.succeeded()) << url;
    EXPECT_EQ(outcome.status, 0) << url;
  }
}

}  // namespace
}  // namespace vantor::account::detail
