// The TLS checks as a socket meets them: a server whose certificate is not
// trusted, names another host or has expired is refused, reported to the
// error callbacks and retried on the back-off, never accepted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "support/PhoenixClient.hpp"
#include "vantor/realtime/Channel.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::socketFor;
using vantor::testing::PhoenixTestServer;
using vantor::testing::TestCertificates;
using ::testing::HasSubstr;

struct TlsCase {
  const char* name;
  TestCertificates::Variant certificate;
  bool trustTheCa;
  const char* expectedError;  // empty: the connection succeeds
};

class SocketOverTlsWith : public ::testing::TestWithParam<TlsCase> {};

TEST_P(SocketOverTlsWith, OnlyAValidTrustedCertificateForTheHostIsAccepted) {
  const auto& param = GetParam();
  auto certificates = TestCertificates::generate(param.certificate);
  PhoenixTestServer server(PhoenixTestServer::Options{.tls = certificates});
  auto socket = socketFor(server, nullptr, nullptr,
                          param.trustTheCa ? std::optional(certificates.caCertificatePem) : std::nullopt);
  std::mutex mutex;
  std::vector<std::string> errors;
  std::atomic<int> opens{0};
  socket->onError([&](const TransportError& error, const std::optional<HttpResponse>&) {
    std::lock_guard lock(mutex);
    errors.push_back(error.description);
  });
  socket->onOpen([&] { ++opens; });
  auto channel = socket->channel("room:1");
  channel->join();
  socket->connect();

  if (std::string(param.expectedError).empty()) {
    ASSERT_TRUE(eventually([&] { return channel->isJoined(); }));
  } else {
    ASSERT_TRUE(eventually([&] {
      std::lock_guard lock(mutex);
      return errors.size() >= 3;
    })) << "refused connections are retried on the back-off";
    std::lock_guard lock(mutex);
    for (const auto& error : errors) {
      EXPECT_THAT(error, HasSubstr(param.expectedError));
    }
    EXPECT_EQ(opens, 0);
    EXPECT_EQ(server.webSocket().connectionCount(), 0U) << "no upgrade was ever sent";
  }
  socket->disconnect();
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, SocketOverTlsWith,
    ::testing::Values(TlsCase{"Trusted", TestCertificates::Variant::valid, true, ""},
                      TlsCase{"FromAnUntrustedCa", TestCertificates::Variant::valid, false,
                              "certificate verify failed"},
                      TlsCase{"ForAnotherHost", TestCertificates::Variant::otherNames, true,
                              "certificate verify failed"},
                      TlsCase{"Expired", TestCertificates::Variant::expired, true,
                              "certificate verify failed"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vantor::realtime
