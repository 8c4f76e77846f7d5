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

}  // namespace
}  // namespace vantor::account::detail
