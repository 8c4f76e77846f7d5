#include "HttpClient.hpp"

#include <gtest/gtest.h>

#include <vantor/testing/TestCertificates.hpp>
#include <vantor/testing/WebSocketTestServer.hpp>

namespace vantor::account::detail {
namespace {

using namespace std::chrono_literals;
using vantor::testing::TestCertificates;

struct TlsCase {
  const char* name;
  TestCertificates::Variant certificate;
  bool trustTheCa;
  bool accepted;
};

class HttpClientOverTls : public ::testing::TestWithParam<TlsCase> {};

TEST_P(HttpClientOverTls, TrustsOnlyAValidCertificateForTheHostFromATrustedAuthority) {
  const auto& param = GetParam();
  auto certificates = TestCertificates::generate(param.certificate);
  vantor::testing::WebSocketTestServer::Options options;
  options.tls = certificates;
  vantor::testing::WebSocketTestServer server(options);
  HttpRequest request{"POST", "https://localhost:" + std::to_string(server.port()) + "/token", {}, "a=b"};
  HttpClientOptions client{false, {}, 5s};
  if (param.trustTheCa) {
    client.additionalCertificateAuthorities.push_back(certificates.caCertificatePem);
  }
  auto outcome = sendHttpRequestAndWait(request, client);
  if (param.accepted) {
    // The server speaks WebSocket, not OAuth; what matters is that TLS
    // accepted it.
    EXPECT_EQ(outcome.failure.find("TLS"), std::string::npos) << outcome.failure;
  } else {
    EXPECT_NE(outcome.failure.find("TLS handshake failed"), std::string::npos) << outcome.failure;
    EXPECT_TRUE(server.handshakeTargets().empty()) << "no request was sent";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, HttpClientOverTls,
    ::testing::Values(TlsCase{"Trusted", TestCertificates::Variant::valid, true, true},
                      TlsCase{"FromAnUntrustedCa", TestCertificates::Variant::valid, false, false},
                      TlsCase{"ForAnotherHost", TestCertificates::Variant::otherNames, true, false},
                      TlsCase{"Expired", TestCertificates::Variant::expired, true, false}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vantor::account::detail
