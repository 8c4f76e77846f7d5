#pragma once

#include <memory>
#include <string>

#include "support/Eventually.hpp"
#include "vantor/realtime/Socket.hpp"
#include "vantor/realtime/URLSessionTransport.hpp"
#include "vantor/testing/PhoenixTestServer.hpp"

namespace vantor::realtime::testing {

/// A socket for `server` with test-sized timings: short back-offs and the
/// given heartbeat interval, a log recorder, and the server's CA trusted.
inline std::shared_ptr<Socket> socketFor(const vantor::testing::PhoenixTestServer& server,
                                         LogRecorder* log = nullptr,
                                         Socket::ParamsClosure params = nullptr,
                                         std::optional<std::string> caPem = std::nullopt) {
  URLSessionConfiguration configuration;
  if (caPem) {
    configuration.additionalCertificateAuthorities.push_back(*caPem);
  }
  auto socket = Socket::make(
      server.url(),
      [configuration](const boost::urls::url& url) -> std::shared_ptr<PhoenixTransport> {
        return URLSessionTransport::make(url, configuration);
      },
      std::move(params));
  socket->setReconnectAfter([](int) { return 0.01; });
  socket->setRejoinAfter([](int) { return 0.01; });
  if (log != nullptr) {
    socket->setLogger(log->logger());
  }
  return socket;
}

inline bool waitUntilConnected(const std::shared_ptr<Socket>& socket) {
  return eventually([&] { return socket->isConnected(); });
}

}  // namespace vantor::realtime::testing
