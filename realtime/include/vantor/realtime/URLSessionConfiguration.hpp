#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace vantor::realtime {

/// Connection settings of a `URLSessionTransport`.
///
/// TLS always verifies the server's certificate chain and host name (with
/// SNI). By default the system trust store is used; callers may add their
/// own certificate authorities, for example a private CA.
struct URLSessionConfiguration {
  /// Trust the certificate authorities of the system trust store.
  bool useSystemTrustStore = true;
  /// Further certificate authorities to trust, each as PEM text.
  std::vector<std::string> additionalCertificateAuthorities;
  /// Limit for the TCP connect, the TLS handshake, the WebSocket opening
  /// handshake, and the closing handshake, each.
  std::chrono::milliseconds timeoutIntervalForRequest{std::chrono::seconds(60)};

  static URLSessionConfiguration defaultConfiguration() { return {}; }
};

}  // namespace vantor::realtime
